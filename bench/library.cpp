// library.cpp - the library as a contender, and as a server of many clients.

#include "contender.h"

#include "ruvo_timer.h"
#include "tolvane.h"

#include <cstdlib>
#include <sys/epoll.h>

static const int timeout = 1000;

// ---- servers

static int echo(int, const char *payload, int len, char **reply, int *replyLen)
{
    if (theTask.oneWay) {
        message_received();
        return TV_ACTOR_HANDLED;
    }
    *reply = (char *)malloc(len);
    copy(*reply, payload, len);
    *replyLen = len;
    return TV_ACTOR_HANDLED;
}

static void start(int port, tv_client_fd_cb opened)
{
    const int id = tv_start_server("127.0.0.1", port);
    check(id != -1, "tv_start_server");
    tv_register_actor(id, echo);
    tv_register_client_fd_open_callback(opened);
    tv_register_linkdown_callback(id,
                                  [](int pair, const char *) { tv_close_client_connection(pair); });
    tv_set_poll_timeout(id, timeout);
    server_is_ready();
}

static int epollFd;

static void watch(int fd)
{
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.fd = fd;
    check(epoll_ctl(epollFd, EPOLL_CTL_ADD, fd, &event) == 0, "epoll_ctl");
}

void library_serve_many(int port)
{
    epollFd = epoll_create1(0);
    start(port, watch);
    tv_register_connected_callback(0, [](int id, const char *) {
        check(tv_get_channel(id)->pairSocket != nullptr, "record");
    });
    watch(tv_get_server_polling_fd());
    for (;;) {
        epoll_event event;
        const int ready = epoll_wait(epollFd, &event, 1, ruvo_timer_get_expected_interval());
        ruvo_fire_timer();
        if (ready != 1)
            continue;
        const bool isServer = event.data.fd == tv_get_server_polling_fd();
        (isServer ? tv_server_fd_handler : tv_pair_fd_handler)(event.data.fd, 0, 0);
    }
}

// ---- client, in a loop of its own

static const char *lastReply;

link_end open_library(int port, bool serving)
{
    if (serving) {
        start(port, [](int fd) { tv_register_polling_fd(fd, tv_pair_fd_handler, 0, 0); });
        tv_register_polling_fd(tv_get_server_polling_fd(), tv_server_fd_handler, 0, 0);
        tv_main_loop();
    }
    static uint16_t number = 0; // names the client
    const tv_client_addr address = {"127.0.0.1", "127.0.0.1", (uint16_t)port, ++number};
    const int id = tv_create_client_channel(&address);
    tv_register_resp_handler(id, [](int, const char *payload, int) { lastReply = payload; });
    tv_set_poll_timeout(id, timeout);
    check(tv_connect_server(id) == 0, "tv_connect_server");
    const int fd = tv_get_polling_fd(id);
    const auto send = [=](const char *payload) {
        const int replyTimeout = theTask.oneWay ? 0 : timeout;
        check(tv_send_rqst(id, payload, theTask.len, replyTimeout) == 0, "tv_send_rqst");
    };
    const auto receive = [=] {
        pollfd entry = {fd, POLLIN, 0};
        lastReply = nullptr;
        poll(&entry, 1, ruvo_timer_get_expected_interval());
        ruvo_fire_timer();
        tv_channel_fd_handler(fd, id, 0);
        check(lastReply != nullptr, "reply");
        return lastReply;
    };
    const auto close = [=] {
        tv_disconnect_server(id);
        tv_close_channel(id);
    };
    return {send, receive, close};
}
