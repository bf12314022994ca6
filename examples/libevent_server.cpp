// libevent_server.cpp - the echo server of own_loop_server.cpp on libevent's loop.
//
//   libevent_server ADDRESS PORT

#include "ruvo_timer.h"
#include "tolvane.h"

#include <arpa/inet.h>
#include <errno.h>
#include <event2/event.h>
#include <map>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>

static const int ioTimeout = 1000; // ms per message: a slow client blocks all others that long
// A client that is silent for (hbCount + 1) * hbInterval is declared lost.
static const int hbInterval = 10000;
static const int hbCount = 2;

static event_base *base;
static std::map<int, event *> watched; // by descriptor

[[noreturn]] static void fail(const char *what)
{
    fprintf(stderr, "server: %s: %s\n", what, strerror(errno));
    exit(EXIT_FAILURE);
}

static void watch(int fd, event_callback_fn handler)
{
    event *readable = event_new(base, fd, EV_READ | EV_PERSIST, handler, nullptr);
    if (readable == nullptr || event_add(readable, nullptr) != 0)
        fail("cannot watch a descriptor");
    watched[fd] = readable;
}

static void on_listening(int fd, short, void *)
{
    if (tv_server_fd_handler(fd, 0, 0) != 0)
        fail("cannot accept"); // own_loop_server.cpp waits for a descriptor instead
}

static void on_pair(int fd, short, void *)
{
    tv_pair_fd_handler(fd, 0, 0);
}

static void on_open(int fd)
{
    watch(fd, on_pair);
}

// event_free() also withdraws an event of this pass, so a new client that gets the descriptor's
// number never sees it.
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
    static const char tooLong[] = "too long to be answered";
    const bool fits = len <= TV_MSG_BUF_SIZE - 128; // leaves room for any header
    *respLen = fits ? len : static_cast<int>(strlen(tooLong));
    *respPayload = static_cast<char *>(malloc(*respLen + 1)); // the library frees it
    if (*respPayload != nullptr) // without a reply the client times out
        memcpy(*respPayload, fits ? payload : tooLong, *respLen);
    return TV_ACTOR_HANDLED;
}

static void on_timer(int, short, void *)
{
    // Only ends the wait: main() fires the timers.
}

static void start(const char *address, int port)
{
    const int server = tv_start_server(address, port);
    if (server == -1)
        fail("cannot listen");
    if (tv_register_actor(server, on_rqst) != 0 || tv_set_poll_timeout(server, ioTimeout) != 0)
        fail("cannot set the server up");
    tv_register_client_fd_open_callback(on_open);
    tv_register_client_fd_close_callback(on_close);
    tv_service_enable_heartbeat(hbInterval, hbCount, on_linkdown);
    const int listenFd = tv_get_server_polling_fd();
    listen(listenFd, SOMAXCONN); // a longer backlog than the library's 16
    watch(listenFd, on_listening);

    sockaddr_in bound = {};
    socklen_t size = sizeof(bound);
    getsockname(listenFd, reinterpret_cast<sockaddr *>(&bound), &size);
    printf("server: listening on port %d\n", ntohs(bound.sin_port));
    fflush(stdout);
}

int main(int argc, char **argv)
{
    in_addr address;
    // The library takes any text but a dotted address to mean all interfaces.
    if (argc != 3 || inet_pton(AF_INET, argv[1], &address) != 1) {
        fprintf(stderr, "arguments: ADDRESS PORT, the address as four numbers\n");
        return EXIT_FAILURE;
    }
    base = event_base_new();
    event *timer = base == nullptr ? nullptr : evtimer_new(base, on_timer, nullptr);
    if (timer == nullptr)
        fail("cannot create the loop");
    start(argv[1], atoi(argv[2]));
    for (;;) {
        const int wait = ruvo_timer_get_expected_interval(); // -1: no timer is pending
        const timeval due = {wait / 1000, wait % 1000 * 1000L};
        if (wait >= 0)
            evtimer_add(timer, &due); // replaces the last one
        event_base_loop(base, EVLOOP_ONCE);
        ruvo_fire_timer();
    }
}
