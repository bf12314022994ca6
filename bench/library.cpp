// library.cpp - the library as a contender, and as a server of many plain connections.

#include "contender.h"

#include "tolvane.h"

#include <cstdlib>
#include <unistd.h>

const size_t channelSize = sizeof(tv_channel);

static const int timeout = 1000;
static const int hbInterval = 600000; // longer than any pause: every message restarts the timer
static const int hbCount = 3;

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

static void start_server(int port, tv_client_fd_cb opened)
{
    const int id = tv_start_server("127.0.0.1", port);
    check(id != -1, "tv_start_server");
    tv_register_actor(id, echo);
    tv_register_client_fd_open_callback(opened);
    tv_register_linkdown_callback(id, on_linkdown);
    tv_set_poll_timeout(id, timeout);
    if (theTask.self->heartbeats)
        tv_service_enable_heartbeat(hbInterval, hbCount, on_linkdown);
}

static void poll_pair(int fd)
{
    check(tv_register_polling_fd(fd, tv_pair_fd_handler, 0, 0) == 0, "register");
}

void library_serve(int port)
{
    start_server(port, poll_pair);
    tv_register_polling_fd(tv_get_server_polling_fd(), tv_server_fd_handler, 0, 0);
    server_is_ready();
    tv_main_loop();
}

void library_serve_many(int port)
{
    start_server(port, watch);
    serve_many(tv_get_server_polling_fd(), tv_server_fd_handler, tv_pair_fd_handler);
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
