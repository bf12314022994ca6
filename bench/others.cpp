// others.cpp - what the library is compared with.
//
// raw TCP     one send and one receive per message on blocking sockets. No round trip over TCP is
//             faster.
// bare calls  the calls that the library cannot do without: for each message the event loop's
//             poll(), with the clock for its timers before and after it, two sends and two receives
//             (header and body), one block and one copy. Nothing is printed, searched, looked up or
//             checked.
// libzmq, nng used as documented: REQ and REP sockets for the round trip, PUSH and PULL
//             sockets one way, which may put many messages into one transfer; libzmq's DEALER and
//             ROUTER sockets for many requests outstanding.

#include "contender.h"

#include <arpa/inet.h>
#include <cstdlib>
#include <ctime>
#include <netinet/tcp.h>
#include <nng/nng.h>
#include <nng/protocol/pipeline0/pull.h>
#include <nng/protocol/pipeline0/push.h>
#include <nng/protocol/reqrep0/rep.h>
#include <nng/protocol/reqrep0/req.h>
#include <poll.h>
#include <string>
#include <zmq.h>

static char buffer[1 << 16]; // the message received last, or being sent

// ---- raw TCP

static int open_socket(int port, bool listening)
{
    const sockaddr_in address = {AF_INET, htons((uint16_t)port), {htonl(INADDR_LOOPBACK)}, {}};
    const int fd = socket(AF_INET, SOCK_STREAM, 0), on = 1;
    check(setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on)) == 0, "setsockopt");
    const auto open = listening ? bind : connect;
    check(open(fd, (const sockaddr *)&address, sizeof(address)) == 0, "socket");
    if (listening) {
        check(listen(fd, 16) == 0, "listen");
        server_is_ready();
    }
    return fd; // an accepted connection inherits TCP_NODELAY
}

static void send_all(int fd, const void *bytes, int len, int flags)
{
    check(send(fd, bytes, len, flags | MSG_NOSIGNAL) == len, "send");
}

static void receive_all(int fd, void *dst, int len)
{
    check(recv(fd, dst, len, MSG_WAITALL) == len, "recv");
}

static link_end open_raw(int port, bool serving)
{
    const int opened = open_socket(port, serving),
              fd = serving ? accept(opened, nullptr, nullptr) : opened;
    const auto receive = [=] {
        receive_all(fd, buffer, theTask.len);
        return buffer;
    };
    return {[=](const char *payload) { send_all(fd, payload, theTask.len, 0); }, receive, {}};
}

// ---- bare calls

static const std::string header =
    "1000\nvelun_tolvane_request\ntcp://127.0.0.1:6000\nvelun_tolvane_payload\n";

struct frame_header {
    char watermark[32] = "TCP_WATER_MARK";
    uint32_t len = 0; // of the body, in network order
};

static void bare_send(int fd, const char *payload)
{
    const int len = (int)header.size() + theTask.len;
    frame_header frame;
    frame.len = htonl(len);
    header.copy(buffer, header.size());
    copy(buffer + header.size(), payload, theTask.len);
    send_all(fd, &frame, sizeof(frame), MSG_MORE);
    send_all(fd, buffer, len, 0);
}

static const char *bare_receive(int fd)
{
    static char *body;
    frame_header frame;
    receive_all(fd, &frame, sizeof(frame));
    const int len = (int)ntohl(frame.len);
    free(body);
    body = (char *)malloc(len);
    receive_all(fd, body, len);
    return body + len - theTask.len;
}

static link_end open_bare(int port, bool serving)
{
    const int opened = open_socket(port, serving),
              fd = serving ? accept(opened, nullptr, nullptr) : opened;
    const auto receive = [=] { // a server watches its listening socket, too
        pollfd entries[] = {{fd, POLLIN, 0}, {opened, POLLIN, 0}};
        timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        check(poll(entries, serving ? 2 : 1, -1) == 1, "poll");
        clock_gettime(CLOCK_MONOTONIC, &now);
        return bare_receive(fd);
    };
    return {[=](const char *payload) { bare_send(fd, payload); }, receive, {}};
}

// ---- other libraries

static std::string address_of(int port)
{
    return "tcp://127.0.0.1:" + std::to_string(port);
}

static link_end open_zmq_types(int port, bool serving, int type)
{
    void *socket = zmq_socket(zmq_ctx_new(), type);
    const auto open = serving ? zmq_bind : zmq_connect;
    check(open(socket, address_of(port).c_str()) == 0, "zmq");
    if (serving)
        server_is_ready();
    static char name[256]; // a ROUTER's messages start with the client's name
    static int nameLen;
    const auto send = [=](const char *payload) {
        if (type == ZMQ_ROUTER)
            zmq_send(socket, name, nameLen, ZMQ_SNDMORE);
        check(zmq_send(socket, payload, theTask.len, 0) == theTask.len, "zmq_send");
    };
    const auto receive = [=] {
        if (type == ZMQ_ROUTER)
            nameLen = zmq_recv(socket, name, sizeof(name), 0);
        check(zmq_recv(socket, buffer, theTask.len, 0) == theTask.len, "zmq_recv");
        return buffer;
    };
    return {send, receive, {}};
}

static link_end open_zmq(int port, bool serving)
{
    static const int types[2][2] = {{ZMQ_REQ, ZMQ_REP}, {ZMQ_PUSH, ZMQ_PULL}};
    return open_zmq_types(port, serving, types[theTask.oneWay][serving]);
}

static link_end open_zmq_dealer(int port, bool serving)
{
    return open_zmq_types(port, serving, serving ? ZMQ_ROUTER : ZMQ_DEALER);
}

static link_end open_nng(int port, bool serving)
{
    int (*const types[2][2])(nng_socket *) = {{nng_req0_open, nng_rep0_open},
                                              {nng_push0_open, nng_pull0_open}};
    nng_socket socket;
    check(types[theTask.oneWay][serving](&socket) == 0, "nng");
    const std::string address = address_of(port);
    check((serving ? nng_listen(socket, address.c_str(), nullptr, 0)
                   : nng_dial(socket, address.c_str(), nullptr, 0)) == 0,
          "nng");
    if (serving)
        server_is_ready();
    const auto send = [=](const char *payload) {
        check(nng_send(socket, const_cast<char *>(payload), theTask.len, 0) == 0, "nng_send");
    };
    const auto receive = [=] {
        size_t len = sizeof(buffer);
        check(nng_recv(socket, buffer, &len, 0) == 0, "nng_recv");
        return buffer;
    };
    return {send, receive, {}};
}

const std::vector<contender> contenders = {{"raw TCP", open_raw},     {"bare calls", open_bare},
                                           {"library", open_library}, {"C++ layer", open_layer},
                                           {"libzmq", open_zmq},      {"nng", open_nng}};

const std::vector<contender> outstanding = {
    {"library, 1 outstanding", open_library},
    {"C++ layer, 1 outstanding", open_layer},
    {"C++ layer, 64 outstanding", open_layer, 64},
    {"C++ layer, 64 outstanding in each direction", open_layer_both_ask, 64},
    {"libzmq DEALER and ROUTER, 64 outstanding", open_zmq_dealer, 64}};
