// tv_log.h - how the library's modules write to the log; not installed.
//
// Modules log through TV_LOG, which names the module, the function and the line of the entry. With
// no sink set it costs two loads and a branch. It preserves errno.
#ifndef TV_LOG_H
#define TV_LOG_H

#include "tolvane.h"

#define TV_LOG(...) TV_LOG_AT(__func__, __LINE__, __VA_ARGS__)

// The same in the name of another function, for helpers that log in their caller's name.
#define TV_LOG_AT(function, line, ...)                                                             \
    do {                                                                                           \
        if (fp_log != nullptr || log_file[0] != '\0')                                              \
            tv_log_write(__FILE__, function, line, __VA_ARGS__);                                   \
    } while (0)

// Write one entry to the sink in use, unless it is full (see tv_set_log_fd() and
// tv_set_log_file()). Only the last component of sourcePath is written.
extern "C" void tv_log_write(const char *sourcePath, const char *function, int line,
                             const char *format, ...) __attribute__((format(printf, 4, 5), cold));

#endif
