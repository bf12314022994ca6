// impl_socket.cpp - sockets, and whole frames over one socket within a deadline.
//
// Callers  tcp_impl.cpp, tv_client.cpp and tv_server_api.cpp. The lowest layer: it knows nothing of
//          channels.
// Format   a frame is a 36-byte header (watermark, length in network order) and a body; see
//          docs/protocol.md.
// Method   each transfer is tried first and waits only if the kernel would block. One deadline, set
//          when the frame starts, covers header and body.
// Failure  a failed transfer leaves the stream out of step, so the caller must drop the link. A
//          failed set-up closes the socket it opened.
// State    none.

#include "tv_log.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

static const char watermark[] = "TCP_WATER_MARK"; // sent with its terminator
static const int watermarkFieldSize = 32;
static const int headerSize = watermarkFieldSize + sizeof(uint32_t);

// How many established connections may wait to be accepted.
static const int listenBacklog = 16;

// The most one recv() may take, so that the deadline is checked during a large body too.
static const int receiveStep = 256 * 1024;

// The deadline of a receive without a timeout.
static const long long noDeadline = -1;

// ---- waiting

static const long long nsPerMs = 1000000;

static long long _monotonic_ns(void)
{
    struct timespec now = {0, 0}; // should the clock ever fail
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000 * nsPerMs + now.tv_nsec;
}

static long long _deadline_after(int timeoutMs)
{
    return _monotonic_ns() + timeoutMs * nsPerMs;
}

// Return the milliseconds left, rounded up; 0 or less once the deadline has passed.
static int _ms_until(long long deadline)
{
    const long long left = deadline - _monotonic_ns();
    return (int)((left > 0 ? left + nsPerMs - 1 : left) / nsPerMs);
}

static void _set_fd_nonblock(int fd)
{
    const int flags = fcntl(fd, F_GETFL, 0);
    if (flags < 0) {
        TV_LOG("%s,fail to get fd flag:%s", __func__, strerror(errno));
        return;
    }
    if (fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0)
        TV_LOG("%s,fail to set fd nonblock:%s", __func__, strerror(errno));
}

// Wait for the events. Returns true if the next call on fd will not block.
static bool _wait_fd(int fd, short events, int timeoutMs)
{
    const long long deadline = _deadline_after(timeoutMs);
    int left = timeoutMs;
    for (; left > 0; left = _ms_until(deadline)) {
        struct pollfd entry = {fd, events, 0};
        const int result = poll(&entry, 1, left);
        if (result >= 0)
            return result > 0;
        if (errno != EINTR) {
            TV_LOG("poll fd error:%s", strerror(errno));
            return false;
        }
    }
    TV_LOG("poll timeout :%d", left);
    return false;
}

// ---- sending

static bool _impl_send_with_timeout(int fd, const char *bytes, int count, int flags,
                                    long long deadline)
{
    int sent = 0;
    for (bool first = true; sent < count; first = false) {
        const ssize_t result =
            send(fd, bytes + sent, count - sent, flags | MSG_NOSIGNAL | MSG_DONTWAIT);
        const int error = result < 0 ? errno : 0;
        if (result >= 0)
            sent += (int)result;
        if (sent == count)
            break;
        if (error != 0 && error != EAGAIN && error != EINTR) {
            TV_LOG("failed send error:%s", strerror(error));
            return false;
        }
        // The first try is made without waiting, so EAGAIN is normal there and not logged.
        if (error != 0 && !(first && error == EAGAIN))
            TV_LOG("send error: %s continue", strerror(error));
        const int left = _ms_until(deadline);
        if (left <= 0) {
            TV_LOG("time out:%d", left);
            return false;
        }
        if (!_wait_fd(fd, POLLOUT, left)) {
            TV_LOG("failed");
            return false;
        }
    }
    return true;
}

int tcp_impl_send_with_timeout(int fd, const char *body, int len, int timeoutMs)
{
    if (len < 0) {
        TV_LOG("tcp_impl_send, negative length[%d]", len);
        return -1;
    }
    char header[headerSize] = {0};
    memcpy(header, watermark, sizeof(watermark));
    const uint32_t netLen = htonl((uint32_t)len);
    memcpy(header + watermarkFieldSize, &netLen, sizeof(netLen));

    // If a body follows, the kernel holds the header back so that both leave in one segment.
    const int flags = len > 0 ? MSG_MORE : 0;
    const long long deadline = _deadline_after(timeoutMs);
    if (timeoutMs <= 0)
        TV_LOG_AT("_impl_send_with_timeout", __LINE__, "time out:%d", timeoutMs);
    if (timeoutMs <= 0 || !_impl_send_with_timeout(fd, header, headerSize, flags, deadline)) {
        TV_LOG("tcp_impl_send, failed on send header");
        return -1;
    }
    if (!_impl_send_with_timeout(fd, body, len, 0, deadline)) {
        TV_LOG("tcp_impl_send, failed on send msg, len[%d]", len);
        return -1;
    }
    return len;
}

// ---- receiving

// Without a deadline, call recv() until all is there; this spins on a non-blocking descriptor. Once
// a deadline has passed, a receive of up to receiveStep bytes drains what is buffered, and fails if
// that is not enough. A larger one fails at once: a peer that floods us could keep it going.
static bool _impl_receive_with_timeout(int fd, char *dst, int count, long long deadline)
{
    const bool limited = deadline != noDeadline;
    int received = 0;
    for (bool first = true; received < count; first = false) {
        const int missing = count - received;
        const ssize_t result =
            recv(fd, dst + received, missing < receiveStep ? missing : receiveStep,
                 limited ? MSG_DONTWAIT : 0);
        const int error = result < 0 ? errno : 0;
        if (result == 0) {
            TV_LOG("the remote peer closed");
            return false;
        }
        if (error != 0 && error != EAGAIN && error != EINTR) {
            TV_LOG("failed receive error:%s", strerror(error));
            return false;
        }
        if (result > 0)
            received += (int)result;
        if (received == count)
            break;
        const int left = limited ? _ms_until(deadline) : 0;
        if (limited && left <= 0 && (error == EAGAIN || count > receiveStep)) {
            TV_LOG("time out:%d", left);
            return false;
        }
        if (error != 0 && !(limited && first && error == EAGAIN))
            TV_LOG("error %s continue", strerror(error));
        if (left > 0 && !_wait_fd(fd, POLLIN, left)) {
            TV_LOG("%s failed ", __func__);
            return false;
        }
    }
    return true;
}

// Receive a header and return the length of the body, or -1. Logs in the caller's name.
static int _receive_header(int fd, long long deadline, const char *caller)
{
    char header[headerSize];
    if (!_impl_receive_with_timeout(fd, header, headerSize, deadline)) {
        TV_LOG_AT(caller, __LINE__, "tcp_impl_receive, failed on receive header");
        return -1;
    }
    if (memcmp(header, watermark, sizeof(watermark)) != 0) {
        TV_LOG_AT(caller, __LINE__, "tcp_impl_receive, invalid watermark");
        return -1;
    }
    uint32_t netLen;
    memcpy(&netLen, header + watermarkFieldSize, sizeof(netLen));
    const uint32_t len = ntohl(netLen);
    if (len > INT_MAX) {
        TV_LOG_AT(caller, __LINE__, "tcp_impl_receive, invalid length[%u]", len);
        return -1;
    }
    return (int)len;
}

char *tcp_impl_receive_with_timeout(int fd, int *len, int timeoutMs)
{
    *len = 0;
    const long long deadline = timeoutMs > 0 ? _deadline_after(timeoutMs) : noDeadline;
    const int bodyLen = _receive_header(fd, deadline, __func__);
    if (bodyLen < 0)
        return nullptr;

    // One byte more for the 0x00 that ends every scan of the message. The peer chooses the length,
    // but the system backs a large block with memory only as bytes arrive.
    char *body = (char *)malloc((size_t)bodyLen + 1);
    if (body == nullptr) {
        TV_LOG("tcp_impl_receive, failed on malloc");
        return nullptr;
    }
    if (!_impl_receive_with_timeout(fd, body, bodyLen, deadline)) {
        TV_LOG("tcp_impl_receive, failed on receive msg, len[%d]", bodyLen);
        free(body);
        return nullptr;
    }
    body[bodyLen] = '\0';
    *len = bodyLen;
    return body;
}

char *tcp_impl_receive(int fd, int *len)
{
    return tcp_impl_receive_with_timeout(fd, len, 0);
}

// ---- setting up sockets; all are close-on-exec

// Names are not resolved: anything but a dotted IPv4 address becomes 0.0.0.0.
static struct sockaddr_in _make_address(const char *ip, int port)
{
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons((uint16_t)port);
    if (inet_pton(AF_INET, ip, &address.sin_addr) != 1)
        address.sin_addr.s_addr = htonl(INADDR_ANY);
    return address;
}

// Send small frames at once instead of waiting for the acknowledgement of earlier ones.
static void _set_nodelay(int fd)
{
    const int on = 1;
    if (setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on)) != 0)
        TV_LOG("%s, failed on setsockopt:%s", __func__, strerror(errno));
}

int impl_create_server_socket(const char *ip, int port)
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        TV_LOG("%s, failed on create socket", __func__);
        return -1;
    }
    const int on = 1;
    const struct sockaddr_in address = _make_address(ip, port);
    if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0) {
        TV_LOG("%s, failed on setsockopt", __func__);
    } else if (bind(fd, (const struct sockaddr *)&address, sizeof(address)) < 0) {
        TV_LOG("%s, failed on bind", __func__);
    } else if (listen(fd, listenBacklog) < 0) {
        TV_LOG("%s, failed on listen", __func__);
    } else {
        return fd;
    }
    close(fd);
    return -1;
}

// Wait until a connect in progress ends. Returns whether it succeeded. Logs in the caller's name.
static bool _finish_connect(int fd, int timeoutMs, const char *caller)
{
    if (!_wait_fd(fd, POLLOUT, timeoutMs))
        return false;

    int outcome = -1;
    socklen_t size = sizeof(outcome);
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &outcome, &size) != 0) {
        TV_LOG_AT(caller, __LINE__, "getsockopt error:%s", strerror(errno));
        return false;
    }
    if (outcome != 0)
        TV_LOG_AT(caller, __LINE__, "connect error:%d", outcome);
    return outcome == 0;
}

// While a server is down, the kernel may pick the server's port as the local port of a client on
// the same host, which then connects to itself. That must not last: it would block the server's
// port. Logs in the caller's name.
static bool _is_connected_to_itself(int fd, const char *caller)
{
    struct sockaddr_in own = {};
    own.sin_port = 1; // differs from peer's, in case both look-ups fail
    struct sockaddr_in peer = {};
    socklen_t ownSize = sizeof(own);
    socklen_t peerSize = sizeof(peer);
    getsockname(fd, (struct sockaddr *)&own, &ownSize);
    getpeername(fd, (struct sockaddr *)&peer, &peerSize);
    if (own.sin_port != peer.sin_port || own.sin_addr.s_addr != peer.sin_addr.s_addr)
        return false;
    TV_LOG_AT(caller, __LINE__, "%s, connected to itself", caller);
    const struct linger reset = {1, 0}; // leave no TIME_WAIT on the server's port
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
    return true;
}

int _impl_nonblock_connect(int fd, const struct sockaddr *addr, socklen_t addrlen, int timeoutMs)
{
    _set_fd_nonblock(fd);
    int error;
    do {
        error = connect(fd, addr, addrlen) >= 0 ? 0 : errno;
        if (error != 0)
            TV_LOG("%s %d", strerror(error), error);
    } while (error == EINTR);

    bool connected = error == 0 || error == EISCONN;
    if (error == EINPROGRESS || error == EALREADY)
        connected = _finish_connect(fd, timeoutMs, __func__);
    return connected && !_is_connected_to_itself(fd, __func__) ? fd : -1;
}

int impl_create_client_socket(const char *ip, int port, int timeoutMs)
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        TV_LOG("%s, failed on create socket", __func__);
        return -1;
    }
    const struct sockaddr_in address = _make_address(ip, port);
    const struct sockaddr *target = (const struct sockaddr *)&address;
    bool connected = false;
    if (timeoutMs >= 1) {
        TV_LOG("nonblock connecting mode for fd %d", fd);
        connected = _impl_nonblock_connect(fd, target, sizeof(address), timeoutMs) != -1;
    } else if (connect(fd, target, sizeof(address)) < 0) {
        TV_LOG("%s, failed on connect", __func__);
    } else {
        connected = !_is_connected_to_itself(fd, __func__);
        _set_fd_nonblock(fd);
    }
    if (!connected) {
        close(fd);
        return -1;
    }
    _set_nodelay(fd);
    return fd;
}

int tcp_impl_accept_socket(int listenFd)
{
    // The peer's address is not needed: its login identifies it by URL.
    const int fd = accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd >= 0) {
        _set_fd_nonblock(fd);
        _set_nodelay(fd);
    }
    return fd;
}
