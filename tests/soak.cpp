// soak.cpp - a server and 15 clients with random traffic both ways, for as many seconds as the
// argument says, while clients log out, vanish, reset their connections, log in anew over the old
// connection, and are stopped and continued, and while strangers send half frames and garbage.
//
// Every process accounts for its own requests: those sent are those answered, timed out, and lost
// with their connection. The server's descriptors, memory and timers stay flat, and each stopped
// client is found within (count + 1) heartbeat intervals and a margin.

#include "ruvo_timer.h"
#include "tolvane.h"

#include <algorithm>
#include <arpa/inet.h>
#include <dirent.h>
#include <functional>
#include <map>
#include <random>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <string>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

static const int clientCount = 15, pairLimit = 64;
static const int hbInterval = 100, hbCount = 2, hbMargin = 1000; // the margin is for a busy machine
static const int ioTimeout = 50, rqstTimeout = 60;

struct account {
    long sent, replies, timeouts, lost;
};

static struct shared {
    account of[clientCount + 1]; // the clients' and the server's
    long served, broadcasts, logins, replaced, logouts, linkdowns, strangers; // at the server
    long stops, found, slowest;        // stopped clients, and the longest time to find one
    long long stoppedAt[clientCount];  // 0: runs, or has been found
    bool up[clientCount];              // logged in
    long descriptors[2], kilobytes[2]; // highest, in the first third and after it
    int port, wrong;
} * all;

#define REQUIRE(condition)                                                                         \
    ((condition)                                                                                   \
         ? (void)0                                                                                 \
         : (void)(all->wrong++, fprintf(stderr, "soak.cpp:%d: %s\n", __LINE__, #condition)))

static std::mt19937 random_source;
static long long endsAt;

static long long now_ms()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000LL + now.tv_nsec / 1000000;
}

static int below(int limit)
{
    return (int)(random_source() % limit);
}

// Call work once, or again and again after pauses of up to twice the mean.
static void later(int ms, std::function<void()> *work)
{
    const auto run = [](intptr_t work, intptr_t) {
        (*(std::function<void()> *)work)();
        delete (std::function<void()> *)work;
    };
    REQUIRE(ruvo_start_timer(ms, run, (intptr_t)work, 0) != -1);
}

static void keep_on(int mean, void (*work)())
{
    later(1 + below(2 * mean), new std::function<void()>([=] {
              if (now_ms() < endsAt) {
                  work();
                  keep_on(mean, work);
              }
          }));
}

// ---- requests, the same at both ends

struct request {
    uint32_t mark;
    bool afterTimeout; // an answer may be that to an earlier one
};

static account *mine;
static std::map<int, request> awaited; // by channel
static std::map<int, bool> timedOut;   // whether one has, on the channel
static uint32_t lastMark;

// A payload that can be checked: the way it is to be served, its mark, and a filling by the mark.
static std::string payload_of(char way, uint32_t mark, int size)
{
    return std::string(1, way) + std::to_string(mark) + ":" + std::string(size, 'a' + mark % 26);
}

static void send_request(int id)
{
    if (id == -1 || awaited.count(id) != 0)
        return;
    const int size = below(50) == 0 ? 60000 : below(300);
    const std::string payload = payload_of("eeedn"[below(5)], ++lastMark, size);
    if (tv_send_rqst(id, payload.data(), payload.size(), rqstTimeout) != 0)
        return; // the link is down
    mine->sent++;
    awaited[id] = {lastMark, timedOut.count(id) != 0};
}

static void on_resp(int id, const char *payload, int len)
{
    REQUIRE(awaited.count(id) == 1);
    const request asked = awaited[id];
    const uint32_t mark = strtoul(std::string(payload, std::min(len, 20)).c_str() + 1, nullptr, 10);
    const int size = len - (int)payload_of('r', mark, 0).size();
    REQUIRE(mark == asked.mark || (mark < asked.mark && asked.afterTimeout));
    REQUIRE(size >= 0 && payload_of('r', mark, size) == std::string(payload, len));
    awaited.erase(id);
    mine->replies++;
}

static void on_timeout(int id)
{
    REQUIRE(awaited.erase(id) == 1);
    timedOut[id] = true;
    mine->timeouts++;
}

// The channel is closed: a request that it awaited a reply to is lost.
static void forget(int id)
{
    mine->lost += awaited.erase(id);
    timedOut.erase(id);
}

static int actor(int id, const char *payload, int len, char **reply, int *replyLen)
{
    const char way = *payload;
    all->served++;
    if (way == 'n')
        return TV_ACTOR_HANDLED;
    std::string answer(payload, len);
    answer[0] = 'r';
    if (way == 'd') {
        later(1 + below(rqstTimeout), new std::function<void()>([=] {
                  if (get_channel_type(id) != TV_CHANNEL_NONE)
                      tv_send_resp(id, answer.data(), answer.size());
              }));
        return TV_ACTOR_DEFERRED;
    }
    *reply = (char *)memcpy(malloc(len), answer.data(), len);
    *replyLen = len;
    return TV_ACTOR_HANDLED;
}

static void settle_account()
{
    while (!awaited.empty())
        forget(awaited.begin()->first);
    REQUIRE(mine->sent == mine->replies + mine->timeouts + mine->lost);
    const long long end = now_ms() + 3 * rqstTimeout;
    for (int wait; (wait = ruvo_timer_get_expected_interval()) != -1 && now_ms() < end;) {
        poll(nullptr, 0, wait);
        ruvo_fire_timer();
    }
    REQUIRE(ruvo_timer_get_expected_interval() == -1);
}

// ---- a client

static int channel = -1, number;

static void connect_now();

static void close_link(int id, bool reset)
{
    const int fd = tv_get_polling_fd(id);
    const linger atOnce = {1, 0};
    if (reset)
        setsockopt(fd, SOL_SOCKET, SO_LINGER, &atOnce, sizeof(atOnce));
    if (fd != -1)
        tv_unregister_polling_fd(fd);
    tv_close_channel(id);
    forget(id);
    channel = channel == id ? -1 : channel;
}

static void on_client_linkdown(int id, const char *)
{
    close_link(id, false);
}

static void connect_now()
{
    const tv_client_addr addr = {"127.0.0.1", "soak", (uint16_t)all->port, (uint16_t)number};
    const int id = channel = tv_create_client_channel(&addr);
    tv_register_actor(id, actor);
    tv_register_resp_handler(id, on_resp);
    tv_register_timeout_handler(id, on_timeout);
    tv_set_poll_timeout(id, 10 * ioTimeout);
    tv_set_connect_timeout(id, 1000);
    tv_client_enable_heartbeat(id, 5 * hbInterval, hbCount, on_client_linkdown);
    if (tv_connect_server(id) == 0)
        tv_register_polling_fd(tv_get_polling_fd(id), tv_channel_fd_handler, id, 0);
    else if (channel == id)
        on_client_linkdown(id, "");
}

static void live()
{
    if (channel == -1)
        connect_now();
    else
        send_request(channel);
}

static void misbehave()
{
    const int what = below(4), old = channel;
    if (old == -1)
        return;
    if (what == 0)
        tv_disconnect_server(old);
    if (what == 3)
        connect_now(); // the server closes the older connection
    else if (channel == old)
        close_link(old, what == 1);
}

static int run_client(int which)
{
    number = which;
    mine = &all->of[which];
    keep_on(10, live);
    keep_on(2000, misbehave);
    later((int)(endsAt - now_ms()) + 1, new std::function<void()>([] {
              for (const auto &waiting : std::map<int, request>(awaited))
                  close_link(waiting.first, false);
              if (channel != -1)
                  close_link(channel, false);
              settle_account();
              exit(0);
          }));
    tv_main_loop();
    return 1;
}

// ---- the server

static int number_of(const char *url)
{
    return atoi(strrchr(url, ':') == nullptr ? "0" : strrchr(url, ':') + 1);
}

static void on_linkdown(int id, const char *url)
{
    all->linkdowns++;
    const int which = number_of(url);
    if (*url != '\0' && all->stoppedAt[which] != 0 && tv_get_client_channel("soak", which) == id) {
        all->slowest = std::max<long>(all->slowest, now_ms() - all->stoppedAt[which]);
        all->stoppedAt[which] = 0;
        all->found++;
    }
    all->up[which] = *url == '\0' && all->up[which];
    tv_close_channel(id);
    forget(id);
}

static void on_connected(int, const char *url)
{
    all->logins++;
    all->up[number_of(url)] = true;
}

static void on_disconnected(int id, const char *url)
{
    const bool isReplaced = tv_get_channel(id) != nullptr;
    (isReplaced ? all->replaced : all->logouts)++;
    all->up[number_of(url)] = isReplaced;
    forget(id);
}

static bool serving = true;

static void ask_somebody()
{
    send_request(tv_get_client_channel("soak", below(clientCount)));
}

static void tell_all()
{
    tv_broadcast_rqst_to_client("n0:", 3);
    all->broadcasts++;
}

static long count_descriptors()
{
    DIR *folder = opendir("/proc/self/fd");
    long count = 0;
    while (readdir(folder) != nullptr)
        count++;
    closedir(folder);
    return count;
}

static void measure()
{
    static const long long third = now_ms() + (endsAt - now_ms()) / 3;
    long pages = 0;
    FILE *file = fopen("/proc/self/statm", "r");
    REQUIRE(fscanf(file, "%*d %ld", &pages) == 1);
    fclose(file);
    const int phase = now_ms() > third;
    all->descriptors[phase] = std::max(all->descriptors[phase], count_descriptors());
    all->kilobytes[phase] = std::max(all->kilobytes[phase], pages * sysconf(_SC_PAGESIZE) / 1024);
}

// A loop of its own, because the library's has room for 16 descriptors.
static void serve_all()
{
    struct pollfd list[pairLimit + 1] = {{tv_get_server_polling_fd(), POLLIN, 0}};
    int fds[pairLimit];
    std::fill(fds, fds + pairLimit, -1); // ignored by poll()
    tv_get_all_client_fds(fds, pairLimit);
    for (int i = 0; i < pairLimit; i++)
        list[i + 1] = {fds[i], POLLIN, 0};
    poll(list, pairLimit + 1, ruvo_timer_get_expected_interval()); // there always is a timer
    ruvo_fire_timer();
    for (struct pollfd &entry : list) { // ask again: it may be another connection's by now
        if (entry.revents == 0 || poll(&entry, 1, 0) <= 0)
            continue;
        if (entry.fd == list->fd)
            tv_server_fd_handler(entry.fd, 0, 0);
        else
            tv_pair_fd_handler(entry.fd, 0, 0);
    }
}

static int run_server()
{
    const long descriptors = count_descriptors();
    mine = &all->of[clientCount];
    const int id = tv_start_service_server("127.0.0.1", 0, on_resp, on_timeout, on_connected);
    tv_register_disconnected_callback(id, on_disconnected);
    tv_register_actor(id, actor);
    tv_set_poll_timeout(id, ioTimeout);
    tv_service_enable_heartbeat(hbInterval, hbCount, on_linkdown);
    sockaddr_in address;
    socklen_t size = sizeof(address);
    getsockname(tv_get_server_polling_fd(), (sockaddr *)&address, &size);
    all->port = ntohs(address.sin_port);
    keep_on(5, ask_somebody);
    keep_on(500, tell_all);
    later((int)(endsAt - now_ms()) + 500, new std::function<void()>([] { serving = false; }));
    keep_on(100, measure);
    while (serving)
        serve_all();
    tv_stop_server();
    settle_account();
    REQUIRE(count_descriptors() == descriptors);
    return 0;
}

// ---- strangers, and the one who stops clients

static int run_stranger()
{
    static const char bytes[100] = "TCP_WATER_MARK";
    while (now_ms() < endsAt) {
        poll(nullptr, 0, below(400));
        const int fd = impl_create_client_socket("127.0.0.1", all->port, 1000);
        const linger atOnce = {below(2), 0};
        setsockopt(fd, SOL_SOCKET, SO_LINGER, &atOnce, sizeof(atOnce));
        const int from = below(3) == 0; // garbage, or a frame that breaks off
        send(fd, bytes + from, 1 + below(sizeof(bytes) - from), MSG_NOSIGNAL);
        poll(nullptr, 0, below(2 * ioTimeout));
        close(fd);
        all->strangers++;
    }
    return 0;
}

static void stop_somebody(const pid_t *clients)
{
    const int which = below(clientCount);
    const long long limit = (hbCount + 1) * hbInterval + hbMargin;
    if (!all->up[which])
        return;
    kill(clients[which], SIGSTOP);
    all->stoppedAt[which] = now_ms();
    const long long end = now_ms() + limit;
    while (all->up[which] && all->stoppedAt[which] != 0 && now_ms() < end)
        poll(nullptr, 0, 5);
    REQUIRE(!all->up[which] || all->stoppedAt[which] == 0);
    all->stoppedAt[which] = 0;
    all->stops++;
    kill(clients[which], SIGCONT);
}

static pid_t start(int (*run)(int), int which)
{
    fflush(nullptr);
    const pid_t process = fork();
    if (process == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        random_source.seed(which);
        exit(run(which));
    }
    return process;
}

static void print_results(long seconds)
{
    account sum = {};
    for (const account &each : all->of) {
        sum.sent += each.sent;
        sum.replies += each.replies;
        sum.timeouts += each.timeouts;
        sum.lost += each.lost;
    }
    printf("%ld s: %ld requests sent = %ld replies + %ld time-outs + %ld lost with their link\n",
           seconds, sum.sent, sum.replies, sum.timeouts, sum.lost);
    printf("served %ld, broadcasts %ld, logins %ld, replaced %ld, logouts %ld, links down %ld, "
           "strangers %ld\n",
           all->served, all->broadcasts, all->logins, all->replaced, all->logouts, all->linkdowns,
           all->strangers);
    printf("stopped clients %ld, found by the heartbeat %ld, the last after %ld ms of %d\n",
           all->stops, all->found, all->slowest, (hbCount + 1) * hbInterval);
    printf("server, first third and later: %ld, %ld descriptors; %ld, %ld KiB\n",
           all->descriptors[0], all->descriptors[1], all->kilobytes[0], all->kilobytes[1]);
}

int main(int argc, char **argv)
{
    const int seconds = argc > 1 ? atoi(argv[1]) : 20;
    all = (shared *)mmap(nullptr, sizeof(*all), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                         -1, 0);
    endsAt = now_ms() + seconds * 1000LL;
    alarm(seconds + 60);
    start([](int) { return run_server(); }, 100);
    while (all->port == 0 && now_ms() < endsAt)
        poll(nullptr, 0, 5);
    pid_t clients[clientCount];
    for (int i = 0; i < clientCount; i++)
        clients[i] = start(run_client, i);
    start([](int) { return run_stranger(); }, 101);
    while (now_ms() < endsAt - 3000) {
        poll(nullptr, 0, 300 + below(1000));
        stop_somebody(clients);
    }
    for (int left = clientCount + 2, status; left > 0; left--) {
        REQUIRE(wait(&status) > 0);
        REQUIRE(status == 0);
    }
#ifndef __SANITIZE_ADDRESS__ // which keeps what is freed
    REQUIRE(all->kilobytes[1] < all->kilobytes[0] * 11 / 10 + 512);
#endif
    REQUIRE(all->descriptors[1] <= all->descriptors[0] + clientCount);
    REQUIRE(all->stops > 0 && all->found > 0 && all->served > 0);
    print_results(seconds);
    printf("%d wrong\n", all->wrong);
    return all->wrong != 0;
}
