// simulated_os.h - the operating system as the library meets it in tests: a simulated clock,
// sockets that deliver at once, and calls that can fail.
//
// The linker redirects the library's calls (--wrap): its send() becomes __wrap_send(), while
// __real_send() is the system's. Sockets are UNIX domain sockets in this process: they need no
// port, and deliver what is sent at once. The clock never runs by itself: waiting moves it, and so
// do a few simulated delays. Tests therefore do not sleep.
//
// A test makes calls fail through `injection`, with a fault of the table below or one of its own.
#ifndef SIMULATED_OS_H
#define SIMULATED_OS_H

#include "require.h"
#include "ruvo_timer.h"
#include "tolvane.h"
#include "wire.h"

#include <algorithm>
#include <errno.h>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <limits.h>
#include <poll.h>
#include <set>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>
#include <utility>
#include <vector>

// ---- faults

// How a call fails. A positive way is an error: the call returns -1 (or null) with this errno.
enum Way {
    HALF = -1,    // send() and recv() transfer half of what they could
    END = -2,     // recv() finds the end of the stream
    REFUSED = -3, // getsockopt() reports that the connection was refused
    LEAP = -4,    // the clock jumps an hour ahead
    ITSELF = -5,  // getpeername() returns the socket's own address
};

// What the application and its peers may observe of a fault, compared with an undisturbed run.
enum Effect {
    SAME,         // nothing
    SAME_IF_ONCE, // nothing, if a single call fails
    SEEN,         // something: another result, or the link-down callback
    DOWN,         // the link-down callback
    ANY,          // something or nothing
};

struct Fault {
    std::set<std::string> calls;
    std::vector<int> ways;
    Effect effect;
    const char *log; // part of an entry that must be logged; null: the log goes to a file
};

static const Fault faults[] = {
    {{"malloc"}, {ENOMEM}, SEEN, ""},
    {{"calloc"}, {ENOMEM}, SEEN, "malloc error in function"},
    {{"socket"}, {EMFILE}, SEEN, "failed on create socket"},
    {{"setsockopt"}, {ENOBUFS}, ANY, "failed on setsockopt"},
    {{"getsockopt"}, {ENOBUFS}, SEEN, "getsockopt error:No buffer space"},
    {{"getsockopt"}, {REFUSED}, SEEN, "connect error:111"},
    {{"bind"}, {EADDRINUSE}, SEEN, "impl_create_server_socket, failed on bind"},
    {{"listen"}, {EADDRINUSE}, SEEN, "impl_create_server_socket, failed on listen"},
    {{"accept4"}, {EINTR, ECONNABORTED}, SAME_IF_ONCE, "tv_server_fd_handler, failed on accept"},
    {{"connect"}, {ECONNREFUSED}, SEEN, "create client or connect server fail"},
    {{"connect"}, {EINTR, EALREADY}, SAME, ""},
    {{"getpeername"}, {ITSELF}, SEEN, ", connected to itself"},
    {{"getsockname", "getpeername"}, {ENOBUFS}, SAME, ""},
    {{"fcntl"}, {EBADF}, SAME, "_set_fd_nonblock,fail to"},
    {{"poll"}, {EINTR}, SAME_IF_ONCE, ""},
    {{"poll"}, {ENOMEM}, SEEN, ""},
    {{"send", "recv"}, {EINTR}, SAME_IF_ONCE, "continue"},
    {{"send", "recv"}, {EAGAIN}, SAME_IF_ONCE, ""},
    {{"send", "recv"}, {HALF}, SAME, ""},
    {{"send"}, {ECONNRESET}, DOWN, "failed send error:Connection reset"},
    {{"recv"}, {ECONNRESET}, DOWN, "failed receive error:Connection reset"},
    {{"recv"}, {END}, DOWN, "the remote peer closed"},
    {{"ruvo_start_timer"}, {ENOMEM}, ANY, "failed on start timer for channel"},
    {{"close", "fopen", "stat"}, {EIO}, SAME, nullptr},
    {{"clock_gettime"}, {EINVAL, LEAP}, ANY, ""},
};

// Which calls fail now, and how many have failed so far.
struct Injection {
    const Fault *fault = nullptr; // null: no call fails
    int way = 0;                  // one of its ways
    int first = 1;                // the first of its calls that fails, counted from 1
    bool lasting = false;         // the next 300 calls fail, too
    int calls = 0, failed = 0;    // calls of the fault's functions so far
};
static Injection injection;
static bool injecting; // off while a test prepares or cleans up

static long long now = 1000000; // the simulated clock, in milliseconds

static bool fails(const std::string &call)
{
    const Fault *fault = injection.fault;
    if (!injecting || fault == nullptr || fault->calls.count(call) == 0)
        return false;
    const int later = ++injection.calls - injection.first;
    const int limit = injection.lasting ? 300 : 0; // retries without a timeout must end
    if (later < 0 || later > limit)
        return false;
    injection.failed++;
    errno = injection.way;
    if (injection.way == LEAP)
        now += 3600 * 1000;
    if (errno == EINTR || errno == EAGAIN)
        now++; // so that retries with a timeout end
    return true;
}

// Defines the function that replaces a system call in the library, and declares the original.
#define WRAP(type, name, parameters, if_it_fails, otherwise)                                       \
    extern "C" type __real_##name parameters;                                                      \
    extern "C" type __wrap_##name parameters                                                       \
    {                                                                                              \
        return fails(#name) ? if_it_fails : otherwise;                                             \
    }

// ---- memory

static int blocks; // allocated and not freed

static void *count_block(void *block)
{
    blocks += block != nullptr;
    return block;
}

// A new block filled with junk. Refuses large sizes, such as the 2 GiB that a frame can announce.
extern "C" void *__real_malloc(size_t);
static void *new_block(size_t size)
{
    return size > 1 << 20 ? nullptr : memset(count_block(__real_malloc(size)), 0xa5, size);
}
WRAP(void *, malloc, (size_t size), nullptr, new_block(size))
WRAP(void *, calloc, (size_t n, size_t size), nullptr, count_block(__real_calloc(n, size)))

extern "C" void __real_free(void *);
extern "C" void __wrap_free(void *block)
{
    blocks -= block != nullptr;
    __real_free(block);
}

// ---- connections

static void (*connected)(int peerFd); // called with the other end of a client's new connection

WRAP(int, setsockopt, (int, int, int, const void *, socklen_t), -1, 0)

// Gives every socket the same buffer, so that a send blocks when its peer does not receive.
static int limit_send_buffer(int fd)
{
    const int bytes = 65536;
    __real_setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof(bytes));
    return fd;
}

static sockaddr_un abstract_address(const char *name)
{
    sockaddr_un address = {AF_UNIX, ""};
    snprintf(address.sun_path + 1, sizeof(address.sun_path) - 1, "tolvane %s %d", name, getpid());
    return address;
}
static const sockaddr_un serverAddress = abstract_address("server"); // of the library's server
static const sockaddr_un remoteAddress = abstract_address("remote"); // what its clients connect to

WRAP(int, socket, (int, int type, int), -1, limit_send_buffer(__real_socket(AF_UNIX, type, 0)))
WRAP(int, bind, (int fd, const sockaddr *, socklen_t), -1,
     __real_bind(fd, (sockaddr *)&serverAddress, sizeof(serverAddress)))
WRAP(int, listen, (int fd, int backlog), -1, __real_listen(fd, backlog))
WRAP(int, accept4, (int fd, sockaddr *peer, socklen_t *size, int flags), -1,
     limit_send_buffer(__real_accept4(fd, peer, size, flags)))
WRAP(int, fcntl, (int fd, int command, intptr_t flags), -1, __real_fcntl(fd, command, flags))

static const int remoteListener = [] {
    const int fd = __real_socket(AF_UNIX, SOCK_STREAM, 0);
    __real_bind(fd, (sockaddr *)&remoteAddress, sizeof(remoteAddress));
    __real_listen(fd, 1);
    return fd;
}();

// Connects at once. A non-blocking connect still fails with this error, as if it were in progress.
extern "C" int __real_connect(int, const sockaddr *, socklen_t);
static int connect_with(int fd, int error)
{
    if (__real_connect(fd, (sockaddr *)&remoteAddress, sizeof(remoteAddress)) != 0)
        return -1;
    connected(__real_accept4(remoteListener, nullptr, nullptr, SOCK_NONBLOCK));
    errno = error;
    return __real_fcntl(fd, F_GETFL, 0) & O_NONBLOCK ? -1 : 0;
}
WRAP(int, connect, (int fd, const sockaddr *, socklen_t),
     injection.way == ECONNREFUSED ? -1 : connect_with(fd, injection.way),
     connect_with(fd, EINPROGRESS))

// The addresses of a connected client's two ends, on one host.
static int give_address(sockaddr *address, int port)
{
    *(sockaddr_in *)address = {AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
    return 0;
}
WRAP(int, getsockname, (int, sockaddr *address, socklen_t *), -1, give_address(address, 40000))
WRAP(int, getpeername, (int, sockaddr *address, socklen_t *),
     injection.way == ITSELF ? give_address(address, 40000) : -1, give_address(address, 7))

static int fail_getsockopt(int *value)
{
    *value = ECONNREFUSED;
    return injection.way == REFUSED ? 0 : -1;
}
WRAP(int, getsockopt, (int fd, int level, int option, void *value, socklen_t *size),
     fail_getsockopt((int *)value), __real_getsockopt(fd, level, option, value, size))

// A failed close has closed the descriptor.
extern "C" int __real_close(int);
extern "C" int __wrap_close(int fd)
{
    REQUIRE(fd >= 0);
    const int result = __real_close(fd);
    return fails("close") ? -1 : result;
}

inline int count_descriptors()
{
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

// ---- transfers

// What a peer does while the library waits for at most `limit` milliseconds: it moves the clock and
// returns true, or returns false if it does nothing.
static std::function<bool(int limit)> meanwhile;

// A header must be sent with MSG_MORE, so that it leaves in one segment with its body. Nothing else
// may be, except the rest of a header.
extern "C" ssize_t __real_send(int, const void *, size_t, int);
static ssize_t send_now(int fd, const void *bytes, size_t size, int flags)
{
    const bool isHeader = size == headerSize && memcmp(bytes, "TCP_WATER_MARK", 15) == 0;
    const bool announcesBody = isHeader && memcmp((char *)bytes + 32, "\0\0\0", 4) != 0;
    REQUIRE(size < headerSize || announcesBody == ((flags & MSG_MORE) != 0));
    return __real_send(fd, bytes, size, flags | MSG_DONTWAIT);
}
WRAP(ssize_t, send, (int fd, const void *bytes, size_t size, int flags),
     injection.way == HALF ? __real_send(fd, bytes, (size + 1) / 2, flags) : -1,
     send_now(fd, bytes, size, flags))

extern "C" ssize_t __real_recv(int, void *, size_t, int);
static ssize_t fail_recv(int fd, void *bytes, size_t size)
{
    if (injection.way == HALF)
        return __real_recv(fd, bytes, (size + 1) / 2, MSG_DONTWAIT);
    return injection.way == END ? 0 : -1;
}
WRAP(ssize_t, recv, (int fd, void *bytes, size_t size, int), fail_recv(fd, bytes, size),
     __real_recv(fd, bytes, size, MSG_DONTWAIT))

// ---- waiting: for a descriptor, and in the library's main loop

static long long loopEnd; // at this time the loop's poll() fails, which ends the loop
static const int loopFd =
    eventfd(0, 0); // never ready; registered first, so it heads the loop's list
static std::string lastPerror;

// A wait moves the clock to its end, unless a peer acts first. A pass of the loop that finds
// something ready takes 4 ms, so the loop ends even if no handler reads it.
extern "C" int __real_poll(struct pollfd *, nfds_t, int);
static int wait_for(struct pollfd *fds, nfds_t count, int timeout)
{
    const bool isLoop = fds->fd == loopFd;
    const long long start = now;
    int ready = __real_poll(fds, count, 0);
    if (ready == 0 && meanwhile && meanwhile(timeout))
        ready = __real_poll(fds, count, 0);
    else if (ready == 0)
        now += std::max(timeout, 0);
    else if (isLoop)
        now += 4;
    if (!isLoop || (now <= loopEnd && (ready != 0 || timeout >= 0)))
        return ready;
    now = std::max(start, loopEnd);
    errno = EBADF;
    return -1;
}
WRAP(int, poll, (struct pollfd * fds, nfds_t count, int timeout), -1, wait_for(fds, count, timeout))

static int read_clock(clockid_t clock, timespec *time)
{
    REQUIRE(clock == CLOCK_MONOTONIC); // the wall clock may be set at any time
    *time = {(time_t)(now / 1000), (long)(now % 1000 * 1000000)};
    return 0;
}
WRAP(int, clock_gettime, (clockid_t clock, timespec *time),
     injection.way == LEAP ? read_clock(clock, time) : -1, read_clock(clock, time))

WRAP(int, ruvo_start_timer, (int ms, ruvo_timer_cb callback, intptr_t arg1, intptr_t arg2), -1,
     __real_ruvo_start_timer(ms, callback, arg1, arg2))

// ---- files

extern "C" void __wrap_perror(const char *text)
{
    lastPerror = std::string(text) + ": " + strerror(errno);
}
WRAP(FILE *, fopen, (const char *path, const char *mode), nullptr, __real_fopen(path, mode))
WRAP(int, stat, (const char *path, struct stat *status), -1, __real_stat(path, status))
#if !__GLIBC_PREREQ(2, 33) // in older versions stat() is inline and calls this
extern "C" int __real___xstat(int version, const char *path, struct stat *status);
extern "C" int __wrap___xstat(int version, const char *path, struct stat *status)
{
    return fails("stat") ? -1 : __real___xstat(version, path, status);
}
#endif

#endif
