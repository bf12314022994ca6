// tv_log.cpp - writes log entries to the sink that the application chose.
//
// Place    called by every module through TV_LOG, and by nothing else.
// Method   the sink is looked up afresh for every entry: a stream first, else a file that is
//          opened and closed again, so that it may be moved away at any time.
// Failure  a sink that cannot be written loses the entry; nobody is told.
// State    the two sinks, set by the application through tv_api.cpp or directly.

#include "tv_log.h"

#include <errno.h>
#include <stdarg.h>
#include <sys/stat.h>
#include <time.h>

FILE *fp_log = NULL;
char log_file[TV_LOG_FILE_SIZE] = "";

static void write_entry(FILE *stream, const char *module, const char *function, int line,
                        const char *format, va_list args)
{
    const time_t now = time(NULL);
    const char *date = ctime(&now); // looks at TZ anew, unlike ctime_r(); null beyond year 9999

    fprintf(stream, "%.19s [%s->%s:%d]", date != NULL ? date : "", module, function, line);
    vfprintf(stream, format, args);
    fputs("\n\n", stream);
}

static void append_to_file(const char *module, const char *function, int line, const char *format,
                           va_list args)
{
    struct stat status;
    if (stat(log_file, &status) == 0 && status.st_size > TV_LOG_LIMIT)
        return;

    FILE *stream = fopen(log_file, "ae");
    if (stream == NULL)
        return;
    write_entry(stream, module, function, line, format, args);
    fclose(stream);
}

void tv_log_write(const char *module, const char *function, int line, const char *format, ...)
{
    const int error = errno; // the caller's own, or its application's
    va_list args;
    va_start(args, format);
    if (fp_log == NULL)
        append_to_file(module, function, line, format, args);
    else if (ftell(fp_log) < TV_LOG_LIMIT)
        write_entry(fp_log, module, function, line, format, args);
    va_end(args);
    errno = error;
}
