// test_log.cpp - the two sinks: which one takes an entry, what it looks like, where they end.

#include "tolvane.h"

#include <gtest/gtest.h>

#include <fstream>
#include <time.h>
#include <unistd.h>

struct Log : testing::Test {
    Log()
    {
        close(mkstemp(path));
        tv_set_log_file(path);
    }
    ~Log() override
    {
        tv_set_log_fd(nullptr);
        tv_set_log_file("");
        fclose(stream);
        unlink(path);
    }

    // Log one entry: how many bytes did the stream and the file grow?
    std::pair<long, long> entry()
    {
        const long position = ftell(stream), size = fileSize();
        disable_polling_timer();
        return {ftell(stream) - position, fileSize() - size};
    }
    long fileSize()
    {
        return (long)std::ifstream(path, std::ios::ate).tellg();
    }

    char path[32] = "/tmp/tolvane_log_XXXXXX";
    FILE *stream = tmpfile();
    using Growth = std::pair<long, long>;
};

TEST_F(Log, EntriesAreAppendedAndBeginWithTheDate)
{
    const time_t before = time(nullptr);
    const long size = entry().second;
    const time_t after = time(nullptr);
    EXPECT_EQ(entry().second, size);
    char date[20] = "";
    std::ifstream(path).read(date, 19);
    EXPECT_TRUE(date == std::string(ctime(&before), 19) || date == std::string(ctime(&after), 19));
}

TEST_F(Log, AStreamIsFullAtTheLimitAFileBeyondIt)
{
    const long size = entry().second;
    for (const long limit : {TV_LOG_LIMIT - 1, TV_LOG_LIMIT, TV_LOG_LIMIT + 1}) {
        ASSERT_EQ(truncate(path, limit) + fseek(stream, limit, SEEK_SET), 0);
        EXPECT_EQ(entry(), Growth(0, limit <= TV_LOG_LIMIT ? size : 0));
        tv_set_log_fd(stream);
        EXPECT_EQ(entry(), Growth(limit < TV_LOG_LIMIT ? size : 0, 0)); // no change to the file
        tv_set_log_fd(nullptr);
    }
}

TEST_F(Log, ThePathIsCutAndItsRestCleared)
{
    tv_set_log_file(nullptr); // changes nothing
    EXPECT_STREQ(log_file, path);
    tv_set_log_file(std::string(200, 'x').c_str());
    EXPECT_EQ(log_file, std::string(127, 'x'));
    tv_set_log_file("yy");
    EXPECT_EQ(std::string(log_file, TV_LOG_FILE_SIZE), "yy" + std::string(126, '\0'));
    for (const char *const nowhere : {"", "/proc/no/such/folder"}) {
        tv_set_log_file(nowhere);
        EXPECT_EQ(entry(), Growth(0, 0));
    }
}
