// tv_log.cpp - writes log entries to the sink that the application chose.
//
// Callers  almost every module, through TV_LOG.
// Method   each entry goes to the stream if one is set, else to the file, which is opened and
//          closed for each entry so that it may be moved away at any time.
// Failure  an entry that cannot be written, or comes when the sink is full (see tv_set_log_fd() and
//          tv_set_log_file()), is lost without notice.
// State    the two sinks, set by the application through tv_api.cpp or directly.

#include "tv_log.h"

#include <errno.h>
#include <stdarg.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>

FILE *fp_log = nullptr;
char log_file[TV_LOG_FILE_SIZE] = "";

static void write_entry(FILE *stream, const char *sourcePath, const char *function, int line,
                        const char *format, va_list args)
{
    // Do not call ctime(): it would overwrite a result of localtime() that the application still
    // uses. localtime_r() need not notice a new time zone, so call tzset().
    const time_t now = time(nullptr);
    struct tm local = {};
    char date[26] = "";
    tzset();
    if (localtime_r(&now, &local) != nullptr)
        asctime_r(&local, date);
    const char *slash = strrchr(sourcePath, '/');
    const char *module = slash != nullptr ? slash + 1 : sourcePath;
    fprintf(stream, "%.19s [%s->%s:%d]", date, module, function, line);
    vfprintf(stream, format, args);
    fputs("\n\n", stream);
}

static void append_to_file(const char *sourcePath, const char *function, int line,
                           const char *format, va_list args)
{
    struct stat status;
    if (stat(log_file, &status) == 0 && status.st_size > TV_LOG_LIMIT)
        return;

    FILE *stream = fopen(log_file, "ae");
    if (stream == nullptr)
        return;
    write_entry(stream, sourcePath, function, line, format, args);
    fclose(stream);
}

void tv_log_write(const char *sourcePath, const char *function, int line, const char *format, ...)
{
    const int error = errno; // the caller or the application may still read it
    va_list args;
    va_start(args, format);
    if (fp_log == nullptr)
        append_to_file(sourcePath, function, line, format, args);
    else if (ftell(fp_log) < TV_LOG_LIMIT)
        write_entry(fp_log, sourcePath, function, line, format, args);
    va_end(args);
    errno = error;
}
