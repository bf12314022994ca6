// log_capture.h - the library's log, captured in memory for as long as the object lives.
//
//     LogCapture log;
//     tv_unregister_polling_fd(7);
//     log.expect({"faield on tv_unregister_polling_fd, fd[7]"}); // these since the last take, no more
//
// Every entry's frame (date, file, function, line, two line feeds) is checked when it is taken.
#ifndef LOG_CAPTURE_H
#define LOG_CAPTURE_H

#include "tolvane.h"

#include <gtest/gtest.h>

#include <stdlib.h>
#include <string.h>
#include <string>
#include <vector>

class LogCapture
{
public:
    LogCapture() : stream(open_memstream(&text, &size))
    {
        tv_set_log_fd(stream);
    }
    ~LogCapture()
    {
        tv_set_log_fd(nullptr);
        fclose(stream);
        free(text);
    }

    // The messages since the last take; places says where each comes from, "file->function".
    std::vector<std::string> take()
    {
        fflush(stream);
        std::vector<std::string> messages;
        places.clear();
        for (const char *at = text + taken, *end; *at != '\0'; at = end + 2) {
            char place[128] = "";
            int line = 0, prefix = 0;
            if ((end = strstr(at, "\n\n")) != nullptr)
                sscanf(std::string(at, end).c_str(), "%*19c [%127[^:]:%d]%n", place, &line,
                       &prefix);
            if (prefix == 0 || line < 1) {
                ADD_FAILURE() << "not a log entry: " << at;
                break;
            }
            places.push_back(place);
            messages.push_back(std::string(at + prefix, end));
        }
        taken = size;
        return messages;
    }

    // Expect exactly these messages since the last take. A failure names the caller's line.
    void expect(const std::vector<std::string> &wanted, int line = __builtin_LINE(),
                const char *file = __builtin_FILE())
    {
        const testing::ScopedTrace trace(file, line, "expected log");
        EXPECT_EQ(take(), wanted);
    }

    std::vector<std::string> places;

private:
    char *text = nullptr;
    size_t size = 0, taken = 0;
    FILE *stream;
};

#endif
