// libevent_server.cpp - the echo server of own_loop_server.cpp on libevent's loop.
//
//   libevent_server ADDRESS PORT

#include "common.h"
#include "ruvo_timer.h"
#include "tolvane.h"

#include <event2/event.h>
#include <map>

static const int ioTimeout = 1000;   // of one message: as long as a slow client can hold up all
static const int hbInterval = 10000; // a client silent for (hbCount + 1) * hbInterval
static const int hbCount = 2;        // is taken for lost

static event_base *base;
static std::map<int, event *> watched; // by descriptor

static void watch(int fd, event_callback_fn handler)
{
    event *readable = event_new(base, fd, EV_READ | EV_PERSIST, handler, nullptr);
    if (readable == nullptr || event_add(readable, nullptr) != 0)
        fail("no memory");
    watched[fd] = readable;
}

static void on_listening(int fd, short, void *)
{
    if (tv_server_fd_handler(fd, 0, 0) != 0)
        fail("no more descriptors"); // own_loop_server.cpp waits for some instead
}

static void on_pair(int fd, short, void *)
{
    tv_pair_fd_handler(fd, 0, 0);
}

static void on_open(int fd)
{
    watch(fd, on_pair);
}

// Also withdraws what was found ready in this pass, before a new client can have the number.
static void on_close(int fd)
{
    event_free(watched[fd]);
    watched.erase(fd);
}

static void on_linkdown(int id, const char *)
{
    tv_close_client_connection(id);
}

static int on_rqst(int, const char *payload, int len, char **respPayload, int *respLen)
{
    return reply_at_once({payload, static_cast<size_t>(len)}, respPayload, respLen);
}

static void on_timer(int, short, void *)
{
    // The loop has returned, which is all that is wanted.
}

int main(int argc, char **argv)
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    speaker = "server";
    if (argc != 3)
        fail("arguments: ADDRESS PORT");
    keep_log();
    const int server = tv_start_server(to_address(argv[1]), to_port(argv[2]));
    if (server == -1)
        fail("cannot listen: %s (%s)", strerror(errno), why().c_str());
    if (tv_register_actor(server, on_rqst) != 0 || tv_set_poll_timeout(server, ioTimeout) != 0)
        fail("could not set the server up");
    tv_register_client_fd_open_callback(on_open);
    tv_register_client_fd_close_callback(on_close);
    tv_service_enable_heartbeat(hbInterval, hbCount, on_linkdown);

    base = event_base_new();
    event *timer = base == nullptr ? nullptr : evtimer_new(base, on_timer, nullptr);
    if (timer == nullptr)
        fail("no memory");
    const int listenFd = tv_get_server_polling_fd();
    listen(listenFd, SOMAXCONN); // so many clients may come at once; the library has set 16
    watch(listenFd, on_listening);
    tell("listening on port %d", port_of(listenFd));
    for (;;) {
        const int wait = ruvo_timer_get_expected_interval(); // -1: no timer
        const timeval due = {wait / 1000, wait % 1000 * 1000L};
        if (wait >= 0)
            evtimer_add(timer, &due); // in the place of the last one
        event_base_loop(base, EVLOOP_ONCE);
        ruvo_fire_timer();
    }
}
