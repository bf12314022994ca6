// frail_system.h - the system as the library sees it in fault_injection.cpp: sockets that deliver
// at once, a clock that only waiting moves, a log that is read back, and calls that fail, each in
// its turn.
#ifndef FRAIL_SYSTEM_H
#define FRAIL_SYSTEM_H

#include "callbacks.h"
#include "tolvane.h"

#include <errno.h>
#include <fcntl.h>
#include <functional>
#include <poll.h>
#include <set>
#include <stdio.h>
#include <stdlib.h>
#include <string>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
#include <utility>
#include <vector>

enum { HALF = -1, END = -2, REFUSED = -3, LEAP = -4 }; // ways to fail beside an errno
// What the application sees of it: nothing; any difference or a link-down callback; certainly that
// callback; or it depends.
enum { SAME, SAME_IF_ONCE, SEEN, DOWN, EITHER };

struct fault {
    std::string calls; // with a blank around each
    std::vector<int> ways;
    int effect;
    const char *log; // a part of an entry
};

static const fault *active;                 // or null
static int way, target;                     // how it fails, and which call, from 1 on
static bool lasting, armed;                 // and those after it; in a scenario
static int calls, failed;                   // so far
static int blocks;                          // allocated and not released
static std::set<std::string> unreached;     // calls that were never made in a scenario
static std::string seen;                    // by the application
static long long now = 1000000, stopAt;     // in milliseconds; when the loop is to end
static int lag;                             // how much longer the next wait takes
static const int idleFd = eventfd(0, 0);    // the first descriptor that the loop watches
static sockaddr_un address = {AF_UNIX, ""}; // where the server listens, in the abstract namespace

static bool fails(const std::string &call)
{
    if (!armed)
        return false;
    unreached.erase(call);
    if (active == nullptr || active->calls.find(" " + call + " ") == std::string::npos)
        return false;
    const int past = ++calls - target;
    if (past < 0 || past > (lasting ? 300 : 0)) // endless tries have to go on
        return false;
    failed++;
    now += way == LEAP ? 3600000 : 0;
    lag += call != "connect" && (way == EINTR || way == EAGAIN);
    errno = way;
    return true;
}

static void *allocated(void *block)
{
    blocks += block != nullptr;
    return block;
}

#define WRAP(type, name, parameters, failure, success)                                             \
    extern "C" type __real_##name parameters;                                                      \
    static const bool name##_is_wrapped = unreached.insert(#name).second;                          \
    extern "C" type __wrap_##name parameters                                                       \
    {                                                                                              \
        return fails(#name) ? failure : success;                                                   \
    }

WRAP(void *, malloc, (size_t size), nullptr, allocated(__real_malloc(size)))
WRAP(void *, calloc, (size_t items, size_t size), nullptr, allocated(__real_calloc(items, size)))
WRAP(void *, realloc, (void *old, size_t size), nullptr, __real_realloc(old, size))
WRAP(void *, reallocarray, (void *old, size_t items, size_t size), nullptr,
     allocated(__real_reallocarray(old, items, size)))
WRAP(void, free, (void *block), (void)0, (blocks -= block != nullptr, __real_free(block)))
WRAP(int, socket, (int, int type, int), -1, __real_socket(AF_UNIX, type, 0))
WRAP(int, setsockopt, (int, int, int, const void *, socklen_t), -1, 0)
WRAP(int, getsockopt, (int fd, int level, int option, void *value, socklen_t *size),
     (*(int *)value = ECONNREFUSED, way == REFUSED ? 0 : -1),
     __real_getsockopt(fd, level, option, value, size))
WRAP(int, bind, (int fd, const sockaddr *, socklen_t), -1,
     __real_bind(fd, (sockaddr *)&address, sizeof(address)))
WRAP(int, listen, (int fd, int backlog), -1, __real_listen(fd, backlog))
WRAP(int, accept4, (int fd, sockaddr *peer, socklen_t *size, int flags), -1,
     __real_accept4(fd, peer, size, flags))
WRAP(int, fcntl, (int fd, int command, intptr_t flags), -1, __real_fcntl(fd, command, flags))
// A connect that is not to block is in progress at first, and goes on when it is interrupted.
WRAP(int, connect, (int fd, const sockaddr *, socklen_t),
     way == ECONNREFUSED ? -1
                         : (__real_connect(fd, (sockaddr *)&address, sizeof(address)), errno = way,
                            __real_fcntl(fd, F_GETFL, 0) & O_NONBLOCK ? -1 : 0),
     __real_connect(fd, (sockaddr *)&address, sizeof(address)) != 0
         ? -1
         : (errno = EINPROGRESS, __real_fcntl(fd, F_GETFL, 0) & O_NONBLOCK ? -1 : 0))
// A header waits for its body, which begins with a number, so that both leave in one segment.
WRAP(ssize_t, send, (int fd, const void *bytes, size_t size, int flags),
     way == HALF ? __real_send(fd, bytes, (size + 1) / 2, flags) : -1,
     ((*(char *)bytes == 'T' && !(flags & MSG_MORE)) ||
              (isdigit(*(char *)bytes) && flags & MSG_MORE)
          ? abort()
          : (void)0,
      __real_send(fd, bytes, size, flags)))
WRAP(ssize_t, recv, (int fd, void *bytes, size_t size, int flags),
     way == HALF ? __real_recv(fd, bytes, (size + 1) / 2, flags) : -(way != END),
     __real_recv(fd, bytes, size, flags))
WRAP(int, close, (int fd), (__real_close(fd), -1), __real_close(fd))
WRAP(FILE *, fopen, (const char *path, const char *mode), nullptr, __real_fopen(path, mode))
WRAP(void, perror, (const char *), (void)0, (void)0)
WRAP(int, stat, (const char *path, struct stat *status), -1, __real_stat(path, status))
// The wall clock may change at any time: nobody is to ask for it.
WRAP(int, clock_gettime, (clockid_t clock, timespec *time), -(way != LEAP),
     (clock == CLOCK_MONOTONIC ? (void)0 : abort(),
      *time = {(time_t)(now / 1000), (long)(now % 1000 * 1000000)}, 0))

// Nothing comes later: a wait moves the clock to its end. The loop's own wait ends the loop in
// time.
static int wait_for(struct pollfd *fds, int ready, int timeout)
{
    now += std::exchange(lag, 0) + (ready == 0 && timeout > 0 ? timeout : 0);
    if (fds->fd != idleFd || (now < stopAt && (ready != 0 || timeout >= 0)))
        return ready;
    now = stopAt;
    errno = EBADF;
    return -1;
}
WRAP(int, poll, (struct pollfd * fds, nfds_t count, int timeout),
     (now += std::exchange(lag, 0), -1), wait_for(fds, __real_poll(fds, count, 0), timeout))

static void note(const std::string &text, int number)
{
    seen += text + " " + std::to_string(number) + "\n";
}

static void run_loop(int ms)
{
    stopAt = now + ms;
    tv_main_loop();
    note("ended in time", now >= stopAt);
    now = std::max(now, stopAt);
}

// The log since the last call, which is to come first.
static std::string take_log()
{
    static const int file = memfd_create("log", 0);
    static char text[1 << 16];
    tv_set_log_file(("/proc/self/fd/" + std::to_string(file)).c_str());
    const ssize_t len = pread(file, text, sizeof(text), 0);
    return ftruncate(file, 0) == 0 ? std::string(text, len) : "";
}

static struct sum { // of all processes
    int injected, wrong;
} *const sum = (struct sum *)mmap(nullptr, sizeof(*sum), PROT_READ | PROT_WRITE,
                                  MAP_SHARED | MAP_ANONYMOUS, -1, 0);

static void complain(const std::string &what)
{
    printf("%s\n", what.c_str());
    fflush(stdout);
    sum->wrong++;
}

// After a success the channel is open: a link-down callback would have closed it.
static int note_result(const std::string &operation, int id, int result)
{
    note(operation, result);
    if (result == 0 && tv_get_channel(id) == nullptr)
        complain(operation + " succeeds though the link is down");
    return result;
}

// Play a scenario. What is wrong then, if anything?
static std::string problem(const std::function<void()> &play, const std::string &undisturbed)
{
    take_log();
    seen.clear();
    calls = failed = blocks = 0;
    const int descriptors = count_descriptors();
    armed = true;
    play();
    armed = false;
    run_loop(4000000); // timers of closed channels, also after the leap
    const bool same = seen == undisturbed, down = seen.find("linkdown") != std::string::npos;
    if (blocks != 0 || count_descriptors() != descriptors)
        return "a block or a descriptor is left";
    if (failed == 0)
        return "";
    const bool soft = active->effect == SAME || (active->effect == SAME_IF_ONCE && !lasting);
    if (soft ? !same
             : (active->effect == SEEN && same && !down) || (active->effect == DOWN && !down))
        return "the application has to see something else";
    return take_log().find(active->log) != std::string::npos ? "" : "the log does not tell";
}

// Let each of the calls fail in turn while a scenario is played, in a process of its own.
static void inject(const std::function<void()> &play, const std::string &undisturbed)
{
    if (fork() == 0) {
        for (target = failed = 1; failed > 0; target++) {
            alarm(30);
            const std::string what = problem(play, undisturbed);
            sum->injected += failed > 0;
            if (!what.empty())
                complain(active->calls + std::to_string(target) + ": " + what + "; it saw\n" +
                         seen);
        }
        exit(0);
    }
    int status = -1;
    wait(&status);
    if (status != 0)
        complain(active->calls + "ended with " + std::to_string(status));
}

static void inject_all(const std::vector<fault> &faults, const std::function<void()> &play)
{
    active = nullptr;
    const std::string what = problem(play, ""), undisturbed = seen;
    if (!what.empty())
        complain("undisturbed: " + what);
    for (const fault &fault : faults) {
        active = &fault;
        for (const int each : fault.ways) {
            way = each;
            for (const bool on : {false, true}) {
                lasting = on;
                inject(play, undisturbed);
            }
        }
    }
}

#endif
