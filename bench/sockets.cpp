// sockets.cpp - the two yardsticks: raw TCP, and the calls that one message cannot do without.
//
// raw    one send() and one receive a message on blocking sockets: no message format, no
//        time-outs, no timers. Nothing over TCP is faster.
// floor  what the library is bound to do for a message and nothing else: a wait for readiness
//        before every transfer, with the clock read before and after it; two transfers, header and
//        body; one copy of the payload into the message; one block a received message. Its header
//        text is a constant: nothing is printed, searched, looked up or checked.

#include "contender.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

void check(bool ok, const char *what)
{
    if (ok)
        return;
    perror(what);
    _exit(EXIT_FAILURE);
}

// ---- plain TCP

static sockaddr_in loopback(int port)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons((uint16_t)port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

static void set_option(int fd, int level, int option)
{
    const int on = 1;
    check(setsockopt(fd, level, option, &on, sizeof(on)) == 0, "setsockopt");
}

int listen_on(int port)
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    set_option(fd, SOL_SOCKET, SO_REUSEADDR);
    const sockaddr_in address = loopback(port);
    check(bind(fd, (const sockaddr *)&address, sizeof(address)) == 0, "bind");
    check(listen(fd, 16) == 0, "listen");
    return fd;
}

int accept_one(int listening)
{
    const int fd = accept(listening, nullptr, nullptr);
    check(fd >= 0, "accept");
    set_option(fd, IPPROTO_TCP, TCP_NODELAY);
    return fd;
}

int connect_to(int port)
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in address = loopback(port);
    check(connect(fd, (const sockaddr *)&address, sizeof(address)) == 0, "connect");
    set_option(fd, IPPROTO_TCP, TCP_NODELAY);
    return fd;
}

void send_all(int fd, const char *bytes, int len)
{
    for (int sent = 0; sent < len;) {
        const ssize_t result = send(fd, bytes + sent, len - sent, MSG_NOSIGNAL);
        check(result > 0, "send");
        sent += (int)result;
    }
}

void receive_all(int fd, char *dst, int len)
{
    for (int received = 0; received < len;) {
        const ssize_t result = recv(fd, dst + received, len - received, 0);
        check(result > 0, "recv");
        received += (int)result;
    }
}

// In pieces, because glibc before 2.39 copies more than 2 KiB by one instruction, which takes 16
// times as long on some processors when the destination lies less than 64 bytes behind the source
// modulo 4096. The received block and this one would always lie so with 60 KiB.
char *copy_of(const char *bytes, int len)
{
    check(len >= 0, "copy");
    static const int piece = 2048;
    char *copy = (char *)malloc(len);
    for (int done = 0; done < len; done += piece)
        memcpy(copy + done, bytes + done, len - done < piece ? len - done : piece);
    return copy;
}

// ---- raw

void raw_serve(int port)
{
    const int listening = listen_on(port);
    server_is_ready();
    const int fd = accept_one(listening);
    std::string buffer(theTask.len, '\0');
    for (;;) {
        receive_all(fd, &buffer[0], theTask.len);
        if (theTask.oneWay)
            message_received();
        else
            send_all(fd, buffer.data(), theTask.len);
    }
}

void raw_request(int port)
{
    const int fd = connect_to(port);
    std::string buffer(theTask.len, '\0');
    for (;;) {
        send_all(fd, theTask.payload, theTask.len);
        if (!theTask.oneWay)
            receive_all(fd, &buffer[0], theTask.len);
        tick();
    }
}

// ---- floor

static const int frameHeaderSize = 36;
static const int timeout = 1000;
static const char headerText[] = "1000\nvelun_tolvane_request\ntcp://127.0.0.1:6000"
                                 "\nvelun_tolvane_payload\n";
static const int headerTextLen = sizeof(headerText) - 1;

static long long now_ms()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000LL + now.tv_nsec / 1000000;
}

static void wait_for(int fd, short events, int *budget)
{
    const long long start = now_ms();
    pollfd entry = {fd, events, 0};
    check(poll(&entry, 1, *budget) == 1, "poll");
    *budget -= (int)(now_ms() - start);
}

// Inlined, so that the limit does not depend on how many places call it.
[[gnu::always_inline]] static inline void floor_transfer(int fd, bool sending, char *bytes, int len,
                                                         int flags, int *budget)
{
    for (int moved = 0; moved < len;) {
        wait_for(fd, sending ? POLLOUT : POLLIN, budget);
        const ssize_t result = sending ? send(fd, bytes + moved, len - moved, flags | MSG_NOSIGNAL)
                                       : recv(fd, bytes + moved, len - moved, 0);
        check(result > 0 || (result < 0 && errno == EAGAIN), "transfer");
        if (result > 0)
            moved += (int)result;
    }
}

static void floor_send(int fd, char *msgBuf, const char *payload, int len)
{
    char header[frameHeaderSize] = "TCP_WATER_MARK";
    const uint32_t bodyLen = htonl(headerTextLen + len);
    memcpy(header + frameHeaderSize - sizeof(bodyLen), &bodyLen, sizeof(bodyLen));
    memcpy(msgBuf + headerTextLen, payload, len);
    int budget = timeout;
    floor_transfer(fd, true, header, frameHeaderSize, MSG_MORE, &budget);
    floor_transfer(fd, true, msgBuf, headerTextLen + len, 0, &budget);
}

static char *floor_receive(int fd, int *len)
{
    char header[frameHeaderSize];
    int budget = timeout;
    floor_transfer(fd, false, header, frameHeaderSize, 0, &budget);
    uint32_t bodyLen;
    memcpy(&bodyLen, header + frameHeaderSize - sizeof(bodyLen), sizeof(bodyLen));
    *len = (int)ntohl(bodyLen);
    check(*len >= theTask.len, "frame");
    char *body = (char *)malloc(*len + 1);
    floor_transfer(fd, false, body, *len, 0, &budget);
    return body;
}

// One pass of an event loop. A server watches its listening socket as well; a client's pass ends
// at the latest with its request's time-out.
static void floor_loop_wait(int fd, int listening, int milliseconds)
{
    pollfd entries[] = {{fd, POLLIN, 0}, {listening, POLLIN, 0}};
    check(poll(entries, listening == -1 ? 1 : 2, milliseconds) == 1, "poll");
}

static int floor_connection(int fd, char *msgBuf)
{
    check(fcntl(fd, F_SETFL, O_NONBLOCK) == 0, "fcntl");
    memcpy(msgBuf, headerText, headerTextLen);
    return fd;
}

// Receive a message, and answer it with the payload at its end.
static void floor_answer(int fd, char *msgBuf)
{
    int len = 0;
    char *msg = floor_receive(fd, &len);
    if (theTask.oneWay) {
        message_received();
    } else {
        char *reply = copy_of(msg + len - theTask.len, theTask.len);
        floor_send(fd, msgBuf, reply, theTask.len);
        free(reply);
    }
    free(msg);
}

static char onlyMsgBuf[1 << 16];

void floor_serve(int port)
{
    const int listening = listen_on(port);
    server_is_ready();
    const int fd = floor_connection(accept_one(listening), onlyMsgBuf);
    for (;;) {
        floor_loop_wait(fd, listening, -1);
        floor_answer(fd, onlyMsgBuf);
    }
}

// Many connections, each with a block as large as the library's record of one, found in one step.
static std::vector<char *> msgBufs; // by descriptor

static int floor_accept(int listening, intptr_t, intptr_t)
{
    char *msgBuf = (char *)malloc(channelSize);
    const int fd = floor_connection(accept_one(listening), msgBuf);
    if (msgBufs.size() <= (size_t)fd)
        msgBufs.resize(fd + 1);
    msgBufs[fd] = msgBuf;
    watch(fd);
    int len;
    free(floor_receive(fd, &len)); // the login
    return 0;
}

static int floor_serve_one(int fd, intptr_t, intptr_t)
{
    floor_answer(fd, msgBufs[fd]);
    return 0;
}

void floor_serve_many(int port)
{
    serve_many(listen_on(port), floor_accept, floor_serve_one);
}

void floor_request(int port)
{
    const int fd = floor_connection(connect_to(port), onlyMsgBuf);
    for (;;) {
        floor_send(fd, onlyMsgBuf, theTask.payload, theTask.len);
        if (!theTask.oneWay) {
            now_ms(); // the request's timer is started,
            now_ms(); // asked for its remaining time,
            floor_loop_wait(fd, -1, timeout);
            now_ms(); // and given the chance to fire
            int len = 0;
            free(floor_receive(fd, &len));
        }
        tick();
    }
}
