// test_layer.cpp - tolvane.hpp: what it refuses, full queues and late replies, its loop inside
// another one, and random applications with failing system calls. fuzz_layer.cpp has the bad input;
// test_programs.py and test_peers.py have the other kinds of peers.

#include "layer_ends.h"

#include <gtest/gtest.h>

#include <functional>
#include <list>
#include <poll.h>
#include <random>
#include <thread>

#define AWAIT(...)                                                                                 \
    ASSERT_TRUE(until(loop, [&] { return bool(__VA_ARGS__); }))                                    \
        << #__VA_ARGS__ << ", notes: " << testing::PrintToString(notes)

// notes: the outcomes of a test's requests, "replied <payload>" and so on, and what it adds.
struct Layer : testing::Test {
    tolvane::loop loop;
    std::vector<text> notes;

    long noted(const text &note) const { return std::count(notes.begin(), notes.end(), note); }
    auto note()
    {
        return [this](const tolvane::response &response) {
            const text outcomes[] = {"replied ", "timed out", "lost", "declined", "refused"};
            notes.push_back(outcomes[int(response.outcome())] + text(response.payload()));
        };
    }
};

TEST_F(Layer, RefusesWhatCannotWorkAndSaysWhy)
{
    using std::errc;
    const text longest(tolvane::max_payload, 'x'), tag("velun_tolvane_logout");
    const text wrong[][3] = {{"localhost", "a", "address"},
                             {"1.2.3", "a", "address"},
                             {"127.0.0.1", text(60, 'x'), "name"},
                             {"127.0.0.1", "two\nlines", "name"},
                             {"127.0.0.1", tag, "name"}};
    for (const auto &[host, name, why] : wrong) {
        const tolvane::status status = tolvane::client(loop, {host, 1}, {name, 1}).connect();
        EXPECT_EQ(status.error(), errc::invalid_argument) << host << ' ' << name;
        EXPECT_NE(text(status.what()).find(why), text::npos) << status.what();
    }
    echo_server server(loop);
    EXPECT_FALSE(tolvane::server(loop).listen("127.0.0.1", 0)); // a process has one server
    server.on_request([&](tolvane::request request) {
        notes.push_back("heard " + text(request.payload()));
        const errc refusal = request.reply(longest + "x").error();
        // a refused reply leaves a request open; a one-way request never takes one
        EXPECT_EQ(refusal == errc::message_size, request.wants_reply());
        echo(std::move(request));
    });
    tolvane::options options;
    tolvane::peer stale;                         // a handle from a client's callback
    for (const bool pipelined : {false, true}) { // the tag fits a pipelined link only
        options.pipelined = pipelined;
        echo_client client(loop, server.port(), options);
        AWAIT(client);
        notes.clear();
        client.request(longest + "x", 5s, note());
        client.request(tag, 5s, note());
        EXPECT_EQ(client.tell(longest + "x").error(), errc::message_size);
        EXPECT_TRUE(notes.empty()) << "called from inside";
        EXPECT_TRUE(client.tell(longest));
        AWAIT(noted("heard " + longest) && noted("refused") == 2 - pipelined);
        AWAIT(noted("replied " + tag) == pipelined);
        client.on_request([&](tolvane::request request) { stale = request.from(); });
        AWAIT(server.broadcast("x") > 0 && stale);
    }
    EXPECT_EQ(stale.tell("x").error(), errc::not_connected);
    server.stop();
    EXPECT_EQ(server.listen("localhost", 0).error(), errc::invalid_argument);
    const raw other(raw::listening());
    EXPECT_EQ(server.listen("127.0.0.1", other.port()).error(), errc::address_in_use);
}

// A plain link holds further requests until the late reply arrives, and they may fill its queue: a
// full queue does not mean a dead peer. If the reply never comes, the link is closed.
TEST_F(Layer, NeverTakesALateReplyForAnotherOneAndTellsFullFromLost)
{
    tolvane::options plain{20ms};
    plain.pipelined = plain.reconnect = false, plain.late_reply = 300ms, plain.max_queued = 1000;
    echo_server server(loop, plain);
    std::vector<tolvane::request> kept;
    server.on_request([&](tolvane::request request) { kept.push_back(std::move(request)); });
    echo_client client(loop, server.port(), plain);
    client.on_drained([&] { notes.push_back("drained"); });
    client.request("slow", 200ms, note()); // 10 heartbeats
    client.request("next", 20s, note());
    client.request(text(2000, 'x'), 20s, note());
    client.request("too much", 20s, note());
    AWAIT(noted("timed out"));
    EXPECT_TRUE(client && noted("refused") && kept.size() == 1 && client.tell("too").full());
    EXPECT_TRUE(kept.at(0).reply("late"));
    AWAIT(kept.size() == 2);
    server.on_request(echo);
    EXPECT_TRUE(kept.at(1).reply("in time"));
    AWAIT(noted("replied in time") && noted("replied " + text(2000, 'x')));
    AWAIT(noted("drained") && !noted("replied late"));

    server.on_request([&](tolvane::request request) { kept.push_back(std::move(request)); });
    client.request("never answered", 50ms, note());
    client.request("held", 20s, note());
    AWAIT(!client && noted("timed out") == 2 && noted("lost") == 1);
}

// ---- the loop

TEST_F(Layer, RunsInsideAnotherLoopWithThreadsAndFiles)
{
    echo_server server(loop);
    echo_client client(loop, server.port());
    client.request("x", 5s, note());
    std::thread poster([&] {
        for (int i = 0; i < 100; i++)
            loop.post([&] { notes.push_back("posted"); });
    });
    tolvane::timer ticks = tolvane::timer::every(5ms, [&] {
        notes.push_back("tick");
        if (noted("tick") == 3)
            ticks.stop();
    });
    const tolvane::timer once = tolvane::timer::once(1ms, [] {});
    const raw file(open("/dev/null", O_RDONLY | O_CLOEXEC)); // always readable
    EXPECT_TRUE(loop.watch(file.fd, [&] {
        notes.push_back("file");
        loop.unwatch(file.fd);
    }));
    EXPECT_FALSE(loop.watch(-1, [] {}));
    const auto all = [&] {
        return noted("replied x") && noted("posted") == 100 && !ticks && !once;
    };
    for (int i = 0; i < 1000 && !all(); i++) { // fd() reports all that there is to wait for
        pollfd outer = {loop.fd(), POLLIN, 0};
        ASSERT_EQ(poll(&outer, 1, 10000), 1);
        loop.run_once(0ms);
    }
    poster.join();
    EXPECT_TRUE(all() && noted("tick") == 3 && noted("file") == 1);
    loop.post([&] { loop.stop(); });
    EXPECT_TRUE(loop.run());
}

// Two descriptors are ready in one round. The handler that runs first replaces the other descriptor
// with a new one of the same number, which is not ready.
TEST_F(Layer, ServesNoEventOfADescriptorsFormerOwner)
{
    const raw one(eventfd(1, EFD_NONBLOCK)), two(eventfd(1, EFD_NONBLOCK));
    const auto replace = [&](const raw &served, const raw &other) {
        loop.unwatch(served.fd);
        loop.unwatch(other.fd);
        close(other.fd);
        ASSERT_EQ(eventfd(0, EFD_NONBLOCK), other.fd);
        ASSERT_TRUE(loop.watch(other.fd, [] { FAIL() << "not ready"; }));
    };
    ASSERT_TRUE(loop.watch(one.fd, [&] { replace(one, two); }));
    ASSERT_TRUE(loop.watch(two.fd, [&] { replace(two, one); }));
    loop.run_once(0ms);
    loop.run_once(0ms);
}

// ---- random applications, whose system calls fail now and then

static text faulty;    // every fourth call of this system call fails
static int failure;    // with this errno
static unsigned calls; // of it so far

static bool fails(const char *call)
{
    errno = failure;
    return faulty == call && ++calls % 4 == 0;
}

#define WRAP(type, name, parameters, arguments)                                                    \
    extern "C" type __real_##name parameters;                                                      \
    extern "C" type __wrap_##name parameters                                                       \
    {                                                                                              \
        return fails(#name) ? -1 : __real_##name arguments;                                        \
    }
WRAP(ssize_t, send, (int fd, const void *bytes, size_t size, int flags), (fd, bytes, size, flags))
WRAP(ssize_t, recv, (int fd, void *bytes, size_t size, int flags), (fd, bytes, size, flags))
WRAP(int, socket, (int domain, int type, int protocol), (domain, type, protocol))
WRAP(int, connect, (int fd, const sockaddr *to, socklen_t size), (fd, to, size))
WRAP(int, accept4, (int fd, sockaddr *from, socklen_t *size, int flags), (fd, from, size, flags))
WRAP(int, epoll_create1, (int flags), (flags))
WRAP(int, epoll_wait, (int epoll, epoll_event *list, int size, int ms), (epoll, list, size, ms))
WRAP(int, eventfd, (unsigned count, int flags), (count, flags))
WRAP(int, timerfd_create, (int clock, int flags), (clock, flags))

// Only adding a descriptor needs memory.
extern "C" int __real_epoll_ctl(int epoll, int what, int fd, epoll_event *event);
extern "C" int __wrap_epoll_ctl(int epoll, int what, int fd, epoll_event *event)
{
    return what == EPOLL_CTL_ADD && fails("epoll_ctl") ? -1
                                                       : __real_epoll_ctl(epoll, what, fd, event);
}

using owner = std::weak_ptr<void>; // of a callback: a client, a server, or the application

// A server, two clients of it, and a client of a listening socket do anything at any time, in all
// callbacks. A client or a server that is destroyed is replaced by a new one. No callback runs
// after its owner is destroyed; a request's handler runs once, or is dropped with its owner. At the
// end the server still serves its clients.
struct application {
    static inline const uint16_t port = raw(raw::listening()).port(); // free now: the server's
    std::mt19937 random;
    tolvane::loop loop;
    int budget = 1000, depth = 0;          // acts left; nested callbacks
    int open = 0, number = 0, replies = 0; // handlers that exist; the last payload's number
    const std::shared_ptr<int> self = std::make_shared<int>();
    std::shared_ptr<tolvane::client> clients[3];
    std::shared_ptr<tolvane::server> server;
    std::vector<tolvane::request> kept;
    std::list<tolvane::timer> timers;
    // Raw sockets: some connect to the server and log in under the name of clients[1], tcp://raw:1;
    // the others are connections of clients[2], accepted from `listener`.
    std::list<raw> strangers;
    const raw listener{raw::listening()};

    explicit application(unsigned seed) : random(seed) {}
    size_t draw(size_t below) { return random() % below; }
    text payload(char kind) // '?': awaits a reply, '!': must not get one
    {
        return kind + std::to_string(++number) + text(draw(4) == 0 ? 60000 : draw(50), 'x');
    }
    auto acting(const owner &of) // a callback
    {
        return [this, of](auto &&...) {
            REQUIRE(!of.expired());
            act();
        };
    }
    template <class End> void ask(End &end, const owner &of)
    {
        open++;
        const std::shared_ptr<bool> called(new bool(false), [this, of](const bool *result) {
            REQUIRE(*result || of.expired());
            delete result;
            open--;
        });
        const text asked = payload('?');
        end.request(asked, milliseconds(draw(30)), [=](const tolvane::response &response) {
            REQUIRE(!of.expired() && !std::exchange(*called, true));
            REQUIRE(response.payload() == (response ? asked : ""));
            replies += bool(response);
            act();
        });
    }
    template <class End> void serve_with(const std::shared_ptr<End> &end)
    {
        end->on_drained(acting(end));
        end->on_request([this, of = owner(end)](tolvane::request request) {
            REQUIRE(!of.expired());
            const size_t way = request.payload()[0] == '!' ? 0 : budget == 0 ? 1 : draw(3);
            if (way == 1)
                echo(std::move(request));
            else if (way == 2)
                kept.push_back(std::move(request));
            act(); // a request that is still here is then destroyed
        });
    }
    // small limits; a heartbeat every 10 ms, or none during the test
    tolvane::options settings(bool pipelined)
    {
        return {draw(2) ? 10ms : 30s, 30s, 20ms, 2, pipelined, true, 100000, 3};
    }
    void make_server()
    {
        server.reset(new tolvane::server(loop, settings(true)));
        serve_with(server);
        server->on_login(acting(server));
        server->on_logout(acting(server));
        (void)server->listen("127.0.0.1", port);
    }
    void make_client(size_t i)
    {
        const tolvane::endpoint to{"127.0.0.1", i == 2 ? listener.port() : port};
        auto &client = clients[i];
        client.reset(new tolvane::client(loop, to, {i == 0 ? "a" : "raw", 1}, settings(draw(2))));
        serve_with(client);
        client->on_connected(acting(client));
        client->on_lost(acting(client));
        (void)client->connect();
    }
    void act_once()
    {
        const size_t i = draw(3);
        const auto client = clients[i].get();
        std::vector<tolvane::peer> peers = server->peers();
        peers.emplace_back(); // an empty handle
        tolvane::peer peer = peers[draw(peers.size())];
        const std::function<void()> acts[] = {
            [&] { ask(*client, clients[i]); },
            [&] { ask(peer, peer ? owner(server) : owner(self)); },
            [&] { make_client(i); },
            [&] { client->disconnect(); },
            [&] { (void)client->connect(); },
            [&] { (void)client->tell(payload('!')); },
            [&] { client->on_lost(acting(clients[i])); },
            [&] { make_server(); },
            [&] { server->stop(); },
            [&] { (void)server->listen("127.0.0.1", port); },
            [&] { (void)server->broadcast(payload('!')); },
            [&] { peer.close(); },
            [&] { (void)peer.tell(payload('!')); },
            [&] { strangers.emplace_back(raw::connected(port)).send(pipelined_login); },
            [&] { strangers.emplace_back(listener.next_client()).send(acknowledgement); },
            [&] { strangers.clear(); },
            [&] { kept.clear(); },
            [&] { kept.empty() ? void() : echo(std::move(kept.back())); },
            [&] { kept.empty() ? void() : kept.back().decline(); },
            [&] { kept.empty() ? void() : loop.post([dropped = std::move(kept.back())] {}); },
            [&] { timers.push_back(tolvane::timer::once(milliseconds(draw(5)), acting(self))); },
            [&] { timers.clear(); },
            [&] { loop.post(acting(self)); },
            [&] { loop.run_once(0ms); },
        };
        acts[draw(4) ? draw(2) : draw(std::size(acts))](); // three in four are requests
        REQUIRE(server->peers().size() <= 3);
        REQUIRE(clients[i]->queued() < 300000 && peer.queued() < 300000);
    }
    void act()
    {
        if (++depth <= 3)
            for (size_t i = draw(3); i > 0 && budget > 0; i--, budget--)
                act_once();
        depth--;
    }
    bool serves(size_t i)
    {
        const int before = replies;
        return until(loop, [&] {
            (void)server->listen("127.0.0.1", port);
            (void)clients[i]->connect();
            if (open == 0 && replies == before)
                ask(*clients[i], clients[i]);
            return open == 0 && replies > before;
        });
    }
    bool run()
    {
        if (!loop.run_once(0ms)) // it is closed
            return faulty != "";
        make_server();
        for (size_t i = 0; i < 3; i++)
            make_client(i);
        for (; budget > 0; loop.run_once(0ms))
            act();
        faulty.clear();
        kept.clear();
        strangers.clear();
        clients[2]->disconnect();
        return serves(0) && serves(1);
    }
};

TEST(LayerApplication, RunsEveryHandlerOnceWhateverCallbacksDoAndCallsFail)
{
    const text names[] = {"",           "send",    "recv",          "socket",
                          "connect",    "accept4", "epoll_ctl",     "epoll_create1",
                          "epoll_wait", "eventfd", "timerfd_create"};
    const int errors[] = {EAGAIN, EINTR, ECONNRESET, EMFILE, ENOMEM};
    const int lowest = raw(dup(0)).fd; // the lowest free descriptor: the same if nothing leaks
    for (unsigned seed = 0; seed < 110; seed++) {
        faulty = names[seed % 11];
        failure = errors[seed % 5];
        calls = seed;
        EXPECT_TRUE(application(seed).run()) << faulty << " seed " << seed;
        EXPECT_EQ(raw(dup(0)).fd, lowest);
    }
}
