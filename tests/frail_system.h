// frail_system.h - the system as the library sees it in scenarios and in fuzz_frame.cpp: sockets that
// deliver at once, a clock that only waiting moves, and calls that fail, each in its turn.
#ifndef FRAIL_SYSTEM_H
#define FRAIL_SYSTEM_H

#include "ruvo_timer.h"
#include "tolvane.h"

#include <algorithm>
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <functional>
#include <limits.h>
#include <poll.h>
#include <set>
#include <stdlib.h>
#include <string.h>
#include <string>
#include <string_view>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>
#include <utility>
#include <vector>

#define REQUIRE(condition)                                                                         \
    ((condition) ? (void)0                                                                         \
                 : (fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #condition), abort()))

enum { HALF = -1, END = -2, REFUSED = -3, LEAP = -4, ITSELF = -5 }; // ways to fail beside an errno
// What the application sees of it: nothing; any difference or a link-down callback; certainly that
// callback; or it depends.
enum { SAME, SAME_IF_ONCE, SEEN, DOWN, EITHER };

static const struct fault {
    std::string calls; // with a blank around each
    std::vector<int> ways;
    int effect;
    const char *log; // a part of an entry, or null: entries go to a file
} faults[] = {
    {" malloc realloc ", {ENOMEM}, SEEN, ""},
    {" calloc ", {ENOMEM}, SEEN, "malloc error in function"},
    {" socket ", {EMFILE}, SEEN, "failed on create socket"},
    {" setsockopt ", {ENOBUFS}, EITHER, "failed on setsockopt"},
    {" getsockopt ", {ENOBUFS}, SEEN, "getsockopt error:No buffer space"},
    {" getsockopt ", {REFUSED}, SEEN, "connect error:111"},
    {" bind ", {EADDRINUSE}, SEEN, "impl_create_server_socket, failed on bind"},
    {" listen ", {EADDRINUSE}, SEEN, "impl_create_server_socket, failed on listen"},
    {" accept4 ", {EINTR, ECONNABORTED}, SAME_IF_ONCE, "tv_server_fd_handler, failed on accept"},
    {" connect ", {ECONNREFUSED}, SEEN, "create client or connect server fail"},
    {" connect ", {EINTR, EALREADY}, SAME, ""},
    {" getpeername ", {ITSELF}, SEEN, ", connected to itself"},
    {" getsockname getpeername ", {ENOBUFS}, SAME, ""},
    {" fcntl ", {EBADF}, SAME, "_set_fd_nonblock,fail to"},
    {" poll ", {EINTR}, SAME_IF_ONCE, ""},
    {" poll ", {ENOMEM}, SEEN, ""},
    {" send recv ", {EINTR}, SAME_IF_ONCE, "continue"},
    {" send recv ", {EAGAIN}, SAME_IF_ONCE, ""}, // logged after a wait only
    {" send recv ", {HALF}, SAME, ""},
    {" send ", {ECONNRESET}, DOWN, "failed send error:Connection reset"},
    {" recv ", {ECONNRESET}, DOWN, "failed receive error:Connection reset"},
    {" recv ", {END}, DOWN, "the remote peer closed"},
    {" ruvo_start_timer ", {ENOMEM}, EITHER, "failed on start timer for channel"},
    {" close fopen stat ", {EIO}, SAME, nullptr},
    {" clock_gettime ", {EINVAL, LEAP}, EITHER, ""},
};

static const fault *active;             // or null
static int way, target;                 // how it fails, and which call, from 1 on
static bool lasting, armed;             // and those after it; in a run
static int calls, failed;               // so far
static int blocks;                      // allocated and not released
static std::set<std::string> unreached; // calls that were never made in a run
static std::string complaint;           // of perror(), the last one
static long long now = 1000000, stopAt; // in milliseconds; when the loop is to end
static int lag;                         // how much longer the next wait takes
static int effort, polls;               // how long a recv() takes; how many poll() were called
// What the peer does while it is waited for, so many ms at most: it moves the clock, or returns false.
static std::function<bool(int limit)> meanwhile;
static const int idleFd = eventfd(0, 0); // the first descriptor that the loop watches

// ---- what stands on the wire

static const size_t headerSize = 36;

inline std::string frame(const std::string &body)
{
    const uint32_t size = htonl(body.size());
    std::string header = "TCP_WATER_MARK";
    header.resize(headerSize - sizeof(size));
    return header.append((const char *)&size, sizeof(size)) + body;
}

// The length of the frame that the bytes begin with, or -1.
inline int frame_length(std::string_view bytes)
{
    uint32_t length;
    if (bytes.size() < headerSize || memcmp(bytes.data(), "TCP_WATER_MARK", 15) != 0)
        return -1;
    bytes.copy((char *)&length, sizeof(length), headerSize - sizeof(length));
    return ntohl(length) > bytes.size() - headerSize ? -1 : (int)ntohl(length);
}

// Descriptors that are open, of the first 64.
inline int count_descriptors()
{
    int count = 0;
    for (int fd = 0; fd < 64; fd++)
        count += fcntl(fd, F_GETFD) != -1;
    return count;
}

// ---- the calls

static void (*connected)(int far); // takes the other end when a client has connected

static sockaddr_un address_of(const char *name) // in the abstract namespace
{
    sockaddr_un address = {AF_UNIX, ""};
    snprintf(address.sun_path + 1, sizeof(address.sun_path) - 1, "tolvane %s %d", name, getpid());
    return address;
}
static const sockaddr_un listening = address_of("server"), remote = address_of("remote");

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

// A block of the length that a header announces takes long to fill. Nothing is found in a new one.
extern "C" void *__real_malloc(size_t);
static void *fresh_block(size_t size)
{
    return size > 1 << 20 ? nullptr : memset(allocated(__real_malloc(size)), 0xa5, size);
}
WRAP(void *, malloc, (size_t size), nullptr, fresh_block(size))
WRAP(void *, calloc, (size_t items, size_t size), nullptr, allocated(__real_calloc(items, size)))
WRAP(void *, realloc, (void *old, size_t size), nullptr, __real_realloc(old, size))
WRAP(void, free, (void *block), (void)0, (blocks -= block != nullptr, __real_free(block)))
WRAP(int, setsockopt, (int, int, int, const void *, socklen_t), -1, 0)
WRAP(int, getsockopt, (int fd, int level, int option, void *value, socklen_t *size),
     (*(int *)value = ECONNREFUSED, way == REFUSED ? 0 : -1),
     __real_getsockopt(fd, level, option, value, size))

static int with_little_room(int fd) // for what is sent and not received
{
    const int bytes = 65536;
    __real_setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof(bytes));
    return fd;
}
WRAP(int, socket, (int, int type, int), -1, with_little_room(__real_socket(AF_UNIX, type, 0)))
WRAP(int, bind, (int fd, const sockaddr *, socklen_t), -1,
     __real_bind(fd, (sockaddr *)&listening, sizeof(listening)))
WRAP(int, listen, (int fd, int backlog), -1, __real_listen(fd, backlog))
WRAP(int, accept4, (int fd, sockaddr *peer, socklen_t *size, int flags), -1,
     with_little_room(__real_accept4(fd, peer, size, flags)))
WRAP(int, fcntl, (int fd, int command, intptr_t flags), -1, __real_fcntl(fd, command, flags))
static const int hub = [] { // what clients connect to
    const int fd = __real_socket(AF_UNIX, SOCK_STREAM, 0);
    __real_bind(fd, (sockaddr *)&remote, sizeof(remote));
    __real_listen(fd, 1);
    return fd;
}();
extern "C" int __real_connect(int, const sockaddr *, socklen_t);
static int connect_now(int fd)
{
    const int result = __real_connect(fd, (sockaddr *)&remote, sizeof(remote));
    if (result == 0)
        connected(__real_accept4(hub, nullptr, nullptr, SOCK_NONBLOCK));
    return result;
}
// One that is not to block is in progress at first, and goes on when it is interrupted.
static int in_progress(int fd, int error)
{
    errno = error;
    return __real_fcntl(fd, F_GETFL, 0) & O_NONBLOCK ? -1 : 0;
}
WRAP(int, connect, (int fd, const sockaddr *, socklen_t),
     way == ECONNREFUSED ? -1 : (connect_now(fd), in_progress(fd, way)),
     connect_now(fd) == 0 ? in_progress(fd, EINPROGRESS) : -1)

// The addresses of a connected client's two ends.
static int give_address(sockaddr *address, socklen_t *size, int port)
{
    sockaddr_in given = {};
    given.sin_family = AF_INET;
    given.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    given.sin_port = htons(port);
    memcpy(address, &given, std::min<size_t>(*size, sizeof(given)));
    *size = sizeof(given);
    return 0;
}
WRAP(int, getsockname, (int, sockaddr *address, socklen_t *size), -1,
     give_address(address, size, 40000))
WRAP(int, getpeername, (int, sockaddr *address, socklen_t *size),
     way == ITSELF ? give_address(address, size, 40000) : -1, give_address(address, size, 7))

// A header waits for its body, if there is one, so that both leave in one segment. Messages begin
// with a number.
static void check_segment(const void *bytes, size_t size, int flags)
{
    const bool header = size == 36 && memcmp(bytes, "TCP_WATER_MARK", 15) == 0;
    const bool hasBody = header && memcmp((char *)bytes + 32, "\0\0\0", 4) != 0;
    REQUIRE(flags & MSG_MORE ? !isdigit(*(char *)bytes) && (hasBody || !header) : !hasBody);
}
WRAP(ssize_t, send, (int fd, const void *bytes, size_t size, int flags),
     way == HALF ? __real_send(fd, bytes, (size + 1) / 2, flags) : -1,
     (check_segment(bytes, size, flags), __real_send(fd, bytes, size, flags | MSG_DONTWAIT)))
extern "C" ssize_t __real_recv(int, void *, size_t, int);
static ssize_t receive_now(int fd, void *bytes, size_t size, int flags)
{
    const ssize_t received = __real_recv(fd, bytes, size, MSG_DONTWAIT);
    now += effort;
    if (received < 0 && meanwhile && !(flags & MSG_DONTWAIT)) // a receive without a timeout
        meanwhile(INT_MAX);
    return received;
}
WRAP(ssize_t, recv, (int fd, void *bytes, size_t size, int flags),
     way == HALF ? receive_now(fd, bytes, (size + 1) / 2, flags) : -(way != END),
     receive_now(fd, bytes, size, flags))
extern "C" int __real_close(int);
static int close_open(int fd) // what was never opened is not closed
{
    REQUIRE(fd >= 0);
    return __real_close(fd);
}
WRAP(int, close, (int fd), (close_open(fd), -1), close_open(fd))
WRAP(FILE *, fopen, (const char *path, const char *mode), nullptr, __real_fopen(path, mode))
WRAP(void, perror, (const char *text), (void)0,
     (void)(complaint = std::string(text) + ": " + strerror(errno)))
WRAP(int, ruvo_start_timer, (int ms, ruvo_timer_cb callback, intptr_t id, intptr_t none), -1,
     __real_ruvo_start_timer(ms, callback, id, none))
WRAP(int, stat, (const char *path, struct stat *status), -1, __real_stat(path, status))
// The wall clock may change at any time: nobody is to ask for it.
WRAP(int, clock_gettime, (clockid_t clock, timespec *time), -(way != LEAP),
     (clock == CLOCK_MONOTONIC ? (void)0 : abort(),
      *time = {(time_t)(now / 1000), (long)(now % 1000 * 1000000)}, 0))

// Unless the peer acts meanwhile, a wait moves the clock to its end. The loop's own wait ends the loop
// in time, and takes some when something is ready, which may be left alone.
extern "C" int __real_poll(struct pollfd *, nfds_t, int);
static int wait_for(struct pollfd *fds, nfds_t count, int timeout)
{
    const bool loop = fds->fd == idleFd;
    const long long start = now;
    polls++;
    int ready = __real_poll(fds, count, 0);
    if (ready == 0 && meanwhile && meanwhile(timeout))
        ready = __real_poll(fds, count, 0);
    else
        now += ready == 0 ? std::max(timeout, 0) : loop ? 4 : 0;
    now += std::exchange(lag, 0);
    if (!loop || (now <= stopAt && (ready != 0 || timeout >= 0)))
        return ready;
    now = std::max(start, stopAt);
    errno = EBADF;
    return -1;
}
WRAP(int, poll, (struct pollfd * fds, nfds_t count, int timeout),
     (now += std::exchange(lag, 0), -1), wait_for(fds, count, timeout))

#endif
