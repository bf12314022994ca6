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
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

using Work = std::function<void()>;

static const int clientCount = 15, pairLimit = 64;
static const int hbInterval = 100, hbCount = 2, hbMargin = 1000; // the margin is for a busy machine
static const int ioTimeout = 50, rqstTimeout = 60, patience = 5000;

// What happened, in this process and in all of them together.
enum { SENT, REPLIES, TIMEOUTS, LOST, SERVED, TOLD, LOGINS, REPLACED, LOGOUTS, DOWN, KINDS };
static long counts[KINDS];

static struct shared {
    std::atomic<long> counts[KINDS];
    std::atomic<bool> up[clientCount]; // logged in
    std::atomic<int> port, wrong;
} * all;

#define REQUIRE(condition)                                                                         \
    ((condition)                                                                                   \
         ? (void)0                                                                                 \
         : (void)(all->wrong++, fprintf(stderr, "soak.cpp:%d: %s\n", __LINE__, #condition)))

static std::mt19937 random_source;
static long long endsAt;

static long long now_ms()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

static int below(int limit)
{
    return (int)(random_source() % limit);
}

static void later(int ms, const Work &work)
{
    const auto run = [](intptr_t work, intptr_t) { (*std::unique_ptr<Work>((Work *)work))(); };
    REQUIRE(ruvo_start_timer(ms, run, (intptr_t) new Work(work), 0) != -1);
}

// Work again and again, after pauses of up to twice the mean.
static void keep_on(int mean, void (*work)())
{
    later(1 + below(2 * mean), [=] {
        if (now_ms() < endsAt) {
            work();
            keep_on(mean, work);
        }
    });
}

// ---- requests, the same at both ends

struct talk {
    uint32_t mark;   // of the last request
    long long since; // when it was sent
    bool awaits;     // its reply
    bool timedOut;   // as an earlier one has, whose reply may still come
};

static std::map<int, talk> talks; // over each open channel
static uint32_t lastMark;

// The way it is to be served, its mark, and a filling by the mark.
static std::string payload_of(char way, uint32_t mark)
{
    const std::string filling(mark % 50 == 0 ? 60000 : mark * 7 % 300, 'a' + mark % 26);
    return way + std::to_string(mark) + ":" + filling;
}

static void send_request(int id)
{
    if (talks.count(id) == 0)
        return;
    REQUIRE(!talks[id].awaits || now_ms() < talks[id].since + patience);
    if (talks[id].awaits)
        return;
    const std::string payload = payload_of("eeedn"[below(5)], lastMark + 1);
    const bool sent = tv_send_rqst(id, payload.data(), payload.size(), rqstTimeout) == 0;
    REQUIRE(sent || talks.count(id) == 0); // the link is down, and closed
    if (!sent)
        return;
    counts[SENT]++;
    talks[id] = {++lastMark, now_ms(), true, talks[id].timedOut};
}

static void on_resp(int id, const char *payload, int len)
{
    REQUIRE(std::exchange(talks[id].awaits, false));
    const uint32_t mark = strtoul(std::string(payload, std::min(len, 20)).c_str() + 1, nullptr, 10);
    REQUIRE(mark == talks[id].mark || (mark < talks[id].mark && talks[id].timedOut));
    REQUIRE(std::string(payload, len) == payload_of('r', mark));
    counts[REPLIES]++;
}

static void on_timeout(int id)
{
    REQUIRE(std::exchange(talks[id].awaits, false));
    talks[id].timedOut = true;
    counts[TIMEOUTS]++;
}

static int actor(int id, const char *payload, int len, char **reply, int *replyLen)
{
    std::string answer(payload, len);
    const char way = std::exchange(answer[0], 'r');
    counts[way == 'b' ? TOLD : SERVED]++;
    if (way == 'd') {
        later(1 + below(rqstTimeout), [=] { tv_send_resp(id, answer.data(), answer.size()); });
        return TV_ACTOR_DEFERRED;
    }
    if (way == 'e') {
        *reply = (char *)memcpy(malloc(len), answer.data(), len);
        *replyLen = len;
    }
    return TV_ACTOR_HANDLED;
}

// The channel is closed: a request that awaits its reply is lost.
static void forget(int id)
{
    counts[LOST] += talks[id].awaits;
    talks.erase(id);
}

static void close_link(int id, const char *)
{
    tv_unregister_polling_fd(tv_get_polling_fd(id));
    tv_close_channel(id);
    forget(id);
}

// Close what is open, wait for the timers to run out, and check and hand in the counts.
static void settle_account()
{
    while (!talks.empty())
        close_link(talks.begin()->first, "");
    for (int wait; (wait = ruvo_timer_get_expected_interval()) != -1;) {
        REQUIRE(now_ms() + wait < endsAt + patience);
        poll(nullptr, 0, wait);
        ruvo_fire_timer();
    }
    REQUIRE(counts[REPLIES] > 0);
    REQUIRE(counts[SENT] == counts[REPLIES] + counts[TIMEOUTS] + counts[LOST]);
    for (int i = 0; i < KINDS; i++)
        all->counts[i] += counts[i];
}

// ---- a client

static int channel = -1, number;

static void connect_now()
{
    const tv_client_addr addr = {"127.0.0.1", "soak", (uint16_t)all->port, (uint16_t)number};
    const int id = channel = tv_create_client_channel(&addr);
    talks[id] = {};
    tv_register_actor(id, actor);
    tv_register_resp_handler(id, on_resp);
    tv_register_timeout_handler(id, on_timeout);
    tv_set_poll_timeout(id, 10 * ioTimeout);
    tv_set_connect_timeout(id, 1000);
    tv_client_enable_heartbeat(id, 5 * hbInterval, hbCount, close_link);
    if (tv_connect_server(id) == 0)
        tv_register_polling_fd(tv_get_polling_fd(id), tv_channel_fd_handler, id, 0);
    else
        close_link(id, "");
}

static void live()
{
    if (get_channel_type(channel) == TV_CHANNEL_NONE)
        connect_now();
    else
        send_request(channel);
}

static void misbehave()
{
    const linger atOnce = {1, 0};
    const int what = below(4), old = channel;
    if (what == 0)
        tv_disconnect_server(old);
    if (what == 1)
        setsockopt(tv_get_polling_fd(old), SOL_SOCKET, SO_LINGER, &atOnce, sizeof(atOnce));
    if (what == 2)
        connect_now(); // the server closes the older connection
    else
        close_link(old, "");
}

static void run_client(int which)
{
    number = which;
    keep_on(10, live);
    keep_on(2000, misbehave);
    later((int)(endsAt - now_ms()) + 1, [] {
        settle_account();
        exit(0);
    });
    tv_main_loop();
    exit(1);
}

// ---- the server

static std::atomic<bool> &is_up(const char *url)
{
    return all->up[atoi(strrchr(url, ':') + 1)];
}

static void on_linkdown(int id, const char *url)
{
    counts[DOWN]++;
    if (*url != '\0')
        is_up(url) = false;
    close_link(id, url);
}

static void on_connected(int id, const char *url)
{
    talks[id]; // goes on, after a second login on the same connection
    counts[LOGINS]++;
    is_up(url) = true;
}

static void on_disconnected(int id, const char *url)
{
    is_up(url) = tv_get_channel(id) != nullptr; // replaced by a newer login
    counts[is_up(url) ? REPLACED : LOGOUTS]++;
    forget(id);
}

static long count_descriptors()
{
    namespace fs = std::filesystem;
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
}

// A loop of its own, because the library's has room for 16 descriptors.
static void serve_all()
{
    pollfd list[pairLimit + 1] = {{tv_get_server_polling_fd(), POLLIN, 0}};
    int fds[pairLimit];
    std::fill(fds, fds + pairLimit, -1); // ignored by poll()
    tv_get_all_client_fds(fds, pairLimit);
    REQUIRE(fds[2 * clientCount] == -1); // connections do not pile up
    for (int i = 0; i < pairLimit; i++)
        list[i + 1] = {fds[i], POLLIN, 0};
    poll(list, pairLimit + 1, ruvo_timer_get_expected_interval()); // there always is a timer
    ruvo_fire_timer();
    for (pollfd &entry : list) // ask again: it may be another connection's by now
        if (entry.revents != 0 && poll(&entry, 1, 0) > 0)
            (&entry == list ? tv_server_fd_handler : tv_pair_fd_handler)(entry.fd, 0, 0);
}

static void run_server(int)
{
    static bool serving = true;
    const long descriptors = count_descriptors();
    const int id = tv_start_service_server("127.0.0.1", 0, on_resp, on_timeout, on_connected);
    tv_register_disconnected_callback(id, on_disconnected);
    tv_register_actor(id, actor);
    tv_set_poll_timeout(id, ioTimeout);
    tv_service_enable_heartbeat(hbInterval, hbCount, on_linkdown);
    sockaddr_in address;
    socklen_t size = sizeof(address);
    getsockname(tv_get_server_polling_fd(), (sockaddr *)&address, &size);
    all->port = ntohs(address.sin_port);
    keep_on(5, [] { send_request(tv_get_client_channel("soak", below(clientCount))); });
    keep_on(500, [] { tv_broadcast_rqst_to_client("b0:", 3); });
    later((int)(endsAt - now_ms()) + 500, [] { serving = false; });
    while (serving)
        serve_all();
    tv_stop_server();
    settle_account();
    REQUIRE(count_descriptors() == descriptors);
}

// ---- strangers, and the one who stops clients and watches the server

static void run_stranger(int)
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
    }
}

static pid_t start(void (*run)(int), int which)
{
    const pid_t process = fork();
    if (process == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        random_source = std::mt19937(which);
        run(which);
        exit(0);
    }
    return process;
}

int main(int argc, char **argv)
{
    const int seconds = argc > 1 ? atoi(argv[1]) : 20, shared = MAP_SHARED | MAP_ANONYMOUS;
    all = (struct shared *)mmap(nullptr, sizeof(*all), PROT_READ | PROT_WRITE, shared, -1, 0);
    const long long startsAt = now_ms();
    endsAt = startsAt + seconds * 1000LL;
    alarm(seconds + 60);
    const pid_t server = start(run_server, 100);
    while (all->port == 0 && now_ms() < endsAt)
        poll(nullptr, 0, 5);
    pid_t clients[clientCount];
    for (int i = 0; i < clientCount; i++)
        clients[i] = start(run_client, i);
    start(run_stranger, 101);

    const long long limit = (hbCount + 1) * hbInterval;
    long long slowest = 0;
    long pages[2] = {}; // of the server: the highest, in the first third and after it
    while (now_ms() < endsAt - 3000) {
        poll(nullptr, 0, 300 + below(1000));
        const int which = below(clientCount);
        const std::atomic<bool> &up = all->up[which];
        const long long since = now_ms();
        long &highest = pages[since > startsAt + seconds * 1000 / 3], resident = 0;
        std::ifstream("/proc/" + std::to_string(server) + "/statm") >> resident >> resident;
        highest = std::max(highest, resident);
        if (!up)
            continue;
        kill(clients[which], SIGSTOP);
        while (up && now_ms() < since + limit + hbMargin)
            poll(nullptr, 0, 5);
        REQUIRE(!up);
        slowest = std::max(slowest, now_ms() - since);
        kill(clients[which], SIGCONT);
    }
    for (int left = clientCount + 2, status = 1; left > 0; left--)
        REQUIRE(wait(&status) > 0 && status == 0);

    printf("sent, replies, time-outs, lost, served, told, logins, replaced, logouts, down:");
    for (const auto &count : all->counts) {
        printf(" %ld", count.load());
        REQUIRE(count > 0);
    }
    printf("\nthe last stopped client found after %lld ms of %lld; server, first third and later: "
           "%ld, %ld pages; %d wrong\n",
           slowest, limit, pages[0], pages[1], all->wrong.load());
    REQUIRE(slowest >= hbCount * hbInterval); // by the heartbeat, not by its own closing
#ifndef __SANITIZE_ADDRESS__                  // which keeps what is freed
    REQUIRE(pages[1] < pages[0] * 11 / 10 + 128);
#endif
    return all->wrong != 0;
}
