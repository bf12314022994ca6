// own_loop_server.cpp - an echo server on an epoll loop of its own, for thousands of clients:
// the library's loop has 16 places. libevent_server.cpp does the same with a loop library.
//
//   own_loop_server ADDRESS PORT
//
// A loop of one's own calls the handler of each readable descriptor, waits no longer than until
// the next timer is due, and fires the timers.

#include "common.h"
#include "ruvo_timer.h"
#include "tolvane.h"

#include <sys/epoll.h>
#include <sys/resource.h>

static const int ioTimeout = 1000;   // of one message: as long as a slow client can hold up all
static const int hbInterval = 10000; // a client silent for (hbCount + 1) * hbInterval
static const int hbCount = 2;        // is taken for lost
static const int acceptPause = 100;  // after a failed accept

static int epollFd = -1;
static int listenFd = -1;

static void watch(int fd)
{
    epoll_event event = {};
    event.events = EPOLLIN; // level-triggered: a handler reads one message and leaves the others
    event.data.fd = fd;
    if (epoll_ctl(epollFd, EPOLL_CTL_ADD, fd, &event) != 0)
        fail("no memory in the system");
}

static void unwatch(int fd)
{
    epoll_ctl(epollFd, EPOLL_CTL_DEL, fd, nullptr);
}

static void listen_again(intptr_t, intptr_t)
{
    watch(listenFd);
}

// Take one client. When that fails it is mostly for want of descriptors, and the client keeps the
// listening descriptor readable: look away for a while, not to try again without pause.
static void accept_client()
{
    if (tv_server_fd_handler(listenFd, 0, 0) == 0)
        return;
    unwatch(listenFd);
    if (ruvo_start_timer(acceptPause, listen_again, 0, 0) == -1)
        fail("could not start a timer");
}

static void on_linkdown(int id, const char *)
{
    tv_close_client_connection(id);
}

static int on_rqst(int, const char *payload, int len, char **respPayload, int *respLen)
{
    return reply_at_once({payload, static_cast<size_t>(len)}, respPayload, respLen);
}

static void start(const char *ip, int port)
{
    const int server = tv_start_server(ip, port);
    if (server == -1)
        fail("cannot listen on %s port %d: %s (%s)", ip, port, strerror(errno), why().c_str());
    if (tv_register_actor(server, on_rqst) != 0 || tv_set_poll_timeout(server, ioTimeout) != 0)
        fail("could not set the server up");
    tv_register_client_fd_open_callback(watch);
    tv_register_client_fd_close_callback(unwatch);
    tv_service_enable_heartbeat(hbInterval, hbCount, on_linkdown);
    listenFd = tv_get_server_polling_fd();
    listen(listenFd, SOMAXCONN); // so many may come at once; the library has set 16
    watch(listenFd);
    tell("listening on port %d", port_of(listenFd));
}

int main(int argc, char **argv)
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    speaker = "server";
    if (argc != 3)
        fail("arguments: ADDRESS PORT");
    rlimit descriptors;
    getrlimit(RLIMIT_NOFILE, &descriptors);
    descriptors.rlim_cur = descriptors.rlim_max; // one for each client
    setrlimit(RLIMIT_NOFILE, &descriptors);
    epollFd = epoll_create1(EPOLL_CLOEXEC);
    keep_log();
    start(to_address(argv[1]), to_port(argv[2]));

    for (;;) {
        epoll_event events[64];
        const int count = epoll_wait(epollFd, events, 64, ruvo_timer_get_expected_interval());
        if (count < 0 && errno != EINTR)
            fail("epoll has failed");
        ruvo_fire_timer();
        // New clients come last: their descriptors may have the numbers of clients that an event
        // of this pass, or a timer, has closed, and the events of those would be taken for theirs.
        bool accepting = false;
        for (int i = 0; i < count; i++) {
            if (events[i].data.fd == listenFd)
                accepting = true;
            else
                tv_pair_fd_handler(events[i].data.fd, 0, 0);
        }
        if (accepting)
            accept_client();
    }
}
