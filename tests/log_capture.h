// log_capture.h - the library's log, captured in memory for as long as the object lives.
//
//     LogCapture log;
//     tv_unregister_polling_fd(7);
//     EXPECT_LOG({"faield on tv_unregister_polling_fd, fd[7]"});
//
// EXPECT_LOG() compares all entries since the last take(). take() also checks the frame of each
// entry: date, file, function, line, two line feeds.
#ifndef LOG_CAPTURE_H
#define LOG_CAPTURE_H

#include "tolvane.h"

#include <gtest/gtest.h>

#include <stdlib.h>
#include <string>
#include <vector>

using Texts = std::vector<std::string>;

#define EXPECT_LOG(...) EXPECT_EQ(log.take(), (Texts __VA_ARGS__))

struct LogCapture {
    LogCapture() : stream(open_memstream(&text, &size)) { tv_set_log_fd(stream); }
    ~LogCapture()
    {
        tv_set_log_fd(nullptr);
        fclose(stream);
        free(text);
    }

    // Returns the messages since the last take().
    Texts take()
    {
        fflush(stream);
        Texts messages;
        const std::string log(text, size);
        for (size_t end; (end = log.find("\n\n", taken)) != std::string::npos; taken = end + 2) {
            const std::string entry = log.substr(taken, end - taken);
            int line = 0, prefix = 0;
            sscanf(entry.c_str(), "%*19c [%*[a-z_].cpp->%*[a-z_]:%d]%n", &line, &prefix);
            EXPECT_TRUE(prefix > 0 && line > 0) << "not a log entry: " << entry;
            messages.push_back(entry.substr(prefix));
        }
        EXPECT_EQ(taken, size) << "an unfinished entry";
        return messages;
    }

    char *text = nullptr;
    size_t size = 0, taken = 0;
    FILE *stream;
};

#endif
