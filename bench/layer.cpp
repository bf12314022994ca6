// layer.cpp - the C++ layer against the C interface and libzmq, on one core.
//
// Every contender is a server and a client, two processes of their own. The parent has one client
// work at a time, all of them in turn, several times over, and prints ratios of the best times:
// noise of the machine only ever adds. Run it alone, for example: taskset -c 0 bench/layer

#include <tolvane.hpp>

#include <csignal>
#include <cstdio>
#include <functional>
#include <sys/wait.h>
#include <zmq.h>

using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;

// What a client is told to do. The first byte of a payload says whether a reply is awaited.
enum work { one_by_one, window, one_way, works };
static const char *const work_names[works] = {"5 B, one after the other", "5 B, 64 outstanding",
                                              "5 B, one way"};
static const int amounts[works] = {2000, 40000, 40000};
static const std::string_view ask = "?ping", tell = "!ping";
static constexpr int outstanding = 64;

struct contender {
    const char *name;
    void (*serve)(std::function<void(int port)> ready);
    std::function<void(work, int amount)> (*connect)(int port);
};

static void check(bool good, const char *what)
{
    if (good)
        return;
    std::perror(what);
    std::abort();
}

// ---- the layer

static void layer_serve(std::function<void(int)> ready)
{
    tolvane::loop loop;
    tolvane::server server(loop);
    server.on_request([](tolvane::request request) {
        if (request.payload() == ask)
            check(bool(request.reply(ask)), "reply");
    });
    check(bool(server.listen("127.0.0.1", 0)), "listen");
    ready(server.port());
    loop.run();
}

static std::function<void(work, int)> layer_connect(int port)
{
    static tolvane::loop loop;
    static tolvane::client client(loop, {"127.0.0.1", std::uint16_t(port)}, {"bench", 1});
    client.on_connected([] { loop.stop(); });
    check(client.connect() && loop.run(), "connect");
    return [](work what, int amount) {
        static int asked, replies, target;
        static std::function<void()> next = [] {
            asked++;
            client.request(ask, 10s, [](tolvane::response response) {
                check(bool(response), "reply");
                if (++replies == target)
                    loop.stop();
                else if (asked < target)
                    next();
            });
        };
        asked = replies = 0;
        target = what == one_way ? 1 : amount;
        for (int sent = 0; what == one_way && sent < amount; sent++) {
            while (!client.tell(tell))
                loop.run_once(1s);
        }
        for (int i = 0; i < (what == window ? outstanding : 1); i++)
            next();
        check(loop.run(), "run");
    };
}

// ---- the C interface

static int c_replies;

static int c_actor(int, const char *payload, int, char **reply, int *size)
{
    if (payload[0] == '?') {
        *reply = strdup("?ping");
        *size = 5;
    }
    return TV_ACTOR_HANDLED;
}

static void c_serve(std::function<void(int)> ready)
{
    const int id = tv_start_server("127.0.0.1", 0);
    tv_register_actor(id, c_actor);
    tv_set_poll_timeout(id, 10000);
    tv_register_client_fd_open_callback(
        [](int fd) { tv_register_polling_fd(fd, tv_pair_fd_handler, 0, 0); });
    sockaddr_in own{};
    socklen_t size = sizeof(own);
    getsockname(tv_get_server_polling_fd(), reinterpret_cast<sockaddr *>(&own), &size);
    tv_register_polling_fd(tv_get_server_polling_fd(), tv_server_fd_handler, 0, 0);
    ready(ntohs(own.sin_port));
    tv_main_loop();
}

static std::function<void(work, int)> c_connect(int port)
{
    tv_client_addr address{"127.0.0.1", "bench", std::uint16_t(port), 1};
    const int id = tv_create_client_channel(&address);
    tv_set_poll_timeout(id, 10000);
    tv_register_resp_handler(id, [](int, const char *, int) { c_replies++; });
    check(tv_connect_server(id) == 0, "connect");
    return [id](work what, int amount) {
        for (int sent = 0; what == one_way && sent < amount; sent++)
            check(tv_send_rqst(id, tell.data(), 5, 0) == 0, "send");
        c_replies = 0;
        for (int i = 0; i < (what == one_way ? 1 : amount); i++) {
            check(tv_send_rqst(id, ask.data(), 5, 10000) == 0, "send");
            pollfd readable{tv_get_polling_fd(id), POLLIN, 0};
            while (c_replies == i) { // as tv_main_loop does
                poll(&readable, 1, ruvo_timer_get_expected_interval());
                ruvo_fire_timer();
                tv_channel_fd_handler(readable.fd, id, 0);
            }
        }
    };
}

// ---- libzmq: requests through DEALER and ROUTER, one-way through PUSH and PULL

static void zmq_serve(std::function<void(int)> ready)
{
    void *context = zmq_ctx_new(), *router = zmq_socket(context, ZMQ_ROUTER);
    void *pull = zmq_socket(context, ZMQ_PULL);
    char place[64];
    std::size_t size = sizeof(place);
    zmq_bind(router, "tcp://127.0.0.1:*");
    zmq_getsockopt(router, ZMQ_LAST_ENDPOINT, place, &size);
    const int port = std::atoi(std::strrchr(place, ':') + 1);
    check(zmq_bind(pull, ("tcp://127.0.0.1:" + std::to_string(port + 1)).c_str()) == 0, "bind");
    ready(port);
    zmq_pollitem_t items[] = {{router, 0, ZMQ_POLLIN, 0}, {pull, 0, ZMQ_POLLIN, 0}};
    char name[256], text[64];
    for (;;) {
        zmq_poll(items, 2, -1);
        int length;
        while ((length = zmq_recv(router, name, sizeof(name), ZMQ_DONTWAIT)) > 0) {
            zmq_recv(router, text, sizeof(text), 0);
            zmq_send(router, name, std::size_t(length), ZMQ_SNDMORE);
            zmq_send(router, ask.data(), 5, 0);
        }
        while (zmq_recv(pull, text, sizeof(text), ZMQ_DONTWAIT) > 0) {
            if (text[0] == '?') // the last of them: the client waits for it at the router
                zmq_send(router, name, std::size_t(length = 5), ZMQ_SNDMORE),
                    zmq_send(router, ask.data(), 5, 0);
        }
    }
}

static std::function<void(work, int)> zmq_connect(int port)
{
    void *context = zmq_ctx_new(), *dealer = zmq_socket(context, ZMQ_DEALER);
    void *push = zmq_socket(context, ZMQ_PUSH);
    zmq_setsockopt(dealer, ZMQ_IDENTITY, "bench", 5);
    zmq_connect(dealer, ("tcp://127.0.0.1:" + std::to_string(port)).c_str());
    zmq_connect(push, ("tcp://127.0.0.1:" + std::to_string(port + 1)).c_str());
    return [=](work what, int amount) {
        char text[64];
        int asked = 0, replies = 0;
        for (int sent = 0; what == one_way && sent < amount; sent++)
            zmq_send(push, sent + 1 < amount ? tell.data() : ask.data(), 5, 0);
        const int target = what == one_way ? 1 : amount;
        while (replies < target) {
            while (what != one_way && asked < target &&
                   asked - replies < (what == window ? outstanding : 1))
                asked += zmq_send(dealer, ask.data(), 5, 0) == 5 ? 1 : 0;
            replies += zmq_recv(dealer, text, sizeof(text), 0) == 5 ? 1 : 0;
        }
    };
}

// ---- the comparison

static const contender contenders[] = {{"layer", layer_serve, layer_connect},
                                       {"C interface", c_serve, c_connect},
                                       {"libzmq", zmq_serve, zmq_connect}};

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
    check(pid >= 0, "fork");
    if (pid == 0) {
        run(to[0], from[1]);
        std::_Exit(0);
    }
    close(to[0]);
    close(from[1]);
    return {pid, to[1], from[0]};
}

template <class Value> static void put(int fd, Value value)
{
    check(write(fd, &value, sizeof(value)) == sizeof(value), "write");
}

template <class Value> static Value take(int fd)
{
    Value value{};
    check(read(fd, &value, sizeof(value)) == sizeof(value), "read");
    return value;
}

static process start_server(const contender &one)
{
    return start([&](int, int out) { one.serve([&](int port) { put(out, port); }); });
}

static process start_client(const contender &one, int port)
{
    return start([&](int in, int out) {
        const auto run = one.connect(port);
        for (;;) {
            const auto what = take<work>(in);
            const auto begin = clock_type::now();
            run(what, amounts[what]);
            put(out, std::chrono::duration<double>(clock_type::now() - begin).count());
        }
    });
}

int main()
{
    constexpr int count = sizeof(contenders) / sizeof(contenders[0]);
    process servers[count], clients[count];
    double best[count][works] = {};
    for (int i = 0; i < count; i++) {
        servers[i] = start_server(contenders[i]);
        clients[i] = start_client(contenders[i], take<int>(servers[i].from));
    }
    for (int round = 0; round < 15; round++) {
        for (int what = 0; what < works; what++) {
            for (int i = 0; i < count; i++) {
                if (i == 1 && what == window)
                    continue; // one request at a time
                put(clients[i].to, work(what));
                const double rate = amounts[what] / take<double>(clients[i].from);
                best[i][what] = std::max(best[i][what], rate);
            }
        }
    }
    for (int what = 0; what < works; what++) {
        std::printf("%-26s", work_names[what]);
        for (int i = 0; i < count; i++)
            std::printf(" %s %.0f/s", contenders[i].name, best[i][what]);
        std::printf("\n");
    }
    std::printf("round trip layer/C %.3f\n", best[1][0] / best[0][0]);
    std::printf("64 outstanding / sequential %.1f\n", best[0][1] / best[0][0]);
    std::printf("64 outstanding layer/zmq %.2f\n", best[0][1] / best[2][1]);
    std::printf("one way layer/C %.1f layer/zmq %.2f\n", best[0][2] / best[1][2],
                best[0][2] / best[2][2]);
    for (int i = 0; i < count; i++) {
        kill(clients[i].pid, SIGKILL);
        kill(servers[i].pid, SIGKILL);
    }
}
