// own_loop_server.cpp - an echo server on an epoll loop of its own, with the C interface.
//
//   own_loop_server ADDRESS PORT
//
// The library's loop watches 16 descriptors; this one serves thousands of clients. A loop of your
// own waits at most until the next timer is due, calls the handler of a readable descriptor, then
// fires the timers. libevent_server.cpp does the same with a loop library.

#include "ruvo_timer.h"
#include "tolvane.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/resource.h>

static const int ioTimeout = 1000; // ms per message: a slow client blocks all others that long
// A client that is silent for (hbCount + 1) * hbInterval is declared lost.
static const int hbInterval = 10000;
static const int hbCount = 2;
static const int acceptPause = 100; // after a failed accept

static int epollFd = -1;
static int listenFd = -1;

[[noreturn]] static void fail(const char *what)
{
    fprintf(stderr, "server: %s: %s\n", what, strerror(errno));
    exit(EXIT_FAILURE);
}

static void watch(int fd)
{
    epoll_event event = {};
    event.events = EPOLLIN; // level-triggered: a handler reads one message and leaves the rest
    event.data.fd = fd;
    if (epoll_ctl(epollFd, EPOLL_CTL_ADD, fd, &event) != 0)
        fail("epoll_ctl");
}

static void unwatch(int fd)
{
    epoll_ctl(epollFd, EPOLL_CTL_DEL, fd, nullptr);
}

static void listen_again(intptr_t, intptr_t)
{
    watch(listenFd);
}

// An accept usually fails for lack of descriptors. The waiting client keeps the listening
// descriptor readable, so stop watching it for a while instead of spinning.
static void accept_client()
{
    if (tv_server_fd_handler(listenFd, 0, 0) == 0)
        return;
    unwatch(listenFd);
    if (ruvo_start_timer(acceptPause, listen_again, 0, 0) == -1)
        fail("ruvo_start_timer");
}

static void on_linkdown(int id, const char *)
{
    tv_close_client_connection(id);
}

// A request that stays unanswered blocks those after it, so one that is too long to be sent back
// gets another reply.
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

static void start(const char *address, int port)
{
    const int server = tv_start_server(address, port);
    if (server == -1)
        fail("cannot listen");
    if (tv_register_actor(server, on_rqst) != 0 || tv_set_poll_timeout(server, ioTimeout) != 0)
        fail("cannot set the server up");
    tv_register_client_fd_open_callback(watch);
    tv_register_client_fd_close_callback(unwatch);
    tv_service_enable_heartbeat(hbInterval, hbCount, on_linkdown);
    listenFd = tv_get_server_polling_fd();
    listen(listenFd, SOMAXCONN); // a longer backlog than the library's 16
    watch(listenFd);

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
    rlimit descriptors;
    getrlimit(RLIMIT_NOFILE, &descriptors);
    descriptors.rlim_cur = descriptors.rlim_max; // one for each client
    setrlimit(RLIMIT_NOFILE, &descriptors);
    epollFd = epoll_create1(EPOLL_CLOEXEC);
    start(argv[1], atoi(argv[2]));

    for (;;) {
        // One event at a time: a handler may close a descriptor whose number the next accept
        // reuses, and an event fetched before would then be taken for the new client's.
        epoll_event event;
        const int count = epoll_wait(epollFd, &event, 1, ruvo_timer_get_expected_interval());
        if (count < 0 && errno != EINTR)
            fail("epoll_wait");
        if (count == 1 && event.data.fd == listenFd)
            accept_client();
        else if (count == 1)
            tv_pair_fd_handler(event.data.fd, 0, 0);
        ruvo_fire_timer();
    }
}
