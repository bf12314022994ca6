// test_log.cpp - the two sinks: which one gets an entry, what it looks like, when they are full.

#include "tolvane.h"

#include <gtest/gtest.h>

#include <time.h>
#include <unistd.h>

TEST(Log, EachEntryGoesToOneSinkUntilThatIsFull)
{
    char path[] = "/tmp/tolvane_log_XXXXXX";
    const int file = mkstemp(path);
    FILE *const stream = tmpfile();
    using Growth = std::pair<long, long>; // of the stream and the file, by one entry
    const auto entry = [=](const char *zone = "XXX-1") {
        const long position = ftell(stream), size = lseek(file, 0, SEEK_END);
        const time_t longAgo = 1000000;
        const tm *const applications = localtime(&longAgo);
        setenv("TZ", zone, 1);
        errno = EDOM;
        disable_polling_timer();
        EXPECT_EQ(errno, EDOM); // belongs to the application, like the record of localtime()
        EXPECT_EQ(applications->tm_year, 70);
        return Growth(ftell(stream) - position, lseek(file, 0, SEEK_END) - size);
    };

    EXPECT_EQ(entry(), Growth(0, 0)); // no sink yet
    tv_set_log_file(path);
    long size = 0;
    for (const char *const zone : {"XXX-1", "YYY+2"}) {
        const time_t before = time(nullptr);
        const long end = lseek(file, 0, SEEK_END);
        size = entry(zone).second;
        const time_t after = time(nullptr);
        char date[20] = "";
        EXPECT_EQ(pread(file, date, 19, end), 19);
        EXPECT_TRUE(date == std::string(ctime(&before), 19) ||
                    date == std::string(ctime(&after), 19));
    }

    for (const long limit : {TV_LOG_LIMIT - 1, TV_LOG_LIMIT, TV_LOG_LIMIT + 1}) {
        EXPECT_EQ(ftruncate(file, limit) + fseek(stream, limit, SEEK_SET), 0);
        EXPECT_EQ(entry(), Growth(0, limit <= TV_LOG_LIMIT ? size : 0)); // a file is full above it
        tv_set_log_fd(stream);
        EXPECT_EQ(entry(), Growth(limit < TV_LOG_LIMIT ? size : 0, 0)); // a stream already at it
        tv_set_log_fd(nullptr);
    }
    fclose(stream);
    close(file);
    unlink(path);
}

TEST(Log, ALongPathIsTruncatedAndTheRestCleared)
{
    tv_set_log_file(std::string(200, 'x').c_str());
    EXPECT_EQ(log_file, std::string(127, 'x'));
    tv_set_log_file("yy");
    tv_set_log_file(nullptr); // changes nothing
    tv_set_log_file(log_file);
    EXPECT_EQ(std::string(log_file, TV_LOG_FILE_SIZE), "yy" + std::string(126, '\0'));
    tv_set_log_file("");
}
