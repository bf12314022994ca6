// common.h - what the examples need beside the library: lines typed at the terminal as one more
// descriptor of the event loop, and lines printed so that a script can follow them.
#ifndef EXAMPLES_COMMON_H
#define EXAMPLES_COMMON_H

#include "tolvane.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string>
#include <unistd.h>
#include <utility>

// Who speaks in the lines of this process.
inline std::string speaker;

// Print "<speaker>: <text>" as one line, at once: main() sets stdout to line buffering.
__attribute__((format(printf, 1, 2))) inline void tell(const char *format, ...)
{
    printf("%s: ", speaker.c_str());
    va_list args;
    va_start(args, format);
    vprintf(format, args);
    va_end(args);
    putchar('\n');
}

__attribute__((noreturn)) inline void fail(const char *text)
{
    tell("%s", text);
    exit(EXIT_FAILURE);
}

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
    for (int option; (option = getopt(argc, argv, "l:")) != -1;) {
        if (option != 'l')
            exit(EXIT_FAILURE); // getopt() has said what is wrong
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

// Read a port number, or fail: atoi() would take "http" for 0, which means any port.
inline int to_port(const char *text)
{
    char *end = nullptr;
    const long port = strtol(text, &end, 10);
    if (end == text || *end != '\0' || port < 0 || port > 65535)
        fail("a port is a number from 0 to 65535");
    return static_cast<int>(port);
}

// The port of a listening socket: the one that the system has chosen, if it was to.
inline int port_of(int listenFd)
{
    sockaddr_in bound = {};
    socklen_t size = sizeof(bound);
    if (getsockname(listenFd, reinterpret_cast<sockaddr *>(&bound), &size) != 0)
        fail("the listening socket has no address");
    return ntohs(bound.sin_port);
}

// Hand a reply to the library in the form that an actor has to use: memory from malloc(), which
// the library frees.
inline int reply_at_once(const std::string &reply, char **respPayload, int *respLen)
{
    *respPayload = static_cast<char *>(malloc(reply.size() + 1));
    if (*respPayload == nullptr)
        fail("no memory");
    *respLen = static_cast<int>(reply.copy(*respPayload, reply.size()));
    return TV_ACTOR_HANDLED;
}

#endif
