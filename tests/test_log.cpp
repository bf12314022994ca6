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

TEST_F(Log, EntriesAreAppendedWithDateAndPlace)
{
    const time_t before = time(nullptr);
    const long size = entry().second;
    const time_t after = time(nullptr);
    EXPECT_EQ(entry().second, size);

    std::string text(2 * size, '\0');
    std::ifstream(path).read(&text[0], 2 * size);
    EXPECT_TRUE(text.compare(0, 19, ctime(&before), 19) == 0 ||
                text.compare(0, 19, ctime(&after), 19) == 0);
    EXPECT_EQ(text.substr(19, 37), " [tv_loop.cpp->disable_polling_timer:");
    EXPECT_EQ(text.substr(text.find(']'), size - text.find(']')), "]disable_polling_timer\n\n");
    EXPECT_EQ(text.substr(19, size - 19), text.substr(size + 19));
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
    const std::string longPath(200, 'x'), rest(TV_LOG_FILE_SIZE - 2, '\0');
    tv_set_log_file(longPath.c_str());
    EXPECT_EQ(std::string(log_file, TV_LOG_FILE_SIZE), longPath.substr(0, 127) + '\0');
    tv_set_log_file("yy");
    EXPECT_EQ(std::string(log_file, TV_LOG_FILE_SIZE), "yy" + rest);
    for (const char *const nowhere : {"", "/proc/no/such/folder"}) {
        tv_set_log_file(nowhere);
        EXPECT_EQ(entry(), Growth(0, 0));
    }
}
