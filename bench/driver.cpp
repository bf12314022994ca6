// driver.cpp - measures the contenders against each other and prints the tables of RESULTS.md.
//
//   driver roundtrip|oneway|outstanding BYTES CORES ROUNDS MILLISECONDS
//                                        a table; CORES: 1 or 2, for client and server
//   driver growth library|layer CLIENTS  a row: what CLIENTS clients cost that server
//   driver load READERS STOPPED HALVES   a row: a client's waits beside READERS clients that read,
//                                        STOPPED that do not, and HALVES that sent half a frame
//   driver count NAME NUMBER             NUMBER round trips of 5 bytes, for strace and callgrind
//
// Every server has a process of its own; this process is the client of all. In each round they take
// turns, so that a disturbance of the machine affects all of them. Ratios are taken within a round;
// the median over the rounds counts.

#include "contender.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <netinet/in.h>
#include <random>
#include <sched.h>
#include <string>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

task theTask;

void check(bool ok, const char *what)
{
    if (ok)
        return;
    perror(what);
    _exit(EXIT_FAILURE);
}

static double now_us()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1e6 + now.tv_nsec / 1e3;
}

static double quantile(std::vector<double> &values, double q)
{
    const auto at = values.begin() + (size_t)(q * values.size());
    std::nth_element(values.begin(), at, values.end());
    return *at;
}

static double median(std::vector<double> values)
{
    return quantile(values, 0.5);
}

static double median_ratio(std::vector<double> a, const std::vector<double> &b)
{
    std::transform(a.begin(), a.end(), b.begin(), a.begin(), std::divides<>());
    return median(a);
}

// ---- servers

struct shared_state {
    std::atomic<bool> ready;
    std::atomic<long> received; // one way
};
static shared_state *shared; // in a server's process

void server_is_ready()
{
    shared->ready = true;
}

void message_received()
{
    shared->received.fetch_add(1, std::memory_order_relaxed);
}

static void serve_one(const contender &who, int port)
{
    const link_end client = who.open(port, true);
    for (;;) {
        const char *payload = client.receive();
        if (theTask.oneWay)
            message_received();
        else
            client.send(payload);
    }
}

static void run_on(int cpu)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    sched_setaffinity(0, sizeof(set), &set); // fails where there is only one
}

static int free_port()
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {AF_INET, 0, {0}, {}};
    socklen_t size = sizeof(address);
    check(bind(fd, (sockaddr *)&address, size) == 0, "bind");
    check(getsockname(fd, (sockaddr *)&address, &size) == 0, "getsockname");
    close(fd);
    return ntohs(address.sin_port);
}

// The kernel copies with the instruction that copy() avoids. Shift the heap at random, so that no
// contender always receives into a slow alignment.
static void shift_heap()
{
    static std::vector<void *> blocks;
    blocks.push_back(malloc(rand() % 4096));
}

struct server {
    int port;
    shared_state *shared;
    pid_t pid; // ends with this process at the latest
};

static server start_server(const std::function<void(int port)> &serve, int cpu)
{
    void *memory = mmap(nullptr, sizeof(shared_state), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    check(memory != MAP_FAILED, "mmap");
    const server started = {free_port(), shared = (shared_state *)memory, fork()};
    check(started.pid >= 0, "fork");
    if (started.pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        run_on(cpu);
        srand(getpid());
        shift_heap();
        serve(started.port);
    }
    while (!shared->ready)
        check(waitpid(started.pid, nullptr, WNOHANG) == 0 && usleep(100) == 0, "server");
    return started;
}

// ---- one client

struct running : server {
    link_end client;
    int outstanding;
    long sent;
    std::vector<double> samples; // us, of all rounds
    // us: the median round trip, or, when rates are compared, the time per message
    std::vector<double> perRound;
};

// All servers are started before the first client: other libraries start threads, and these do
// not survive a fork().
static std::vector<running> start(const std::vector<contender> &list, int serverCpu)
{
    std::vector<running> pairs;
    for (const contender &who : list) {
        const auto serve = [&](int port) { serve_one(who, port); };
        // One-way messages are sent in bursts; the next one begins when all have arrived.
        const int outstanding = theTask.oneWay ? 1000 : who.outstanding;
        pairs.push_back({start_server(serve, serverCpu), {}, outstanding, 0, {}, {}});
    }
    for (size_t i = 0; i < list.size(); i++)
        pairs[i].client = list[i].open(pairs[i].port, false);
    return pairs;
}

static void exchange(const link_end &client, int outstanding = 1)
{
    for (int i = 0; i < outstanding; i++)
        client.send(theTask.payload);
    for (int i = 0; i < outstanding && !theTask.oneWay; i++)
        client.receive();
}

static void take_turn(running &pair, double duration, bool rates)
{
    std::vector<double> samples;
    shift_heap();
    const double begin = now_us();
    for (double last = begin, now; last < begin + duration; last = now) {
        exchange(pair.client, pair.outstanding);
        pair.sent += pair.outstanding;
        while (theTask.oneWay && pair.shared->received < pair.sent) {
            pair.client.flush();
            sched_yield();
        }
        now = now_us();
        samples.push_back(now - last);
    }
    const double each = (now_us() - begin) / samples.size() / pair.outstanding;
    pair.samples.insert(pair.samples.end(), samples.begin(), samples.end());
    pair.perRound.push_back(rates ? each : median(samples));
}

static void compare(const std::string &what, int cores, int rounds, double duration)
{
    const std::vector<contender> &list = what == "outstanding" ? outstanding : contenders;
    const bool rates = what != "roundtrip";
    std::vector<running> pairs = start(list, cores - 1);
    const size_t n = pairs.size();
    for (size_t turn = 0; turn < n * (rounds + 1); turn++) {
        running &next = pairs[(turn + turn / n) % n];
        take_turn(next, duration, rates);
        if (turn < n) { // the first round warms up
            next.samples.clear();
            next.perRound.clear();
        }
    }
    printf("|");
    for (int other : {0, 1, 2})
        printf(" | %s / %s", rates ? "rate" : "p50", list[other].name);
    puts(rates ? " | messages/s |\n|---|--:|--:|--:|--:|"
               : " | p50 µs | p90 | p99 | p99.9 |\n|---|--:|--:|--:|--:|--:|--:|--:|");
    for (size_t i = 0; i < n; i++) {
        const std::vector<double> &own = pairs[i].perRound;
        printf("| %s |", list[i].name);
        for (int other : {0, 1, 2})
            printf(" %.2f |", rates ? median_ratio(pairs[other].perRound, own)
                                    : median_ratio(own, pairs[other].perRound));
        if (rates)
            printf(" %.0f |", 1e6 / median(own));
        else
            for (double q : {0.5, 0.9, 0.99, 0.999})
                printf(" %.1f |", quantile(pairs[i].samples, q));
        puts("");
    }
}

static void count_round_trips(const std::string &name, long number)
{
    const auto named = [&](const contender &who) { return who.name == name; };
    const auto found = std::find_if(contenders.begin(), contenders.end(), named);
    check(found != contenders.end(), "name");
    const link_end client = start({*found}, 0)[0].client;
    while (number-- > 0)
        exchange(client);
}

// ---- many clients

// Excludes memory shared with files or other processes.
static double resident_kib(pid_t pid)
{
    long pages = 0, shared = 0;
    FILE *file = fopen(("/proc/" + std::to_string(pid) + "/statm").c_str(), "r");
    check(file != nullptr && fscanf(file, "%*d %ld %ld", &pages, &shared) == 2, "statm");
    fclose(file);
    return (double)(pages - shared) * sysconf(_SC_PAGESIZE) / 1024;
}

static double timed(const std::function<void()> &run)
{
    const double begin = now_us();
    run();
    return now_us() - begin;
}

// Clients act one at a time, each on its own connection, so only the server's part can grow.
static void print_growth(bool layer, size_t count)
{
    const size_t samples = std::min(count / 2, (size_t)300);
    const server started = start_server(layer ? layer_serve : library_serve_many, 0);
    const double before = resident_kib(started.pid);
    std::vector<link_end> clients;
    std::vector<double> logins, roundTrips;
    while (clients.size() < count) {
        logins.push_back(timed([&] {
            clients.push_back(open_library(started.port, false));
            exchange(clients.back());
        }));
    }
    logins.erase(logins.begin(), logins.end() - samples);
    std::shuffle(clients.begin(), clients.end(), std::mt19937()); // favours no end of a list
    for (size_t i = 0; i < std::max(count, (size_t)3000); i++)
        roundTrips.push_back(timed([&] { exchange(clients[i % count]); }));
    const double memory = (resident_kib(started.pid) - before) / count;
    const double leaving = timed([&] {
        for (size_t i = 0; i < samples; i++)
            clients[i].close();
        exchange(clients[samples]); // its reply comes after the server has closed the others
    });
    printf("| %s | %zu | %.1f | %.1f | %.1f | %.2f |\n", layer ? "C++ layer" : "library", count,
           median(logins), median(roundTrips), leaving / samples, memory);
    for (size_t i = samples; i < count; i++)
        clients[i].close();
    kill(started.pid, SIGKILL);
}

// A client of the C++ layer asks for three seconds. Its longest wait is taken within each 50 ms.
static void print_load(const crowd &who)
{
    theTask.broadcasts = who.readers > 0;
    const server started = start_server(layer_serve, 0);
    start_server([&](int) { join_crowd(started.port, who); }, 0);
    const link_end client = open_layer(started.port, false);
    std::vector<double> waits, longest;
    for (int slice = 0; slice < 60; slice++) {
        const size_t first = waits.size();
        for (const double end = now_us() + 50e3; now_us() < end;)
            waits.push_back(timed([&] { exchange(client); }));
        longest.push_back(*std::max_element(waits.begin() + (long)first, waits.end()));
    }
    printf("| %d | %d | %d | %.1f | %.1f |\n", who.readers, who.stopped, who.halves, median(waits),
           median(longest));
}

int main(int argc, char **argv)
{
    const std::string what = argc > 1 ? argv[1] : "";
    static const std::string payload(1 << 16, 'x');
    theTask = {payload.c_str(), 5, what == "oneway", false};
    run_on(0);
    if (argc == 4 && what == "growth")
        print_growth(argv[2] == std::string("layer"), atol(argv[3]));
    else if (argc == 5 && what == "load")
        print_load({atoi(argv[2]), atoi(argv[3]), atoi(argv[4])});
    else if (argc == 4 && what == "count")
        count_round_trips(argv[2], atol(argv[3]));
    else if (argc == 6 && (theTask.len = atoi(argv[2])) > 0)
        compare(what, atoi(argv[3]), atoi(argv[4]), atoi(argv[5]) * 1e3);
    else
        return EXIT_FAILURE;
    return EXIT_SUCCESS;
}
