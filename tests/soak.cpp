// soak.cpp - a server and 15 clients with random traffic both ways, for as many seconds as the
// first argument says, while clients log out, reset their connections, break off a frame, log in anew
// over the old connection, and are stopped and continued.
//
// Every process accounts for its own requests: those sent are those answered, timed out, and lost
// with their connection. The server's descriptors, memory and timers stay flat, and each stopped
// client is found within (count + 1) heartbeat intervals and a margin.

#include "callbacks.h"
#include "ruvo_timer.h"

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <chrono>
#include <map>
#include <signal.h>
#include <string.h>
#include <string>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

static const int clientCount = 15;
static const int hbInterval = 100, hbCount = 2, hbLimit = (hbCount + 1) * hbInterval;
static const int hbMargin = 1000; // for a busy machine
static const int ioTimeout = 50, rqstTimeout = 60, patience = 5000;

// What happened, in this process and in all of them together.
enum { SENT, REPLIES, TIMEOUTS, LOST, SERVED, TOLD, OPENED, REPLACED, LOGOUTS, DOWN, WRONG, KINDS };
static long counts[KINDS];
static std::atomic<long> *totals;

#define REQUIRE(condition)                                                                         \
    ((condition)                                                                                   \
         ? (void)0                                                                                 \
         : (void)(totals[WRONG]++, fprintf(stderr, "soak.cpp:%d: %s\n", __LINE__, #condition)))

static long long endsAt;
static int descriptors; // open at the start, and again at the end
static int pulse;       // the timer of what this process does of its own accord

static long long now_ms()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

// ---- requests, the same at both ends

struct request {
    uint32_t mark;
    long long sentAt;
};

static std::map<int, request> awaiting; // their replies, by channel

// A request and its reply: a mark, and a filling by the mark.
static std::string payload_of(uint32_t mark)
{
    const std::string filling(mark % 50 == 0 ? 60000 : mark * 7 % 300, 'a' + mark % 26);
    return std::to_string(mark) + ":" + filling;
}

static void send_request(int id)
{
    static uint32_t lastMark;
    const std::string payload = payload_of(++lastMark);
    if (tv_send_rqst(id, payload.data(), payload.size(), rqstTimeout) == 0) {
        awaiting[id] = {lastMark, now_ms()};
        counts[SENT]++;
    } else if (tv_get_channel(id) != nullptr) { // else the link is down, and closed
        REQUIRE(now_ms() < awaiting[id].sentAt + patience);
    }
}

static void on_resp(int id, const char *payload, int len)
{
    const uint32_t mark = strtoul(payload, nullptr, 10);
    REQUIRE(mark <= awaiting[id].mark); // less: of an earlier request, which has timed out
    REQUIRE(std::string(payload, len) == payload_of(mark));
    awaiting.erase(id);
    counts[REPLIES]++;
}

static void on_timeout(int id)
{
    REQUIRE(awaiting.erase(id) == 1);
    counts[TIMEOUTS]++;
}

static void answer(intptr_t id, intptr_t mark)
{
    const std::string payload = payload_of(mark);
    tv_send_resp(id, payload.data(), payload.size());
}

static int actor(int id, const char *payload, int len, char **reply, int *replyLen)
{
    const uint32_t mark = strtoul(payload, nullptr, 10);
    const int way = mark == 0 ? 0 : random() % 5; // a broadcast is not answered
    counts[mark == 0 ? TOLD : SERVED]++;
    if (way == 1) {
        ruvo_start_timer(1 + random() % rqstTimeout, answer, id, mark);
        return TV_ACTOR_DEFERRED;
    }
    if (way > 1) {
        *reply = (char *)memcpy(malloc(len), payload, len);
        *replyLen = len;
    }
    return TV_ACTOR_HANDLED;
}

static void close_link(int id, const char *)
{
    tv_unregister_polling_fd(tv_get_polling_fd(id));
    tv_close_channel(id);
    counts[LOST] += awaiting.erase(id);
}

// Stop, wait for the timers to run out, and check and hand in the counts.
static void settle_account()
{
    ruvo_stop_timer(pulse);
    tv_stop_server();
    counts[LOST] += awaiting.size();
    for (int wait; (wait = ruvo_timer_get_expected_interval()) != -1;) {
        REQUIRE(now_ms() + wait < endsAt + patience);
        poll(nullptr, 0, wait);
        ruvo_fire_timer();
    }
    REQUIRE(count_descriptors() == descriptors);
    REQUIRE(counts[SENT] == counts[REPLIES] + counts[TIMEOUTS] + counts[LOST]);
    for (int i = 0; i < KINDS; i++)
        totals[i] += counts[i];
}

// ---- a client

static int trouble; // times as often as usual
static tv_client_addr address = {"127.0.0.1", "soak", 0, 0};
static int channel = -1;

static void connect_now()
{
    const int id = channel = tv_create_client_channel(&address);
    tv_register_actor(id, actor);
    tv_register_resp_handler(id, on_resp);
    tv_register_timeout_handler(id, on_timeout);
    tv_set_poll_timeout(id, 10 * ioTimeout);
    tv_set_connect_timeout(id, 1000);
    tv_client_enable_heartbeat(id, 5 * hbInterval, hbCount, close_link);
    if (tv_connect_server(id) == 0) {
        tv_register_polling_fd(tv_get_polling_fd(id), tv_channel_fd_handler, id, 0);
    } else {
        close_link(id, "");
    }
}

// Log out, or break off a frame; then close the connection, or let a new login do it.
static void misbehave()
{
    static const char frame[100] = "TCP_WATER_MARK";
    const linger atOnce = {(int)(random() % 2), 0};
    const int way = random() % 4, old = channel, fd = tv_get_polling_fd(old);
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &atOnce, sizeof(atOnce));
    if (way == 0)
        tv_disconnect_server(old);
    if (way == 1)
        send(fd, frame, 1 + random() % sizeof(frame), MSG_NOSIGNAL);
    if (random() % 2 == 0)
        connect_now();
    else
        close_link(old, "");
}

static void live(intptr_t, intptr_t)
{
    if (now_ms() >= endsAt) {
        for (; channel != -1; channel--)
            close_link(channel, "");
        settle_account();
        exit(0);
    }
    if (tv_get_channel(channel) == nullptr)
        connect_now();
    else if (random() % (200 / trouble) == 0)
        misbehave();
    else
        send_request(channel);
}

[[noreturn]] static void run_client(int number)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    tv_stop_server(); // this process's copy
    srandom(getpid());
    address.clientPort = number;
    pulse = ruvo_start_periodic_timer(10, live, 0, 0);
    tv_main_loop();
    exit(1);
}

// ---- the server

static pid_t clients[clientCount];
static int ready; // an epoll of all descriptors: the library's loop has room for 16
static bool stopped[clientCount];
static std::map<int, long long> stoppedAt; // when the client was, by pair
static long long slowest;

static void watch(int fd)
{
    epoll_event event = {EPOLLIN, {nullptr}};
    event.data.fd = fd;
    epoll_ctl(ready, EPOLL_CTL_ADD, fd, &event);
    counts[OPENED]++;
}

static void on_silence(int id, const char *url)
{
    counts[DOWN]++;
    if (stoppedAt.count(id) != 0)
        slowest = std::max(slowest, now_ms() - stoppedAt[id]);
    close_link(id, url);
}

static void on_disconnected(int id, const char *)
{
    counts[tv_get_channel(id) != nullptr ? REPLACED : LOGOUTS]++;
    counts[LOST] += awaiting.erase(id);
}

static void continue_client(intptr_t id, intptr_t which)
{
    // A process that gets no time fires its timers late, and each heartbeat once only.
    if (tv_get_channel(id) != nullptr && now_ms() < stoppedAt[id] + 2 * patience) {
        ruvo_start_timer(hbLimit, continue_client, id, which);
        return;
    }
    REQUIRE(tv_get_channel(id) == nullptr); // found dead
    stoppedAt.erase(id);
    kill(clients[which], SIGCONT);
    stopped[which] = false;
}

static void command(intptr_t, intptr_t)
{
    const int which = random() % clientCount, id = tv_get_client_channel("soak", which);
    send_request(id);
    if (random() % 100 == 0)
        tv_broadcast_rqst_to_client("0:", 2);
    if (random() % (150 / trouble) == 0 && tv_get_channel(id) != nullptr && !stopped[which]) {
        stopped[which] = true;
        kill(clients[which], SIGSTOP);
        stoppedAt[id] = now_ms();
        ruvo_start_timer(hbLimit + hbMargin, continue_client, id, which);
    }
}

static void serve_until_end(int listening)
{
    while (now_ms() < endsAt) {
        epoll_event event;
        if (epoll_wait(ready, &event, 1, ruvo_timer_get_expected_interval()) == 1) {
            const int fd = event.data.fd;
            (fd == listening ? tv_server_fd_handler : tv_pair_fd_handler)(fd, 0, 0);
        }
        ruvo_fire_timer();
    }
    close(ready);
    settle_account();
}

int main(int argc, char **argv)
{
    const int seconds = argc > 1 ? atoi(argv[1]) : 20;
    trouble = argc > 2 ? atoi(argv[2]) : 1;
    endsAt = now_ms() + seconds * 1000LL;
    alarm(seconds + 60);
    descriptors = count_descriptors();
    totals = (std::atomic<long> *)mmap(nullptr, sizeof(counts), PROT_READ | PROT_WRITE,
                                       MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    const int id = tv_start_service_server("127.0.0.1", 0, on_resp, on_timeout, nullptr);
    const int listening = tv_get_server_polling_fd();
    sockaddr_in bound;
    socklen_t size = sizeof(bound);
    getsockname(listening, (sockaddr *)&bound, &size);
    address.serverPort = ntohs(bound.sin_port);
    for (int i = 0; i < clientCount; i++) {
        clients[i] = fork();
        if (clients[i] == 0)
            run_client(i);
    }

    tv_register_actor(id, actor);
    tv_register_client_fd_open_callback(watch);
    tv_register_disconnected_callback(id, on_disconnected);
    tv_set_poll_timeout(id, ioTimeout);
    tv_service_enable_heartbeat(hbInterval, hbCount, on_silence);
    pulse = ruvo_start_periodic_timer(5, command, 0, 0);
    static rusage third, whole; // the server's memory in the first third, and in all
    const auto measure = [](intptr_t usage, intptr_t) { getrusage(RUSAGE_SELF, (rusage *)usage); };
    ruvo_start_timer(seconds * 1000 / 3, measure, (intptr_t)&third, 0);
    ready = epoll_create1(0);
    watch(listening);
    serve_until_end(listening);
    getrusage(RUSAGE_SELF, &whole);

    for (int left = clientCount, status = 1; left > 0; left--)
        REQUIRE(wait(&status) > 0 && status == 0);
    REQUIRE(slowest >= hbCount * hbInterval); // by the heartbeat, not by its own closing
#ifndef __SANITIZE_ADDRESS__                  // which keeps what is freed
    REQUIRE(whole.ru_maxrss < third.ru_maxrss * 11 / 10 + 512);
#endif
    printf("sent, replies, time-outs, lost, served, told, opened, replaced, logouts, down, wrong:");
    for (int i = 0; i < KINDS; i++) {
        REQUIRE(totals[i] > 0 || i == WRONG);
        printf(" %ld", totals[i].load());
    }
    printf("\nslowest find of a stopped client: %lld ms of %d; server: %ld KiB, at first %ld\n",
           slowest, hbLimit, whole.ru_maxrss, third.ru_maxrss);
    return totals[WRONG] != 0;
}
