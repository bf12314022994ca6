// layer.cpp - the C++ layer against the C interface and libzmq, and under load, on one core.
//
// Every contender has a server and a client, two processes of their own, which work in turn, one
// contender at a time and several times over. The best rates count: other work on the machine only
// ever takes away. The load tests compare a client's waits with and without a crowd that
// misbehaves. Run it as: taskset -c 0 ./layer

#include <tolvane.hpp>

#include <csignal>
#include <cstdio>
#include <fstream>
#include <functional>
#include <poll.h>
#include <sys/wait.h>
#include <zmq.h>

using namespace std::chrono_literals;
using seconds = std::chrono::duration<double>;

enum work { one_by_one, window, one_way, works };
static const char *const work_names[works] = {"one by one", "64 outstanding", "one-way"};
static const int amounts[works] = {2000, 40000, 40000};
static const std::string_view ask = "?ping", note = "!ping"; // with a reply, and without

using runner = std::function<void(work, int amount)>;

static void check(bool good, const char *what)
{
    if (good)
        return;
    std::perror(what);
    std::abort();
}

static double now()
{
    return seconds(std::chrono::steady_clock::now().time_since_epoch()).count();
}

static int port_of(int fd)
{
    sockaddr_in own{};
    socklen_t size = sizeof(own);
    check(getsockname(fd, reinterpret_cast<sockaddr *>(&own), &size) == 0, "getsockname");
    return ntohs(own.sin_port);
}

static void put(int fd, double value)
{
    check(write(fd, &value, sizeof(value)) == sizeof(value), "write");
}

static double take(int fd)
{
    double value = 0;
    check(read(fd, &value, sizeof(value)) == sizeof(value), "read");
    return value;
}

// ---- the layer

static void layer_serve(int ready)
{
    tolvane::loop loop;
    tolvane::server server(loop);
    server.on_request([](tolvane::request request) {
        if (request.payload() == ask)
            check(bool(request.reply(ask)), "reply");
    });
    check(bool(server.listen("127.0.0.1", 0)), "listen");
    put(ready, server.port());
    loop.run();
}

static runner layer_connect(int port)
{
    static tolvane::loop loop;
    static tolvane::client client(loop, {"127.0.0.1", std::uint16_t(port)}, {"bench", 1});
    static int asked, replies;
    static std::function<void(int)> next = [](int target) {
        asked++;
        client.request(ask, 10s, [target](tolvane::response response) {
            check(bool(response), "reply");
            if (++replies == target)
                loop.stop();
            else if (asked < target)
                next(target);
        });
    };
    check(bool(client.connect()), "connect");
    return [](work what, int amount) {
        asked = replies = 0;
        for (int sent = 0; what == one_way && sent < amount; sent++) {
            while (!client.tell(note))
                loop.run_once(1s);
        }
        for (int i = 0; i < (what == window ? 64 : 1); i++)
            next(what == one_way ? 1 : amount);
        check(loop.run(), "run");
    };
}

// ---- the C interface

static int c_replies;

static int c_actor(int, const char *payload, int, char **reply, int *size)
{
    if (payload[0] == '?')
        *reply = strndup(ask.data(), std::size_t(*size = int(ask.size())));
    return TV_ACTOR_HANDLED;
}

static void c_serve(int ready)
{
    const int id = tv_start_server("127.0.0.1", 0), fd = tv_get_server_polling_fd();
    tv_register_actor(id, c_actor);
    tv_set_poll_timeout(id, 10000);
    tv_register_client_fd_open_callback(
        [](int pair) { tv_register_polling_fd(pair, tv_pair_fd_handler, 0, 0); });
    tv_register_polling_fd(fd, tv_server_fd_handler, 0, 0);
    put(ready, port_of(fd));
    tv_main_loop();
}

static runner c_connect(int port)
{
    tv_client_addr address{"127.0.0.1", "bench", std::uint16_t(port), 1};
    const int id = tv_create_client_channel(&address);
    tv_set_poll_timeout(id, 10000);
    tv_register_resp_handler(id, [](int, const char *, int) { c_replies++; });
    check(tv_connect_server(id) == 0, "connect");
    return [id](work what, int amount) {
        for (int sent = 0; what == one_way && sent < amount; sent++)
            check(tv_send_rqst(id, note.data(), int(note.size()), 0) == 0, "send");
        pollfd readable{tv_get_polling_fd(id), POLLIN, 0};
        c_replies = 0;
        for (int i = 0; i < (what == one_way ? 1 : amount); i++) {
            check(tv_send_rqst(id, ask.data(), int(ask.size()), 10000) == 0, "send");
            while (c_replies == i) { // as tv_main_loop does
                poll(&readable, 1, ruvo_timer_get_expected_interval());
                ruvo_fire_timer();
                tv_channel_fd_handler(readable.fd, id, 0);
            }
        }
    };
}

// ---- libzmq: DEALER and ROUTER, and PUSH and PULL for one-way messages

static std::string place(int port)
{
    return "tcp://127.0.0.1:" + (port > 0 ? std::to_string(port) : "*");
}

static void zmq_serve(int ready)
{
    void *context = zmq_ctx_new();
    void *router = zmq_socket(context, ZMQ_ROUTER), *pull = zmq_socket(context, ZMQ_PULL);
    char bound[64], text[64];
    std::size_t size = sizeof(bound);
    for (void *socket : {router, pull}) {
        check(zmq_bind(socket, place(0).c_str()) == 0, "bind");
        zmq_getsockopt(socket, ZMQ_LAST_ENDPOINT, bound, &(size = sizeof(bound)));
        put(ready, std::atoi(std::strrchr(bound, ':') + 1));
    }
    const auto answer = [&] {
        zmq_send(router, "bench", 5, ZMQ_SNDMORE);
        zmq_send(router, ask.data(), ask.size(), 0);
    };
    zmq_pollitem_t items[] = {{router, 0, ZMQ_POLLIN, 0}, {pull, 0, ZMQ_POLLIN, 0}};
    while (zmq_poll(items, 2, -1) > 0) {
        while (zmq_recv(router, text, sizeof(text), ZMQ_DONTWAIT) > 0) {
            zmq_recv(router, text, sizeof(text), 0); // the text behind the name
            answer();
        }
        while (zmq_recv(pull, text, sizeof(text), ZMQ_DONTWAIT) > 0) {
            if (text[0] == '?')
                answer();
        }
    }
}

static runner zmq_connect_pair(int port, int push_port)
{
    void *context = zmq_ctx_new();
    void *dealer = zmq_socket(context, ZMQ_DEALER), *push = zmq_socket(context, ZMQ_PUSH);
    zmq_setsockopt(dealer, ZMQ_IDENTITY, "bench", 5);
    zmq_connect(dealer, place(port).c_str());
    zmq_connect(push, place(push_port).c_str());
    return [=](work what, int amount) {
        char text[64];
        for (int sent = 1; what == one_way && sent <= amount; sent++) // the last one is answered
            zmq_send(push, sent < amount ? note.data() : ask.data(), ask.size(), 0);
        const int target = what == one_way ? 1 : amount, most = what == window ? 64 : 1;
        for (int asked = what == one_way ? 1 : 0, replies = 0; replies < target; replies++) {
            for (; asked < target && asked - replies < most; asked++)
                zmq_send(dealer, ask.data(), ask.size(), 0);
            zmq_recv(dealer, text, sizeof(text), 0);
        }
    };
}

// ---- speed

struct process {
    pid_t pid;
    int to, from;
};

// Run a function in a process of its own, with a pipe each way.
static process start(const std::function<void(int in, int out)> &run)
{
    int to[2], from[2];
    check(pipe(to) == 0 && pipe(from) == 0, "pipe");
    const pid_t pid = fork();
    if (pid == 0) {
        run(to[0], from[1]);
        std::_Exit(0);
    }
    check(pid > 0, "fork");
    return {pid, to[1], from[0]};
}

static void stop(process one)
{
    kill(one.pid, SIGKILL);
    waitpid(one.pid, nullptr, 0);
}

static void measure_speed()
{
    constexpr int contenders = 3; // layer, C interface, libzmq
    process servers[contenders], clients[contenders];
    double rates[contenders][works] = {};
    for (int i = 0; i < contenders; i++) {
        servers[i] = start([i](int, int out) {
            i == 0 ? layer_serve(out) : i == 1 ? c_serve(out) : zmq_serve(out);
        });
        const int port = int(take(servers[i].from));
        const int push_port = i == 2 ? int(take(servers[i].from)) : 0;
        clients[i] = start([=](int in, int out) {
            const runner run = i == 0   ? layer_connect(port)
                               : i == 1 ? c_connect(port)
                                        : zmq_connect_pair(port, push_port);
            for (;;) {
                const work what = work(take(in));
                const double begin = now();
                run(what, amounts[what]);
                put(out, amounts[what] / (now() - begin));
            }
        });
    }
    for (int turn = 0; turn < 15 * works * contenders; turn++) {
        const int i = turn % contenders, what = turn / contenders % works;
        if (i == 1 && what == window)
            continue; // the C interface has one request outstanding
        put(clients[i].to, what);
        rates[i][what] = std::max(rates[i][what], take(clients[i].from));
    }
    for (int what = 0; what < works; what++)
        std::printf("5 B %-15s %9.0f/s   C %7.0f/s   libzmq %8.0f/s\n", work_names[what],
                    rates[0][what], rates[1][what], rates[2][what]);
    std::printf("round trip, layer / C: %.2f\n", rates[1][one_by_one] / rates[0][one_by_one]);
    std::printf("64 outstanding / one by one: %.1f\n", rates[0][window] / rates[0][one_by_one]);
    std::printf("64 outstanding, layer / libzmq: %.2f\n", rates[0][window] / rates[2][window]);
    std::printf("one-way, layer / C: %.1f, layer / libzmq: %.2f\n",
                rates[0][one_way] / rates[1][one_way], rates[0][one_way] / rates[2][one_way]);
    for (int i = 0; i < contenders; i++)
        stop(clients[i]), stop(servers[i]);
}

// ---- load

// Connect as strangers: `count` log in and read whatever comes, one more stops reading, and
// `halves` send half a frame.
static void crowd(int port, int count, bool stopped, int halves)
{
    std::vector<pollfd> readers;
    for (int i = 0; i < count + stopped + halves; i++) {
        const std::string url = "tcp://crowd:" + std::to_string(i);
        const std::string login =
            "0\nvelun_tolvane_login\n" + url + "\nvelun_tolvane_payload\n" + url;
        std::string frame(36, '\0');
        std::strcpy(frame.data(), "TCP_WATER_MARK");
        frame[35] = char(login.size());
        frame += login;
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(std::uint16_t(port));
        to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const int fd = socket(AF_INET, SOCK_STREAM, 0);
        check(connect(fd, reinterpret_cast<sockaddr *>(&to), sizeof(to)) == 0, "connect");
        const std::size_t size = i < count + stopped ? frame.size() : frame.size() / 2;
        check(write(fd, frame.data(), size) == ssize_t(size), "write");
        if (i < count)
            readers.push_back({fd, POLLIN, 0});
    }
    static char taken[1 << 16];
    while (poll(readers.data(), readers.size(), -1) > 0) {
        for (const auto &reader : readers) {
            if (reader.revents != 0 && read(reader.fd, taken, sizeof(taken)) <= 0)
                return;
        }
    }
}

struct waits {
    double shortest, longest, memory; // seconds, and bytes per client
};

static double resident()
{
    double total, pages;
    std::ifstream("/proc/self/statm") >> total >> pages;
    return pages * double(sysconf(_SC_PAGESIZE));
}

// One client's waits for a second, while a server on the same loop serves a crowd.
static waits measure_waits(int count, bool stopped, int halves, bool broadcasts)
{
    tolvane::loop loop;
    tolvane::options many;
    many.max_clients = 20000;
    many.heartbeat = 0ms;
    tolvane::server server(loop, many);
    server.on_request([](tolvane::request request) { check(bool(request.reply(ask)), "reply"); });
    check(bool(server.listen("127.0.0.1", 0)), "listen");
    const double before = resident();
    const auto strangers = start([&](int, int) { crowd(server.port(), count, stopped, halves); });
    while (int(server.peers().size()) < count + stopped)
        loop.run_once(1s);
    waits result{1e9, 0, (resident() - before) / count};
    tolvane::client client(loop, {"127.0.0.1", server.port()}, {"healthy", 1});
    check(bool(client.connect()), "connect");
    client.on_connected([&] { loop.stop(); });
    loop.run();
    double sent = 0;
    auto beat = tolvane::timer::every(50ms, [&] {
        if (broadcasts)
            server.broadcast(std::string(60000, 'x'));
    });
    auto tick = tolvane::timer::every(1ms, [&] {
        if (sent > 0)
            return;
        sent = now();
        client.request(ask, 10s, [&](tolvane::response) {
            const double wait = now() - std::exchange(sent, 0);
            result.shortest = std::min(result.shortest, wait);
            result.longest = std::max(result.longest, wait);
        });
    });
    for (const double end = now() + 1; now() < end;)
        loop.run_once(10ms);
    stop(strangers);
    return result;
}

// The ratio of the best of several runs, one of them with and one without what is measured.
static double ratio(const std::function<double(bool bad)> &run)
{
    double best[2] = {1e9, 1e9};
    for (int i = 0; i < 10; i++)
        best[i % 2] = std::min(best[i % 2], run(i % 2 == 1));
    return best[1] / best[0];
}

int main()
{
    measure_speed();
    std::printf("10,000 clients: %.1f KiB each, shortest wait / with 15: %.2f\n",
                measure_waits(10000, false, 0, false).memory / 1024, ratio([](bool bad) {
                    return measure_waits(bad ? 10000 : 15, false, 0, false).shortest;
                }));
    std::printf("60 kB to 100 clients every 50 ms, one stopped: longest wait / without %.2f\n",
                ratio([](bool bad) { return measure_waits(100, bad, 0, true).longest; }));
    std::printf("50 half frames: longest wait / without %.2f\n", ratio([](bool bad) {
                    return measure_waits(1, false, bad ? 50 : 0, false).longest;
                }));
}
