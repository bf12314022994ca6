// impl_socket.cpp - sockets, and whole frames over one socket within a time budget.
//
// Place    lowest layer; tcp_impl.cpp and the channel creators call it. Knows nothing of channels.
// Frame    36-byte header (watermark, length in network order), then the body. docs/protocol.md.
// Method   descriptors are non-blocking; header and body of one frame share one budget of
//          milliseconds, from which every wait takes what it used, and so does the work of a
//          receive that takes long.
// Failure  any failed transfer leaves the stream out of step: the caller must give the link up.
//          A failed set-up closes what it opened.
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

static const char watermark[] = "TCP_WATER_MARK"; // on the wire with its terminator
static const int watermarkFieldSize = 32;
static const int headerSize = watermarkFieldSize + sizeof(uint32_t);

// Connections that the system completes before they are accepted.
static const int listenBacklog = 16;

// ---- waiting

static long long monotonic_ms(void)
{
    struct timespec now = {0, 0}; // the clock does not fail; if it did, this is defined
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000LL + now.tv_nsec / 1000000;
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

// Wait until fd is ready for the events. Returns more than 0 when it is, 0 when the budget is
// used up, -1 on an error or when interruptions used it up.
static int _wait_fd(int fd, short events, int *budget)
{
    if (*budget <= 0) {
        TV_LOG("poll timeout :%d", *budget);
        return 0;
    }
    for (;;) {
        struct pollfd entry = {fd, events, 0};
        const long long start = monotonic_ms();
        const int result = poll(&entry, 1, *budget);
        if (result == 0)
            return 0;
        if (result < 0 && errno != EINTR) {
            TV_LOG("poll fd error:%s", strerror(errno));
            return -1;
        }
        *budget -= (int)(monotonic_ms() - start);
        if (result > 0)
            return result;
        if (*budget <= 0) {
            TV_LOG("poll timeout :%d", *budget);
            return -1;
        }
    }
}

// ---- sending

static int _impl_send_with_timeout(int fd, const char *bytes, int count, int *budget, int flags)
{
    if (count <= 0)
        return count;
    if (*budget <= 0) {
        TV_LOG("time out:%d", *budget);
        return -1;
    }
    for (int sent = 0;;) {
        if (_wait_fd(fd, POLLOUT, budget) <= 0) {
            TV_LOG("failed");
            return -1;
        }
        const ssize_t result = send(fd, bytes + sent, count - sent, flags | MSG_NOSIGNAL);
        if (result >= 0) {
            sent += (int)result;
        } else if (errno == EAGAIN || errno == EINTR) {
            TV_LOG("send error: %s continue", strerror(errno));
        } else {
            TV_LOG("failed send error:%s", strerror(errno));
            return -1;
        }
        if (sent == count)
            return count;
        if (*budget <= 0) {
            TV_LOG("time out:%d", *budget);
            return -1;
        }
    }
}

int tcp_impl_send_with_timeout(int fd, const char *body, int len, int timeoutMs)
{
    if (len < 0) {
        TV_LOG("tcp_impl_send, negative length[%d]", len);
        return -1;
    }
    int budget = timeoutMs;
    char header[headerSize] = {0};
    memcpy(header, watermark, sizeof(watermark));
    const uint32_t netLen = htonl((uint32_t)len);
    memcpy(header + watermarkFieldSize, &netLen, sizeof(netLen));

    // With a body to follow, the header waits for it and both leave in one segment.
    const int flags = len > 0 ? MSG_MORE : 0;
    if (_impl_send_with_timeout(fd, header, headerSize, &budget, flags) != headerSize) {
        TV_LOG("tcp_impl_send, failed on send header");
        return -1;
    }
    if (_impl_send_with_timeout(fd, body, len, &budget, 0) != len) {
        TV_LOG("tcp_impl_send, failed on send msg, len[%d]", len);
        return -1;
    }
    return len;
}

// ---- receiving

// The most bytes that one recv() takes: the clock is looked at in between.
static const int receiveStep = 256 * 1024;

// What is given back in a millisecond when a receive of many megabytes fails: the limit is for all.
static const int releasedPerMs = 10 * 1024 * 1024;

// Without a limit never wait, only read. With one, read on without waiting when the budget is used
// up, until nothing is there; and from the second pass on the time worked counts as well as the
// time waited: a peer must not hold its receiver longer by dripping bytes, nor by flooding it.
static int _impl_receive_with_timeout(int fd, char *dst, int count, int *budget, bool limited)
{
    if (count <= 0)
        return count;
    const int most = limited && count > receiveStep ? receiveStep : count;
    long long deadline = -1; // known from the second pass on: most transfers need but one
    for (int received = 0;;) {
        if (*budget > 0 && _wait_fd(fd, POLLIN, budget) <= 0) {
            TV_LOG("%s failed ", __func__);
            return -1;
        }
        const int missing = count - received;
        const ssize_t result = recv(fd, dst + received, missing < most ? missing : most, 0);
        if (result == 0) {
            TV_LOG("the remote peer closed");
            return -1;
        }
        if (result > 0) {
            received += (int)result;
        } else if (errno == EAGAIN && limited && *budget <= 0) {
            TV_LOG("time out:%d", *budget);
            return -1;
        } else if (errno == EAGAIN || errno == EINTR) {
            TV_LOG("error %s continue", strerror(errno));
        } else {
            TV_LOG("failed receive error:%s", strerror(errno));
            return -1;
        }
        if (received == count)
            return count;
        if (!limited)
            continue;
        const long long now = monotonic_ms();
        if (deadline < 0)
            deadline = now + (*budget > 0 ? *budget : 0);
        *budget = (int)(deadline - now) - received / releasedPerMs;
        if (*budget < 0) {
            TV_LOG("time out:%d", *budget);
            return -1;
        }
    }
}

char *tcp_impl_receive_with_timeout(int fd, int *len, int timeoutMs)
{
    *len = 0;
    int budget = timeoutMs;
    const bool limited = timeoutMs > 0;
    char header[headerSize];
    if (_impl_receive_with_timeout(fd, header, headerSize, &budget, limited) != headerSize) {
        TV_LOG("tcp_impl_receive, failed on receive header");
        return NULL;
    }
    if (memcmp(header, watermark, sizeof(watermark)) != 0) {
        TV_LOG("tcp_impl_receive, invalid watermark");
        return NULL;
    }
    uint32_t netLen;
    memcpy(&netLen, header + watermarkFieldSize, sizeof(netLen));
    const uint32_t bodyLen = ntohl(netLen);
    if (bodyLen > INT_MAX) {
        TV_LOG("tcp_impl_receive, invalid length[%u]", bodyLen);
        return NULL;
    }
    *len = (int)bodyLen;

    // One byte more for the 0x00 that ends every scan of the message. A large block costs memory
    // only as its bytes arrive.
    char *body = (char *)malloc((size_t)bodyLen + 1);
    if (body == NULL) {
        TV_LOG("tcp_impl_receive, failed on malloc");
        return NULL;
    }
    if (_impl_receive_with_timeout(fd, body, *len, &budget, limited) != *len) {
        TV_LOG("tcp_impl_receive, failed on receive msg, len[%d]", *len);
        free(body);
        *len = 0;
        return NULL;
    }
    body[bodyLen] = '\0';
    return body;
}

char *tcp_impl_receive(int fd, int *len)
{
    return tcp_impl_receive_with_timeout(fd, len, 0);
}

// ---- setting sockets up: no descriptor is handed on to a program that the application executes

// A text that is no dotted IPv4 address leaves the address 0.0.0.0.
static struct sockaddr_in make_address(const char *ip, int port)
{
    struct sockaddr_in address;
    memset(&address, 0, sizeof(address));
    address.sin_family = AF_INET;
    address.sin_port = htons((uint16_t)port);
    if (inet_pton(AF_INET, ip, &address.sin_addr) != 1)
        address.sin_addr.s_addr = htonl(INADDR_ANY);
    return address;
}

// Send small frames at once instead of waiting for the acknowledgement of earlier ones.
static void set_nodelay(int fd)
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
    const struct sockaddr_in address = make_address(ip, port);
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

// Wait for the end of a connect in progress. Returns true when it succeeded; logs for its caller.
static bool connect_finished(int fd, int timeoutMs, const char *caller)
{
    if (_wait_fd(fd, POLLOUT, &timeoutMs) <= 0)
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

int _impl_nonblock_connect(int fd, const struct sockaddr *addr, socklen_t addrlen, int timeoutMs)
{
    _set_fd_nonblock(fd);
    for (;;) {
        if (connect(fd, addr, addrlen) >= 0)
            return fd;
        const int error = errno;
        TV_LOG("%s %d", strerror(error), error);
        switch (error) {
        case EINPROGRESS:
        case EALREADY:
            return connect_finished(fd, timeoutMs, __func__) ? fd : -1;
        case EINTR:
            break;
        case EISCONN:
            return fd;
        default:
            return -1;
        }
    }
}

int impl_create_client_socket(const char *ip, int port, int timeoutMs)
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        TV_LOG("%s, failed on create socket", __func__);
        return -1;
    }
    const struct sockaddr_in address = make_address(ip, port);
    const struct sockaddr *target = (const struct sockaddr *)&address;
    bool connected;
    if (timeoutMs >= 1) {
        TV_LOG("nonblock connecting mode for fd %d", fd);
        connected = _impl_nonblock_connect(fd, target, sizeof(address), timeoutMs) != -1;
    } else {
        connected = connect(fd, target, sizeof(address)) >= 0;
        if (connected)
            _set_fd_nonblock(fd);
        else
            TV_LOG("%s, failed on connect", __func__);
    }
    if (!connected) {
        close(fd);
        return -1;
    }
    set_nodelay(fd);
    return fd;
}

int tcp_impl_accept_socket(int listenFd)
{
    // The peer is known by the URL of its login, not by its address.
    const int fd = accept4(listenFd, NULL, NULL, SOCK_CLOEXEC);
    if (fd >= 0) {
        _set_fd_nonblock(fd);
        set_nodelay(fd);
    }
    return fd;
}
