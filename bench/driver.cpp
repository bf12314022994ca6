// driver.cpp - measures the contenders against each other, and prints the tables of RESULTS.md.
//
//   driver roundtrip|oneway|growth ROUNDS MILLISECONDS FOLDER
//   driver count NAME NUMBER    exactly so many round trips of 5 bytes, to be counted from outside
//
// Rounds   in each, every contender has two fresh processes, which take turns in short slices of
//          time: a disturbance of the machine meets all of them. A ratio is taken within a round,
//          and the median of the rounds' ratios is what counts.
// Files    FOLDER gets the figures for the plots, and targets.md one line a target.

#include "contender.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <netinet/in.h>
#include <numeric>
#include <poll.h>
#include <sched.h>
#include <string>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

task theTask;

// The first is the limit of all.
static const contender contenders[] = {
    {"raw TCP", raw_serve, raw_request, false, 0},
    {"floor", floor_serve, floor_request, false, 0},
    {"library", library_serve, library_request, false, 0},
    {"library, heartbeats", library_serve, library_request, true, 0},
    {"libzmq", zmq_serve, zmq_request, false, 0},
    {"nanomsg", nanomsg_serve, nanomsg_request, false, 0},
    {"nng", nng_serve, nng_request, false, 0},
};
static const size_t contenderCount = sizeof(contenders) / sizeof(contenders[0]);

// Growth is measured from so many clients to so many.
static const int fewClients = 15;
static const int manyClients = 10000;

// ---- the two processes of a contender

static const size_t maxSamples = 1 << 17;
static const int loginHandlers = 3; // accept, login, a first round trip
static const int patience = 30000;  // ms until a contender is given up

struct shared_state {
    std::atomic<long> received;   // one way
    size_t count;                 // of this slice
    uint32_t samples[maxSamples]; // ns
    size_t handlersToTime;        // so many more
    size_t handlersTimed;
    uint32_t handlerTimes[loginHandlers * manyClients]; // ns
};

struct running {
    pid_t server;
    pid_t client;
    int toClient;   // milliseconds of the next slice
    int fromServer; // a byte once it is ready
    int fromClient; // a byte once it is ready, and one at the end of each slice
    shared_state *shared;
};

static running self;       // in a contender's process: its own ends of the pipes
static long ticksLeft = 0; // to be passed over: round trips that are counted, not timed

static int64_t now_ns()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000000000LL + now.tv_nsec;
}

void server_is_ready()
{
    check(write(self.fromServer, "r", 1) == 1, "write");
}

void message_received()
{
    self.shared->received.fetch_add(1, std::memory_order_relaxed);
}

void run_handler(fd_handler *handler, int fd)
{
    shared_state &shared = *self.shared;
    if (shared.handlersTimed == shared.handlersToTime) {
        handler(fd, 0, 0);
        return;
    }
    const int64_t begin = now_ns();
    handler(fd, 0, 0);
    shared.handlerTimes[shared.handlersTimed++] = (uint32_t)(now_ns() - begin);
}

bool tick()
{
    static int64_t last = 0;
    static int64_t end = 0;
    if (ticksLeft > 0) {
        ticksLeft--;
        return true;
    }
    const int64_t now = now_ns();
    if (now < end) {
        if (!theTask.oneWay && self.shared->count < maxSamples)
            self.shared->samples[self.shared->count] = (uint32_t)(now - last);
        self.shared->count++;
        last = now;
        return true;
    }
    int milliseconds;
    check(write(self.fromClient, "d", 1) == 1, "write");
    check(read(self.toClient, &milliseconds, sizeof(milliseconds)) == sizeof(milliseconds), "read");
    self.shared->count = 0;
    last = now_ns();
    end = last + milliseconds * 1000000LL;
    return milliseconds > 0;
}

static pid_t start_process(int cpu, const std::function<void()> &run)
{
    const pid_t parent = getpid();
    const pid_t pid = fork();
    check(pid >= 0, "fork");
    if (pid > 0)
        return pid;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent)
        _exit(EXIT_FAILURE);
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    sched_setaffinity(0, sizeof(set), &set);
    run();
    _exit(EXIT_FAILURE);
}

static void await_byte(int fd, const char *who)
{
    char byte;
    pollfd entry = {fd, POLLIN, 0};
    if (poll(&entry, 1, patience) == 1 && read(fd, &byte, 1) == 1)
        return;
    fprintf(stderr, "%s does not answer\n", who);
    exit(EXIT_FAILURE);
}

static int free_port()
{
    const int fd = listen_on(0);
    sockaddr_in address;
    socklen_t size = sizeof(address);
    check(getsockname(fd, (sockaddr *)&address, &size) == 0, "getsockname");
    close(fd);
    return ntohs(address.sin_port);
}

static running start(const contender &who, bool twoCores)
{
    theTask.self = &who;
    const int port = free_port();
    int ready[2], go[2], done[2];
    check(pipe(ready) == 0 && pipe(go) == 0 && pipe(done) == 0, "pipe");
    running pair = {};
    pair.shared = (shared_state *)mmap(nullptr, sizeof(shared_state), PROT_READ | PROT_WRITE,
                                       MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    check(pair.shared != MAP_FAILED, "mmap");
    pair.shared->handlersToTime = (size_t)loginHandlers * who.clients;
    self.shared = pair.shared;
    self.fromServer = ready[1];
    self.fromClient = done[1];
    self.toClient = go[0];
    const int cpu = sysconf(_SC_NPROCESSORS_ONLN) > 1 ? 1 : 0;
    pair.server = start_process(twoCores ? 0 : cpu, [&] { who.serve(port); });
    await_byte(ready[0], who.name);
    pair.client = start_process(cpu, [&] { who.request(port); });
    for (int fd : {ready[1], done[1], go[0]})
        close(fd);
    pair.fromServer = ready[0];
    pair.fromClient = done[0];
    pair.toClient = go[1];
    return pair;
}

static void stop(running &pair)
{
    for (pid_t pid : {pair.server, pair.client}) {
        kill(pid, SIGTERM);
        waitpid(pid, nullptr, 0);
    }
    for (int fd : {pair.fromServer, pair.fromClient, pair.toClient})
        close(fd);
    munmap(pair.shared, sizeof(shared_state));
}

// ---- measuring

typedef std::vector<double> per_round;

struct figures {
    std::vector<uint32_t> samples; // all rounds together
    per_round roundMedian;         // ns; one way: ns a message
    // Growth only: bytes, and ns in the server's handlers with many clients and with few.
    per_round resident;
    struct {
        per_round many, few;
    } accept, login, close;
};

static double quantile(std::vector<uint32_t> &samples, double q)
{
    if (samples.empty())
        return 0;
    const size_t index = std::min(samples.size() - 1, (size_t)(q * samples.size()));
    std::nth_element(samples.begin(), samples.begin() + index, samples.end());
    return samples[index];
}

static double median(per_round values)
{
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

// One slice of time for one contender. Returns how many messages passed, and the time they took.
static size_t run_slice(const contender &who, running &pair, int milliseconds, int64_t *elapsed)
{
    const long before = pair.shared->received;
    const int64_t begin = now_ns();
    check(write(pair.toClient, &milliseconds, sizeof(milliseconds)) > 0, "write");
    await_byte(pair.fromClient, who.name);
    const size_t count = pair.shared->count;
    // One way the last messages are still under way; one more was sent before the last tick.
    while (theTask.oneWay && pair.shared->received < before + (long)count + 1) {
        usleep(100);
        if (now_ns() - begin > patience * 1000000LL) {
            fprintf(stderr, "%s loses messages\n", who.name);
            exit(EXIT_FAILURE);
        }
    }
    *elapsed = now_ns() - begin;
    return count;
}

// What is not shared with files or other processes.
static double resident_bytes(pid_t pid)
{
    long pages = 0, shared = 0;
    FILE *file = fopen(("/proc/" + std::to_string(pid) + "/statm").c_str(), "r");
    check(file != nullptr && fscanf(file, "%*d %ld %ld", &pages, &shared) == 2, "statm");
    fclose(file);
    return (double)(pages - shared) * sysconf(_SC_PAGESIZE);
}

// The handlers that served the clients' accepts and logins, which came first, and then their logouts:
// all of them leave.
static void measure_handlers(const contender &who, running &pair, figures &result)
{
    static const int few = 20; // around the fifteenth
    const int n = who.clients, many = std::min(300, n / 2), first = fewClients - few / 2;
    const auto median_of = [&](int from, int count, int handlersEach, int which) {
        std::vector<uint32_t> times;
        for (int i = from; i < from + count; i++)
            times.push_back(pair.shared->handlerTimes[i * handlersEach + which]);
        return quantile(times, 0.5);
    };
    result.accept.few.push_back(median_of(first, few, loginHandlers, 0));
    result.accept.many.push_back(median_of(n - many, many, loginHandlers, 0));
    result.login.few.push_back(median_of(first, few, loginHandlers, 1));
    result.login.many.push_back(median_of(n - many, many, loginHandlers, 1));
    pair.shared->handlersTimed = 0;
    pair.shared->handlersToTime = n;
    int64_t elapsed;
    run_slice(who, pair, 0, &elapsed);
    result.close.many.push_back(median_of(0, many, 1, 0));
    result.close.few.push_back(median_of(n - few - first, few, 1, 0));
}

// One round: all contenders are started, then take turns. The first turn only warms up.
static void run_round(const contender *list, size_t n, bool twoCores, int milliseconds,
                      std::vector<figures> &results)
{
    static const int slices = 6;
    std::vector<running> pairs;
    for (size_t i = 0; i < n; i++) {
        pairs.push_back(start(list[i], twoCores));
        await_byte(pairs[i].fromClient, list[i].name);
    }
    std::vector<std::vector<uint32_t>> samples(n);
    std::vector<double> messages(n), time(n);
    for (int slice = 0; slice <= slices; slice++) {
        for (size_t k = 0; k < n; k++) {
            const size_t i = (k + slice) % n;
            int64_t elapsed = 0;
            const size_t count = run_slice(list[i], pairs[i], milliseconds / slices, &elapsed);
            if (slice == 0)
                continue;
            messages[i] += count;
            time[i] += elapsed;
            if (!theTask.oneWay)
                samples[i].insert(samples[i].end(), pairs[i].shared->samples,
                                  pairs[i].shared->samples + std::min(count, maxSamples));
        }
    }
    for (size_t i = 0; i < n; i++) {
        const double perMessage = time[i] / std::max(1.0, messages[i]);
        results[i].roundMedian.push_back(theTask.oneWay ? perMessage : quantile(samples[i], 0.5));
        results[i].samples.insert(results[i].samples.end(), samples[i].begin(), samples[i].end());
        if (list[i].clients > 0)
            results[i].resident.push_back(resident_bytes(pairs[i].server));
        if (list[i].clients > fewClients && list[i].serve == library_serve_many)
            measure_handlers(list[i], pairs[i], results[i]);
        stop(pairs[i]);
    }
}

static std::vector<figures> measure(const contender *list, size_t n, bool oneWay, int len,
                                    bool twoCores, int rounds, int milliseconds)
{
    static std::string text;
    while (text.size() < (size_t)len)
        text +=
            "{\"sensor\": " + std::to_string(text.size()) + ", \"value\": 20.5, \"ok\": true}, ";
    theTask.payload = text.c_str();
    theTask.len = len;
    theTask.oneWay = oneWay;
    std::vector<figures> results(n);
    for (int round = 0; round < rounds; round++) {
        fprintf(stderr, "\r%6d B, %s, round %d of %d ", len, twoCores ? "two cores" : "one core",
                round + 1, rounds);
        run_round(list, n, twoCores, milliseconds, results);
    }
    fprintf(stderr, "\r%60s\r", "");
    return results;
}

// The median over the rounds, the lowest and the highest.
struct ratio {
    double middle, low, high;
};

static ratio spread(const per_round &values)
{
    const auto ends = std::minmax_element(values.begin(), values.end());
    return {median(values), *ends.first, *ends.second};
}

static per_round divided(per_round a, const per_round &b)
{
    std::transform(a.begin(), a.end(), b.begin(), a.begin(), std::divides<>());
    return a;
}

static ratio ratio_of(const per_round &a, const per_round &b)
{
    return spread(divided(a, b));
}

// ---- tables

static std::string folder;

static FILE *open_file(const std::string &name, const char *mode = "w")
{
    FILE *file = fopen((folder + "/" + name).c_str(), mode);
    check(file != nullptr, name.c_str());
    return file;
}

static size_t index_of(const std::string &name)
{
    for (size_t i = 0; i < contenderCount; i++) {
        if (name == contenders[i].name)
            return i;
    }
    fprintf(stderr, "no contender is called %s\n", name.c_str());
    exit(EXIT_FAILURE);
}

struct target {
    int len;
    const char *dividend, *divisor;
    bool atMost;
    double limit;
};

static const target targets[] = {
    // the median round trip on one core
    {5, "library", "floor", true, 1.04},      {61440, "library", "floor", true, 1.15},
    {5, "library", "raw TCP", true, 2.0},     {5, "libzmq", "library", false, 2.0},
    {5, "nanomsg", "library", false, 1.8},    {5, "nng", "library", false, 3.0},
    {61440, "libzmq", "library", false, 2.0}, {5, "library, heartbeats", "library", true, 1.05},
};

// The verdict is on the figures as they are printed.
static void write_target(const std::string &what, bool atMost, double limit, const ratio &r)
{
    const long excess = lround(r.middle * 100) - lround(limit * 100);
    FILE *file = open_file("targets.md", "a");
    fprintf(file, "| %s | %s %.2f | %.2f (%.2f to %.2f) | %s |\n", what.c_str(),
            atMost ? "at most" : "at least", limit, r.middle, r.low, r.high,
            (atMost ? excess <= 0 : excess >= 0) ? "yes" : "**no**");
    fclose(file);
}

static void check_targets(int len, const std::vector<figures> &results)
{
    for (const target &t : targets) {
        if (t.len != len)
            continue;
        write_target("p50, one core, " + std::to_string(len) + " B: " + t.dividend + " / " +
                         t.divisor,
                     t.atMost, t.limit,
                     ratio_of(results[index_of(t.dividend)].roundMedian,
                              results[index_of(t.divisor)].roundMedian));
    }
}

// The line of one contender: its own figures, and its ratios to the yardsticks and the library.
static void print_contender(size_t i, std::vector<figures> &results, FILE *plot)
{
    figures &own = results[i];
    printf("| %s ", contenders[i].name);
    if (theTask.oneWay) {
        const double rate = 1e9 / median(own.roundMedian);
        printf("| %.0f | %.1f ", rate, rate * theTask.len / 1e6);
    } else {
        const double total = std::accumulate(own.samples.begin(), own.samples.end(), 0.0);
        for (double q : {0.5, 0.9, 0.99, 0.999})
            printf("| %.1f ", quantile(own.samples, q) / 1000);
        printf("| %.0f ", own.samples.size() / total * 1e9);
    }
    for (const char *name : {"raw TCP", "floor", "library"}) {
        const per_round &other = results[index_of(name)].roundMedian;
        const double r = median(theTask.oneWay ? divided(other, own.roundMedian)
                                               : divided(own.roundMedian, other));
        printf("| %.2f ", r);
        if (&other == &results[0].roundMedian)
            fprintf(plot, " %.3f", r);
    }
    puts("|");
}

static void compare(bool oneWay, int len, bool twoCores, int rounds, int milliseconds, FILE *plot)
{
    auto results = measure(contenders, contenderCount, oneWay, len, twoCores, rounds, milliseconds);
    printf("\n### %s, %d B, %s\n\n", oneWay ? "One way" : "Round trip", len,
           twoCores ? "a core for each process" : "both processes on one core");
    puts(oneWay ? "| | messages/s | MB/s | rate to raw TCP | to the floor | to the library |\n"
                  "|---|--:|--:|--:|--:|--:|"
                : "| | p50 µs | p90 | p99 | p99.9 | round trips/s | p50 to raw TCP | to the floor "
                  "| to the library |\n|---|--:|--:|--:|--:|--:|--:|--:|--:|");
    fprintf(plot, "\"%d B\\n%s\"", len, twoCores ? "two cores" : "one core");
    for (size_t i = 0; i < contenderCount; i++)
        print_contender(i, results, plot);
    fputs("\n", plot);
    fflush(stdout);
    if (!oneWay && !twoCores)
        check_targets(len, results);
}

static void compare_all(bool oneWay, int rounds, int milliseconds)
{
    FILE *plot = open_file(oneWay ? "oneway.dat" : "roundtrip.dat");
    for (bool twoCores : {false, true}) {
        for (int len : {5, 4096, 61440})
            compare(oneWay, len, twoCores, rounds, milliseconds, plot);
    }
    fclose(plot);
}

// The most clients, up to so many, that one process may have descriptors for.
static int fitting_clients(int wanted)
{
    static const int others = 64; // the pipes of all contenders, the loop, what listens
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    const int fitting = (int)std::min(limit.rlim_max, (rlim_t)(wanted + others)) - others;
    if (fitting < wanted)
        printf("\n**The limit of open files is too low for %d clients: %d are measured.**\n",
               wanted, fitting);
    return fitting;
}

// What the library's server with many clients costs, beside the same with few. grown: its round
// trip to the floor's, over the same with few.
static void print_growth(const contender &who, const figures &own, const figures &few,
                         const ratio &grown, bool most)
{
    per_round each;
    for (size_t i = 0; i < own.resident.size(); i++)
        each.push_back((own.resident[i] - few.resident[i]) / 1024 / (who.clients - fewClients));
    const ratio memory = spread(each);
    const ratio accept = ratio_of(own.accept.many, own.accept.few);
    const ratio login = ratio_of(own.login.many, own.login.few);
    const ratio close = ratio_of(own.close.many, own.close.few);
    printf("%.2f | %.2f | %.2f | %.2f | %.2f |\n", grown.middle, memory.middle, accept.middle,
           login.middle, close.middle);
    if (who.heartbeats)
        return;
    const std::string clients = std::to_string(who.clients) + " clients";
    write_target("5 B, " + clients + ": library / floor, over the same with 15", true,
                 most ? 1.15 : 1.08, grown);
    if (!most)
        return;
    write_target("a login with " + clients + " / the 15th", true, 2, login);
    write_target("a close with " + clients + " / with 15", true, 2, close);
    write_target("resident memory, KiB a client after small messages", true, 5, memory);
}

static void growth(int rounds, int milliseconds)
{
    puts("\n### Growth: round trip of 5 B with many clients, both processes on one core\n\n"
         "An application's epoll loop drives the server. The clients are plain connections in one\n"
         "process, which sends on one after the other, in random order. The floor server finds\n"
         "a connection in one step: what the kernel needs for more of them is in both. Accept, "
         "login\n"
         "and close are the time inside the server's handler, the last ones, or the first to "
         "leave,\n"
         "to those with 15 clients.");
    std::vector<contender> list;
    for (int clients : {fewClients, fitting_clients(1000), fitting_clients(manyClients)}) {
        list.push_back({"floor", floor_serve_many, growth_request, false, clients});
        list.push_back({"library", library_serve_many, growth_request, false, clients});
        list.push_back({"library, heartbeats", library_serve_many, growth_request, true, clients});
    }
    const size_t kinds = 3;
    const auto results = measure(list.data(), list.size(), false, 5, false, rounds, milliseconds);
    puts("\n| clients | server | p50 µs | to the floor | over the same with 15 "
         "| resident memory, KiB a client | accept | login | close |\n"
         "|--:|---|--:|--:|--:|--:|--:|--:|--:|");
    FILE *plot = open_file("growth.dat");
    for (size_t i = 0; i < list.size(); i++) {
        const size_t floor = i - i % kinds;
        const figures &own = results[i], &few = results[i % kinds];
        const per_round toFloor = divided(own.roundMedian, results[floor].roundMedian);
        const double p50 = median(own.roundMedian) / 1000;
        if (i == floor)
            fprintf(plot, "\n%d", list[i].clients);
        fprintf(plot, " %.3f", p50);
        printf("| %d | %s | %.1f | %.2f | ", list[i].clients, list[i].name, p50, median(toFloor));
        if (i == floor || floor == 0)
            puts("| | | | |");
        else
            print_growth(list[i], own, few,
                         ratio_of(toFloor, divided(few.roundMedian, results[0].roundMedian)),
                         floor == 2 * kinds);
    }
    fclose(plot);
}

// Run one contender for exactly so many round trips; the caller counts what they need.
static void count(const std::string &name, long number)
{
    ticksLeft = number;
    theTask.payload = "count";
    theTask.len = 5;
    running pair = start(contenders[index_of(name)], false);
    await_byte(pair.fromClient, name.c_str());
    stop(pair);
}

int main(int argc, char **argv)
{
    const std::string what = argc > 1 ? argv[1] : "";
    if (argc == 4 && what == "count") {
        count(argv[2], atol(argv[3]));
        return EXIT_SUCCESS;
    }
    if (argc != 5)
        return EXIT_FAILURE;
    const int rounds = atoi(argv[2]);
    const int milliseconds = atoi(argv[3]);
    folder = argv[4];
    if (what == "roundtrip" || what == "oneway")
        compare_all(what == "oneway", rounds, milliseconds);
    else if (what == "growth")
        growth(rounds, milliseconds);
    else
        return EXIT_FAILURE;
    return EXIT_SUCCESS;
}
