// layer.cpp - the C++ layer against the C interface and libzmq, and under load, on one core.
//
// Speed  every contender has a server in a process of its own and a client in this one. They take
//        turns, many times; the best rates count, because other work on the machine only slows
//        them down.
// Load   a client's waits next to a crowd that misbehaves, compared with its waits without.
//
// Run it on one core: taskset -c 0 ./layer

#include <tolvane.h> // with the parts that the strangers use

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
static const int amounts[works] = {200, 5000, 5000};
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

// A process of its own. It reports one number, a port for example.
struct process {
    explicit process(const std::function<void()> &run)
    {
        check(pipe(ends) == 0, "pipe");
        if ((pid = fork()) == 0) {
            run();
            std::_Exit(0);
        }
        check(pid > 0 && read(ends[0], &number, sizeof(number)) == sizeof(number), "start");
    }
    process(process &&) = delete;
    ~process()
    {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    static void report(int value)
    {
        check(write(ends[1], &value, sizeof(value)) == sizeof(value), "report");
    }
    static inline int ends[2];
    pid_t pid;
    int number = 0;
};

// ---- the layer

static void layer_serve()
{
    tolvane::loop loop;
    tolvane::server server(loop);
    server.on_request([](tolvane::request request) {
        if (request.payload() == ask)
            check(bool(request.reply(ask)), "reply");
    });
    check(bool(server.listen("127.0.0.1", 0)), "listen");
    process::report(server.port());
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

static void c_serve()
{
    const int id = tv_start_server("127.0.0.1", 0), fd = tv_get_server_polling_fd();
    tv_register_actor(id, c_actor);
    tv_set_poll_timeout(id, 10000);
    tv_register_client_fd_open_callback(
        [](int pair) { tv_register_polling_fd(pair, tv_pair_fd_handler, 0, 0); });
    tv_register_polling_fd(fd, tv_server_fd_handler, 0, 0);
    sockaddr_in own{};
    socklen_t size = sizeof(own);
    getsockname(fd, reinterpret_cast<sockaddr *>(&own), &size);
    process::report(ntohs(own.sin_port));
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

static std::string zmq_url(int port)
{
    return "tcp://127.0.0.1:" + std::to_string(port);
}

static void zmq_serve()
{
    void *context = zmq_ctx_new();
    void *router = zmq_socket(context, ZMQ_ROUTER), *pull = zmq_socket(context, ZMQ_PULL);
    char text[64];
    std::size_t size = sizeof(text);
    check(zmq_bind(router, "tcp://127.0.0.1:*") == 0, "bind");
    zmq_getsockopt(router, ZMQ_LAST_ENDPOINT, text, &size);
    const int port = std::atoi(std::strrchr(text, ':') + 1);
    check(zmq_bind(pull, zmq_url(port + 1).c_str()) == 0, "bind");
    process::report(port);
    const auto answer = [&] {
        zmq_send(router, "bench", 5, ZMQ_SNDMORE);
        zmq_send(router, ask.data(), ask.size(), 0);
    };
    zmq_pollitem_t items[] = {{router, 0, ZMQ_POLLIN, 0}, {pull, 0, ZMQ_POLLIN, 0}};
    while (zmq_poll(items, 2, -1) > 0) {
        while (zmq_recv(router, text, sizeof(text), ZMQ_DONTWAIT) > 0) {
            zmq_recv(router, text, sizeof(text), 0); // the text after the name
            answer();
        }
        while (zmq_recv(pull, text, sizeof(text), ZMQ_DONTWAIT) > 0) {
            if (text[0] == '?')
                answer();
        }
    }
}

static runner zmq_client(int port)
{
    void *context = zmq_ctx_new();
    void *dealer = zmq_socket(context, ZMQ_DEALER), *push = zmq_socket(context, ZMQ_PUSH);
    zmq_setsockopt(dealer, ZMQ_IDENTITY, "bench", 5);
    zmq_connect(dealer, zmq_url(port).c_str());
    zmq_connect(push, zmq_url(port + 1).c_str());
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

static void measure_speed()
{
    const process servers[] = {process(layer_serve), process(c_serve), process(zmq_serve)};
    const runner clients[] = {layer_connect(servers[0].number), c_connect(servers[1].number),
                              zmq_client(servers[2].number)};
    double rates[3][works] = {};
    for (int turn = 0; turn < 150 * works * 3; turn++) {
        const int i = turn % 3, what = turn / 3 % works;
        if (i == 1 && what == window)
            continue; // the C interface has one request outstanding
        const double begin = now();
        clients[i](work(what), amounts[what]);
        rates[i][what] = std::max(rates[i][what], amounts[what] / (now() - begin));
    }
    const auto &[layer, c, zmq] = rates;
    for (int what = 0; what < works; what++)
        std::printf("5 B %-15s layer %9.0f/s   C %7.0f/s   libzmq %8.0f/s\n", work_names[what],
                    layer[what], c[what], zmq[what]);
    std::printf("round trip, layer / C: %.2f\n", c[one_by_one] / layer[one_by_one]);
    std::printf("64 outstanding / one by one: %.1f\n", layer[window] / layer[one_by_one]);
    std::printf("64 outstanding, layer / libzmq: %.2f\n", layer[window] / zmq[window]);
    std::printf("one-way, layer / C: %.1f, layer / libzmq: %.2f\n", layer[one_way] / c[one_way],
                layer[one_way] / zmq[one_way]);
}

// ---- load

struct load {
    int clients, stopped, halves; // log in and read; log in and read nothing; send half a frame
    bool broadcasts;              // 60 kB to all clients every 50 ms
};

struct waits {
    double shortest, longest, memory; // seconds, and KiB per client
};

// Clients without the layer, until the server is gone.
static void crowd(int port, const load &what)
{
    process::report(0);
    std::vector<pollfd> readers;
    for (int i = 0; i < what.clients + what.stopped + what.halves; i++) {
        const std::string url = "tcp://crowd:" + std::to_string(i);
        const std::string login =
            "0\nvelun_tolvane_login\n" + url + "\nvelun_tolvane_payload\n" + url;
        const int fd = impl_create_client_socket("127.0.0.1", port, 10000);
        const bool half = i >= what.clients + what.stopped;
        check(half ? write(fd, "TCP_WATER_MARK", 15) == 15
                   : tcp_impl_send_with_timeout(fd, login.data(), int(login.size()), 10000) > 0,
              "send");
        if (i < what.clients)
            readers.push_back({fd, POLLIN, 0});
    }
    static char taken[1 << 16];
    while (poll(readers.data(), readers.size(), -1) > 0) {
        for (const auto &reader : readers)
            check(reader.revents == 0 || read(reader.fd, taken, sizeof(taken)) > 0, "read");
    }
}

static double resident()
{
    double total, pages;
    std::ifstream("/proc/self/statm") >> total >> pages;
    return pages * double(sysconf(_SC_PAGESIZE)) / 1024;
}

// One client's waits for a second, while a server on the same loop serves a crowd.
static waits measure_waits(const load &what)
{
    tolvane::loop loop;
    tolvane::options many;
    many.max_clients = 20000;
    many.heartbeat = 0ms;
    tolvane::server server(loop, many);
    server.on_request([](tolvane::request request) { check(bool(request.reply(ask)), "reply"); });
    check(bool(server.listen("127.0.0.1", 0)), "listen");
    const double before = resident();
    const process strangers([&] { crowd(server.port(), what); });
    while (int(server.peers().size()) < what.clients + what.stopped)
        loop.run_once(1s);
    waits result{1e9, 0, (resident() - before) / what.clients};
    tolvane::client client(loop, {"127.0.0.1", server.port()}, {"healthy", 1});
    client.on_connected([&] { loop.stop(); });
    check(client.connect() && loop.run(), "connect");
    const auto beat = tolvane::timer::every(50ms, [&] {
        if (what.broadcasts)
            server.broadcast(std::string(60000, 'x'));
    });
    for (const double end = now() + 1; now() < end;) {
        const double sent = now();
        client.request(ask, 10s, [&](tolvane::response) { loop.stop(); });
        loop.run();
        result.shortest = std::min(result.shortest, now() - sent);
        result.longest = std::max(result.longest, now() - sent);
    }
    return result;
}

// Prints the waits with a load as multiples of those without, the best of five runs each.
static void compare(const char *name, const load &with, const load &without)
{
    waits best[2] = {{1e9, 1e9, 1e9}, {1e9, 1e9, 1e9}};
    for (int i = 0; i < 10; i++) {
        const waits one = measure_waits(i % 2 == 0 ? with : without);
        best[i % 2].shortest = std::min(best[i % 2].shortest, one.shortest);
        best[i % 2].longest = std::min(best[i % 2].longest, one.longest);
        best[i % 2].memory = std::min(best[i % 2].memory, one.memory);
    }
    std::printf("%-38s shortest wait %.2f, longest %.2f, %.1f KiB a client\n", name,
                best[0].shortest / best[1].shortest, best[0].longest / best[1].longest,
                best[0].memory);
}

int main(int count, char **)
{
    measure_speed();
    if (count > 1)
        return 0;
    compare("10,000 clients / 15", {10000, 0, 0, false}, {15, 0, 0, false});
    compare("broadcasts to 100, one stopped / none", {100, 1, 0, true}, {100, 0, 0, true});
    compare("50 half frames / none", {1, 0, 50, false}, {1, 0, 0, false});
}
