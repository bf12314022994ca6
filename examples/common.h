// common.h - what the examples need beside the library: arguments that are looked at, reasons for
// what fails, lines typed at the terminal as one more descriptor of the event loop, and lines
// printed so that a script can follow them.
#ifndef EXAMPLES_COMMON_H
#define EXAMPLES_COMMON_H

#include "tolvane.h"

#include <algorithm>
#include <arpa/inet.h>
#include <deque>
#include <errno.h>
#include <netinet/in.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <string>
#include <string_view>
#include <unistd.h>
#include <utility>

// Who speaks in the lines of this process, and where.
inline std::string speaker;
inline FILE *voice = stdout;

inline void tell_list(const char *format, va_list args)
{
    fprintf(voice, "%s: ", speaker.c_str());
    vfprintf(voice, format, args);
    fputc('\n', voice);
}

// Print "<speaker>: <text>" as one line, at once: main() sets stdout to line buffering.
__attribute__((format(printf, 1, 2))) inline void tell(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    tell_list(format, args);
    va_end(args);
}

__attribute__((noreturn, format(printf, 1, 2))) inline void fail(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    tell_list(format, args);
    va_end(args);
    exit(EXIT_FAILURE);
}

// ---- reasons

// The library's functions tell of a failure by -1, and of its reason in the log: the last entries.
// The log is flushed at the very end, when static objects are gone.
inline std::deque<std::string> &entries = *new std::deque<std::string>;

// Keep the entries of one write(): each ends with an empty line.
inline ssize_t keep_entries(void *, const char *text, size_t size)
{
    for (std::string_view rest(text, size); !rest.empty();) {
        const size_t end = std::min(rest.find("\n\n"), rest.size());
        const size_t start = rest.find(']') + 1; // behind the date and the place in the source
        std::string &entry = entries.emplace_back(rest.substr(start, end - start));
        if (const size_t at = entry.find("error:"); at != std::string::npos)
            entry += std::string(" ") + strerror(atoi(&entry[at + strlen("error:")]));
        // Of a connect that timed out the log says only that it was in progress.
        if (entry.rfind("create client", 0) == 0 && entries.size() > 1 &&
            entries[entries.size() - 2].rfind(strerror(EINPROGRESS), 0) == 0)
            entry += std::string(": ") + strerror(ETIMEDOUT);
        rest.remove_prefix(std::min(end + 2, rest.size()));
        if (entries.size() > 3)
            entries.pop_front();
    }
    return static_cast<ssize_t>(size);
}

// Let the log go to the entries above. A stream that is always at its beginning has no limit.
inline void keep_log()
{
    const auto stay = [](void *, off64_t *position, int) {
        return static_cast<int>(*position = 0);
    };
    tv_set_log_fd(fopencookie(nullptr, "w", {nullptr, keep_entries, stay, nullptr}));
}

// What has failed last, with the reason; elsewhere if the log goes to a file.
inline std::string why()
{
    std::string all;
    fflush(fp_log);
    for (const std::string &entry : entries)
        all += (all.empty() ? "" : "; ") + entry;
    return fp_log != nullptr ? all : "see the log";
}

// ---- arguments

// Run the lines that can be read now, none to many, and keep the beginning of one that is not
// complete yet. Returns false at the end of the input: unregister fd then, it stays readable.
inline bool run_lines(int fd, void (*run)(const std::string &line))
{
    static std::string rest;
    char chunk[4096];
    const ssize_t got = read(fd, chunk, sizeof(chunk));
    if (got < 0 && (errno == EINTR || errno == EAGAIN))
        return true;
    if (got <= 0) {
        if (!rest.empty()) // a last line without an end
            run(std::exchange(rest, ""));
        return false;
    }
    rest.append(chunk, got);
    for (size_t end; (end = rest.find('\n')) != std::string::npos;) {
        const std::string line = rest.substr(0, end);
        rest.erase(0, end + 1);
        run(line);
    }
    return true;
}

// Take the option "-l LOGFILE" of both programs; the library logs there what goes wrong, and why.
inline void set_log_option(int argc, char **argv)
{
    keep_log();
    for (int option; (option = getopt(argc, argv, "l:")) != -1;) {
        if (option != 'l') { // getopt() has said what is wrong
            optind = argc;   // no arguments then: main() says which are wanted
            return;
        }
        tv_set_log_fd(nullptr);
        tv_set_log_file(optarg);
    }
}

// Split "say good morning" into "say" and "good morning".
inline std::pair<std::string, std::string> split_word(const std::string &text)
{
    const size_t end = text.find(' ');
    if (end == std::string::npos)
        return {text, ""};
    return {text.substr(0, end), text.substr(end + 1)};
}

// Read a number, or fail: atoi() would take "http" for 0, which means any port.
inline int to_number(const char *text, const char *what, int least, int most)
{
    char *end = nullptr;
    const long long number = strtoll(text, &end, 10);
    if (end == text || *end != '\0' || number < least || number > most)
        fail("%s: %s is a number from %d to %d", text, what, least, most);
    return static_cast<int>(number);
}

inline int to_port(const char *text)
{
    return to_number(text, "a port", 0, 65535);
}

// Check an address: to the library any other text is this machine, or all of its addresses.
inline const char *to_address(const char *text)
{
    in_addr address;
    if (inet_pton(AF_INET, text, &address) != 1)
        fail("%s: an address is four numbers, such as 127.0.0.1; names are not looked up", text);
    return text;
}

// Copy a name into its field of an address, or fail: cut, it would be another one's.
inline void copy_name(char (&field)[TV_IP_SIZE], const char *text)
{
    if (strlen(text) >= sizeof(field))
        fail("%s: a name has at most %zu characters", text, sizeof(field) - 1);
    strcpy(field, text);
}

// The port of a listening socket: the one that the system has chosen, if it was to.
inline int port_of(int listenFd)
{
    sockaddr_in bound = {};
    socklen_t size = sizeof(bound);
    if (listenFd < 0 || getsockname(listenFd, reinterpret_cast<sockaddr *>(&bound), &size) != 0)
        fail("the listening socket has no address");
    return ntohs(bound.sin_port);
}

// ---- replies

static const size_t maxReply = TV_MSG_BUF_SIZE - 128; // leaves room for any header

// Hand a reply to the library in the form that an actor has to use: memory from malloc(), which
// the library frees. One that does not fit into a message is replaced: a request without its reply
// would stay owed, and those behind it would wait for ever.
inline int reply_at_once(std::string_view reply, char **respPayload, int *respLen)
{
    if (reply.size() > maxReply)
        reply = "too long to be answered";
    *respPayload = static_cast<char *>(malloc(reply.size() + 1));
    if (*respPayload != nullptr) // else no reply: the other end's time-out tells it
        *respLen = static_cast<int>(reply.copy(*respPayload, reply.size()));
    return TV_ACTOR_HANDLED;
}

#endif
