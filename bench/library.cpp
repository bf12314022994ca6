// library.cpp - the library as a contender, and as a server of up to 1,000 plain connections.

#include "contender.h"

#include "ruvo_timer.h"
#include "tolvane.h"

#include <arpa/inet.h>
#include <cstring>
#include <string>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

const size_t channelSize = sizeof(tv_channel);

static const int timeout = 1000;
static const int hbInterval = 60000; // longer than any pause: every message restarts the timer
static const int hbCount = 3;
static const int frameHeaderSize = 36;

static void on_linkdown(int, const char *)
{
    _exit(EXIT_FAILURE); // the other process is gone
}

// ---- server

static int echo(int, const char *payload, int len, char **reply, int *replyLen)
{
    if (theTask.oneWay) {
        message_received();
        return TV_ACTOR_HANDLED;
    }
    *reply = copy_of(payload, len);
    *replyLen = len;
    return TV_ACTOR_HANDLED;
}

static int epollFd = -1;

static void watch(int fd, tv_fd_handler handler)
{
    if (epollFd == -1) {
        check(tv_register_polling_fd(fd, handler, 0, 0) == 0, "register");
        return;
    }
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.fd = fd;
    check(epoll_ctl(epollFd, EPOLL_CTL_ADD, fd, &event) == 0, "epoll_ctl");
}

static void watch_pair(int fd)
{
    watch(fd, tv_pair_fd_handler);
}

static void run_epoll_loop(int listening)
{
    for (;;) {
        epoll_event events[64];
        const int ready = epoll_wait(epollFd, events, 64, ruvo_timer_get_expected_interval());
        ruvo_fire_timer();
        for (int i = 0; i < ready; i++) {
            const int fd = events[i].data.fd;
            (fd == listening ? tv_server_fd_handler : tv_pair_fd_handler)(fd, 0, 0);
        }
    }
}

static void allow_many_descriptors()
{
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

void library_serve(int port)
{
    allow_many_descriptors();
    if (theTask.self->ownLoop)
        epollFd = epoll_create1(0);
    const int id = tv_start_server("127.0.0.1", port);
    check(id != -1, "tv_start_server");
    tv_register_actor(id, echo);
    tv_register_client_fd_open_callback(watch_pair);
    tv_register_linkdown_callback(id, on_linkdown);
    tv_set_poll_timeout(id, timeout);
    if (theTask.self->heartbeats)
        tv_service_enable_heartbeat(hbInterval, hbCount, on_linkdown);
    const int listening = tv_get_server_polling_fd();
    watch(listening, tv_server_fd_handler);
    server_is_ready();
    if (theTask.self->ownLoop)
        run_epoll_loop(listening);
    else
        tv_main_loop();
}

// ---- client

static void send_request(int id)
{
    const int replyTimeout = theTask.oneWay ? 0 : timeout;
    check(tv_send_rqst(id, theTask.payload, theTask.len, replyTimeout) == 0, "tv_send_rqst");
}

static void on_reply(int id, const char *, int)
{
    tick();
    send_request(id);
}

void library_request(int port)
{
    tv_client_addr address = {"127.0.0.1", "127.0.0.1", (uint16_t)port, 6000};
    const int id = tv_create_client_channel(&address);
    tv_register_resp_handler(id, on_reply);
    tv_register_linkdown_callback(id, on_linkdown);
    tv_set_poll_timeout(id, timeout);
    if (theTask.self->heartbeats)
        tv_client_enable_heartbeat(id, hbInterval, hbCount, on_linkdown);
    check(tv_connect_server(id) == 0, "tv_connect_server");
    check(tv_register_polling_fd(tv_get_polling_fd(id), tv_channel_fd_handler, id, 0) == 0,
          "register");
    for (;;) {
        send_request(id);
        if (!theTask.oneWay)
            tv_main_loop(); // on_reply goes on
        tick();
    }
}

// ---- many clients

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

// The clients are plain connections in one process that sends on one after the other, so that
// what grows with their number is the server's part alone.
struct connection {
    int fd;
    int sequence;
    std::string url;
};

static void request_on(connection &client, const char *tag, const std::string &payload)
{
    const std::string msg = frame(client.sequence++, tag, client.url, payload);
    send_all(client.fd, msg.data(), (int)msg.size());
}

static void await_reply(const connection &client)
{
    char header[frameHeaderSize];
    static char body[TV_MSG_BUF_SIZE];
    receive_all(client.fd, header, frameHeaderSize);
    uint32_t len;
    memcpy(&len, header + frameHeaderSize - sizeof(len), sizeof(len));
    receive_all(client.fd, body, (int)ntohl(len));
}

void growth_request(int port)
{
    allow_many_descriptors();
    const std::string payload(theTask.payload, theTask.len);
    std::vector<connection> clients;
    for (int i = 0; i < theTask.self->clients; i++) {
        clients.push_back({connect_to(port), 0, "tcp://10.0.0.1:" + std::to_string(i)});
        request_on(clients.back(), "login", clients.back().url + '\0');
        request_on(clients.back(), "request", payload);
        await_reply(clients.back()); // the server keeps up with the connects
    }
    for (size_t i = 0;; i = (i + 1) % clients.size()) {
        tick();
        request_on(clients[i], "request", payload);
        await_reply(clients[i]);
    }
}
