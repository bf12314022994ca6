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
#include <string>
#include <vector>

struct LogEntry {
    std::string file;
    std::string function;
    std::string message;
};

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
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    // The entries since the last take.
    std::vector<LogEntry> take()
    {
        fflush(stream);
        std::vector<LogEntry> entries;
        for (std::string rest(text + taken, size - taken); !rest.empty();) {
            char file[64] = "", function[64] = "";
            int line = 0, prefix = 0;
            sscanf(rest.c_str(), "%*19c [%63[^-]->%63[^:]:%d]%n", file, function, &line, &prefix);
            const size_t end = rest.find("\n\n");
            if (prefix == 0 || line < 1 || end == std::string::npos) {
                ADD_FAILURE() << "not a log entry: " << rest;
                break;
            }
            entries.push_back({file, function, rest.substr(prefix, end - prefix)});
            rest.erase(0, end + 2);
        }
        taken = size;
        return entries;
    }

    std::vector<std::string> messages()
    {
        std::vector<std::string> result;
        for (const LogEntry &entry : take())
            result.push_back(entry.message);
        return result;
    }

    // Expect exactly these messages since the last take. A failure names the caller's line.
    void expect(const std::vector<std::string> &wanted, const char *file = __builtin_FILE(),
                int line = __builtin_LINE())
    {
        const testing::ScopedTrace trace(file, line, "expected log");
        EXPECT_EQ(messages(), wanted);
    }

private:
    char *text = nullptr;
    size_t size = 0;
    size_t taken = 0;
    FILE *stream;
};

#endif
