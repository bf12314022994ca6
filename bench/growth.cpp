// growth.cpp - many clients: an application's own event loop, and the process that plays the clients.
//
// The clients are plain connections in one process, which sends on one after the other: what grows
// with their number is the server's part alone, and what the kernel adds to it.

#include "contender.h"

#include "ruvo_timer.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <random>
#include <string>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <vector>

static const int frameHeaderSize = 36;

// ---- the server's loop

static int epollFd;

void watch(int fd)
{
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.fd = fd;
    check(epoll_ctl(epollFd, EPOLL_CTL_ADD, fd, &event) == 0, "epoll_ctl");
}

void serve_many(int listening, fd_handler *accepting, fd_handler *serving)
{
    epollFd = epoll_create1(0);
    watch(listening);
    server_is_ready();
    for (;;) {
        epoll_event events[64];
        const int ready = epoll_wait(epollFd, events, 64, ruvo_timer_get_expected_interval());
        ruvo_fire_timer();
        for (int i = 0; i < ready; i++) {
            const int fd = events[i].data.fd;
            run_handler(fd == listening ? accepting : serving, fd);
        }
    }
}

// ---- the clients

struct connection {
    int fd;
    int sequence;
    std::string url;
};

static std::string frame(int sequence, const char *tag, const std::string &url,
                         const std::string &payload)
{
    const std::string body = std::to_string(sequence) + "\nvelun_tolvane_" + tag + "\n" + url +
                             "\nvelun_tolvane_payload\n" + payload;
    std::string header(frameHeaderSize, '\0');
    header.replace(0, 14, "TCP_WATER_MARK");
    const uint32_t len = htonl((uint32_t)body.size());
    memcpy(&header[frameHeaderSize - sizeof(len)], &len, sizeof(len));
    return header + body;
}

static void send_on(connection &client, const char *tag, const std::string &payload)
{
    const std::string msg = frame(client.sequence++, tag, client.url, payload);
    send_all(client.fd, msg.data(), (int)msg.size());
}

static void round_trip(connection &client)
{
    char header[frameHeaderSize];
    static char body[1 << 16];
    send_on(client, "request", std::string(theTask.payload, theTask.len));
    receive_all(client.fd, header, frameHeaderSize);
    uint32_t len;
    memcpy(&len, header + frameHeaderSize - sizeof(len), sizeof(len));
    check(ntohl(len) <= sizeof(body), "reply");
    receive_all(client.fd, body, (int)ntohl(len));
}

void growth_request(int port)
{
    std::vector<connection> clients;
    for (int i = 0; i < theTask.self->clients; i++) {
        clients.push_back({connect_to(port), 0, "tcp://10.0.0.1:" + std::to_string(i)});
        send_on(clients.back(), "login", clients.back().url + '\0');
        round_trip(clients.back()); // the server keeps up with the connects
    }
    // Each in its turn, in an order that favours no end of a list: the same one in every run.
    std::mt19937 random;
    for (size_t i = 0; tick(); i = (i + 1) % clients.size()) {
        if (i == 0)
            std::shuffle(clients.begin(), clients.end(), random);
        round_trip(clients[i]);
    }
    // All leave. The last one is awaited first: to await each would have this process run in the
    // middle of the handler that closes, and that is timed.
    std::shuffle(clients.begin(), clients.end(), random);
    for (connection &client : clients)
        send_on(client, "logout", client.url + '\0');
    for (size_t i = clients.size(); i-- > 0;) {
        char byte;
        check(recv(clients[i].fd, &byte, 1, 0) == 0, "logout");
    }
    tick();
}
