// test_layer.cpp - tolvane.hpp: what it refuses, full queues and late replies, its loop inside
// another one, and random applications with failing system calls. fuzz_layer.cpp has the bad input;
// test_programs.py and test_peers.py have the other kinds of peers.

#include "layer_ends.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <poll.h>
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
        EXPECT_EQ(refusal == errc::message_size, request.wants_reply()); // still, or never
        echo(std::move(request));
    });
    tolvane::options options;
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
    }
    tolvane::peer stale; // a handle that a client's callback got
    {
        echo_client client(loop, server.port());
        client.on_request([&](tolvane::request request) { stale = request.from(); });
        AWAIT(server.broadcast("x") > 0 && stale);
    }
    EXPECT_EQ(stale.tell("x").error(), errc::not_connected);
    server.stop();
    EXPECT_EQ(server.listen("localhost", 0).error(), errc::invalid_argument);
    const raw other(raw::listening());
    EXPECT_EQ(server.listen("127.0.0.1", other.port()).error(), errc::address_in_use);
}

// A plain link holds requests back until a late reply is there, and may fill up with them. That
// says nothing about the other end. It is given up when the reply does not come at all.
TEST_F(Layer, NeverTakesALateReplyForAnotherOneAndTellsFullFromLost)
{
    tolvane::options plain{20ms};
    plain.pipelined = plain.reconnect = false, plain.late_reply = 300ms, plain.max_queued = 1000;
    echo_server server(loop, plain);
    std::vector<tolvane::request> kept;
    server.on_request([&](tolvane::request request) { kept.push_back(std::move(request)); });
    echo_client client(loop, server.port(), plain);
    client.on_drained([&] { notes.push_back("drained"); });
    EXPECT_TRUE(client.tell(text(2000, 'x'))); // before the login is sent
    EXPECT_TRUE(client.tell("full").full());
    AWAIT(noted("drained") && kept.size() == 1);
    kept.clear();

    client.request("slow", 200ms, note()); // 10 heartbeats
    client.request("next", 20s, note());
    client.request(text(2000, 'x'), 20s, note());
    client.request("too much", 20s, note());
    AWAIT(noted("timed out"));
    EXPECT_TRUE(client && noted("refused") && kept.size() == 1 && client.queued() == 2004);
    EXPECT_TRUE(kept.at(0).reply("late"));
    AWAIT(kept.size() == 2);
    server.on_request(echo);
    EXPECT_TRUE(kept.at(1).reply("in time"));
    AWAIT(noted("replied in time") && noted("replied " + text(2000, 'x')));
    AWAIT(noted("drained") == 2 && !noted("replied late"));

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
    const raw file(open("/dev/null", O_RDONLY | O_CLOEXEC)); // always readable
    EXPECT_TRUE(loop.watch(file.fd, [&] {
        notes.push_back("file");
        loop.unwatch(file.fd);
    }));
    EXPECT_FALSE(loop.watch(-1, [] {}));
    const auto all = [&] { return noted("replied x") && noted("posted") == 100 && !ticks; };
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

// Two descriptors are ready in one round. Whoever is served first replaces the other one by a new
// one of the same number, which is not ready.
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

static text faulty; // every tenth call of this one fails, with an errno of
static int failure;
static unsigned calls; // of this one

static bool fails(const char *call)
{
    errno = failure;
    return faulty == call && ++calls % 10 == 0;
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
WRAP(int, epoll_ctl, (int epoll, int what, int fd, epoll_event *event), (epoll, what, fd, event))
WRAP(int, epoll_wait, (int epoll, epoll_event *list, int size, int ms), (epoll, list, size, ms))
WRAP(int, eventfd, (unsigned count, int flags), (count, flags))
WRAP(int, timerfd_create, (int clock, int flags), (clock, flags))

using existence = std::shared_ptr<bool>; // false once a client or server is destroyed

template <class End> struct mortal : End {
    using End::End;
    ~mortal() { *exists = false; }
    const existence exists = std::make_shared<bool>(true);
};

// Belongs to a request's handler, which runs once, or is dropped uncalled with its owner.
struct ticket {
    const existence owner;
    int &open;
    bool used = false;

    ~ticket()
    {
        REQUIRE(used || !*owner);
        open--;
    }
};

// A server, two clients of it, and one of a listening socket do anything at any time, in all
// callbacks. A client or a server that is destroyed is replaced by a new one. In the end every
// request has had its outcome, and the server's clients are served.
struct application {
    std::mt19937 random;
    tolvane::loop loop = {};
    int budget = 1000, depth = 0;          // acts left; callbacks inside each other
    int open = 0, number = 0, replies = 0; // tickets; the last payload
    uint16_t port = 0;                     // the server's, always the same
    std::unique_ptr<mortal<tolvane::client>> clients[3] = {};
    std::unique_ptr<mortal<tolvane::server>> server = {};
    std::vector<tolvane::request> kept = {};
    std::list<tolvane::timer> timers = {};
    std::list<raw> strangers = {}; // with one name, which is also that of a client
    const raw listener{raw::listening()};

    static tolvane::options settings(bool pipelined) // short times and small limits
    {
        return {10ms, 500ms, 20ms, 2, pipelined, true, 100000, 3};
    }
    size_t draw(size_t below) { return random() % below; }
    text payload(char kind) // '?': awaits a reply, '!': must not get one
    {
        return kind + std::to_string(++number) + text(draw(4) == 0 ? 60000 : draw(50), 'x');
    }
    auto acting(const existence &exists = std::make_shared<bool>(true)) // a callback
    {
        return [this, exists](auto &&...) {
            REQUIRE(*exists);
            act();
        };
    }
    template <class End> void ask(End &end, const existence &owner)
    {
        const text asked = payload('?');
        const std::shared_ptr<ticket> one(new ticket{owner, ++open});
        end.request(asked, milliseconds(draw(30)), [=](const tolvane::response &response) {
            REQUIRE(*one->owner && !std::exchange(one->used, true));
            REQUIRE(response.payload() == (response ? asked : ""));
            replies += bool(response);
            act();
        });
    }
    template <class End> void serve(End &end)
    {
        end.on_drained(acting(end.exists));
        end.on_request([this, exists = end.exists](tolvane::request request) {
            REQUIRE(*exists);
            const size_t way = request.payload()[0] == '!' ? 0 : budget == 0 ? 1 : draw(4);
            if (way == 1)
                echo(std::move(request));
            else if (way == 2)
                kept.push_back(std::move(request));
            else if (way == 3)
                request.decline();
            act(); // and a request that is left is destroyed
        });
    }
    void make_server()
    {
        server.reset();
        server = std::make_unique<mortal<tolvane::server>>(loop, settings(true));
        serve(*server);
        server->on_login(acting(server->exists));
        server->on_logout(acting(server->exists));
        listen();
    }
    void listen()
    {
        if (server->listen("127.0.0.1", port))
            port = server->port();
    }
    void make_client(size_t i)
    {
        clients[i] = std::make_unique<mortal<tolvane::client>>(
            loop, tolvane::endpoint{"127.0.0.1", i == 2 ? listener.port() : port},
            tolvane::endpoint{i == 0 ? "a" : "raw", 1}, settings(draw(2)));
        serve(*clients[i]);
        clients[i]->on_connected(acting(clients[i]->exists));
        clients[i]->on_lost(acting(clients[i]->exists));
        (void)clients[i]->connect();
    }
    void act_once()
    {
        const size_t i = draw(3);
        auto &client = *clients[i];
        std::vector<tolvane::peer> peers = server->peers();
        peers.emplace_back(); // who has gone
        tolvane::peer peer = peers[draw(peers.size())];
        const std::function<void()> acts[] = {
            [&] { make_client(i); },
            [&] { client.disconnect(); },
            [&] { (void)client.connect(); },
            [&] { (void)client.tell(payload('!')); },
            [&] { client.on_lost(acting(client.exists)); },
            [&] { make_server(); },
            [&] { server->stop(); },
            [&] { listen(); },
            [&] { (void)server->broadcast(payload('!')); },
            [&] { peer.close(); },
            [&] { (void)peer.tell(payload('!')); },
            [&] { strangers.emplace_back(raw::connected(port)).send(pipelined_login); },
            [&] { strangers.emplace_back(listener.next_client()).send(acknowledgement); },
            [&] { strangers.clear(); },
            [&] { kept.clear(); },
            [&] { kept.empty() ? void() : echo(std::move(kept.back())); },
            [&] { timers.push_back(tolvane::timer::once(milliseconds(draw(5)), acting())); },
            [&] { timers.clear(); },
            [&] { loop.post(acting()); },
            [&] { loop.run_once(0ms); },
        };
        const size_t which = draw(2 * std::size(acts)); // half of what is done are requests
        if (which < std::size(acts))
            acts[which]();
        else if (draw(2) == 0)
            ask(client, client.exists);
        else
            ask(peer, peer ? server->exists : std::make_shared<bool>(true));
        REQUIRE(server->peers().size() <= 3 && clients[i]->queued() < 300000);
    }
    void act()
    {
        if (++depth <= 3)
            for (size_t i = draw(3); i > 0 && budget > 0; i--, budget--)
                act_once();
        depth--;
    }
    bool run()
    {
        make_server();
        if (loop.fd() == -1 || port == 0) // it says so
            return faulty != "";
        for (size_t i = 0; i < 3; i++)
            make_client(i);
        for (; budget > 0; loop.run_once(0ms))
            act();
        faulty.clear();
        kept.clear();
        strangers.clear();
        clients[2]->disconnect();
        (void)server->listen("127.0.0.1", port);
        const auto served = [&](auto &client) {
            const int before = replies;
            (void)client->connect();
            return until(loop, [&] {
                if (open == 0 && replies == before)
                    ask(*client, client->exists);
                return open == 0 && replies > before;
            });
        };
        return until(loop, [&] { return open == 0; }) && served(clients[0]) && served(clients[1]);
    }
};

static long open_descriptors()
{
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

TEST(LayerApplication, RunsEveryHandlerOnceWhateverCallbacksDoAndCallsFail)
{
    const long descriptors = open_descriptors();
    unsigned seed = 0;
    for (const char *call : {"", "send", "recv", "socket", "connect", "accept4", "epoll_create1",
                             "epoll_ctl", "epoll_wait", "eventfd", "timerfd_create"})
        for (const int error : {EAGAIN, EINTR, ECONNRESET, EMFILE, ENOMEM})
            for (int round = 0; round < 2; round++) {
                faulty = call, failure = error, calls = ++seed;
                EXPECT_TRUE(application{std::mt19937(seed)}.run())
                    << call << ' ' << error << ' ' << seed;
            }
    EXPECT_EQ(open_descriptors(), descriptors);
}
