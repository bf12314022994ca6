// test_layer.cpp - tolvane.hpp: limits, what it refuses, its loop inside another one, random
// applications, and system calls that fail. fuzz_layer.cpp has the bad input; test_programs.py and
// test_peers.py have the other kinds of peers.

#include "layer_ends.h"

#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <functional>
#include <list>
#include <optional>
#include <poll.h>
#include <random>
#include <string.h>
#include <thread>

#define AWAIT(...)                                                                                 \
    ASSERT_TRUE(until(loop, [&] { return __VA_ARGS__; }))                                          \
        << #__VA_ARGS__ << ", notes: " << testing::PrintToString(notes)

struct Layer : testing::Test {
    Layer() { notes.clear(); }
    tolvane::loop loop;
};

// A plain link holds the next request back until the late reply is there, or the link is given up.
TEST_F(Layer, NeverTakesALateReplyForAnotherOne)
{
    const raw listener(listen_here());
    noting_client client(loop, port_of(listener.fd), "client", {10s});
    raw server(-1);
    AWAIT((server.fd = tcp_impl_accept_socket(listener.fd)) >= 0);
    server.send(frame("0\nvelun_tolvane_request\n") + acknowledgement); // the first one is ignored
    AWAIT(noted("client connected"));
    client.request("one", 50ms, note);
    client.request("two", 10s, note);
    AWAIT(server.hears("one") && noted("timed out"));
    EXPECT_FALSE(server.hears("two"));
    server.send(message(1, "reply", "late"));
    AWAIT(server.hears("two"));
    server.send(message(2, "reply", "in time"));
    AWAIT(noted("replied in time"));
    client.request("three", 50ms, note);
    AWAIT(noted("timed out") == 2 && noted("client lost") && server.ended());
    EXPECT_EQ(noted("replied late"), 0);
}

TEST_F(Layer, RefusesWhatCannotWorkAndSaysWhy)
{
    noting_server server(loop);
    const text here = "127.0.0.1", longest(tolvane::max_payload, 'x'), tag("velun_tolvane_logout");
    for (const auto &[host, name, why] :
         std::vector<std::array<text, 3>>{{"localhost", "a", "address"},
                                          {"1.2.3", "a", "address"},
                                          {here, text(60, 'x'), "name"},
                                          {here, "two\nlines", "name"},
                                          {here, tag, "name"}}) {
        const auto status = tolvane::client(loop, {host, 1}, {name, 1}).connect();
        EXPECT_EQ(status.error(), std::errc::invalid_argument) << host << ' ' << name;
        EXPECT_NE(text(status.what()).find(why), text::npos) << status.what();
    }
    EXPECT_FALSE(tolvane::server(loop).listen(here, 0)); // a process has one server

    server.on_request([&](tolvane::request request) { // answerable after a refusal
        const auto refusal = request.reply(longest + "x").error();
        EXPECT_EQ(refusal == std::errc::message_size, request.wants_reply());
        answering("server")(std::move(request));
    });
    for (const bool pipelined : {false, true}) { // the tag fits a pipelined link only
        noting_client client(loop, server.port(), "client", quick(pipelined));
        AWAIT(noted("client connected"));
        notes.clear();
        client.request(longest + "x", 5s, note);
        client.request(tag, 5s, note);
        EXPECT_EQ(client.tell(longest + "x").error(), std::errc::message_size);
        EXPECT_TRUE(notes.empty()) << "called from inside";
        EXPECT_TRUE(client.tell(longest));
        AWAIT(noted("server hears " + longest) && noted("refused") == 2 - pipelined);
        AWAIT(noted("replied server:" + tag) == pipelined);
    }
    tolvane::peer stale; // a handle that a client's callback got
    {
        noting_client client(loop, server.port(), "client");
        client.on_request([&](tolvane::request request) { stale = request.from(); });
        AWAIT(server.broadcast("x") > 0 && stale);
    }
    EXPECT_EQ(stale.tell("x").error(), std::errc::not_connected);
    server.stop();
    EXPECT_EQ(server.listen("localhost", 0).error(), std::errc::invalid_argument);
    const raw other(listen_here());
    EXPECT_EQ(server.listen(here, port_of(other.fd)).error(), std::errc::address_in_use);
}

TEST_F(Layer, LeavesClientsInTheBacklogAndTellsFullFromNever)
{
    tolvane::options little{10s};
    little.max_queued = 300000;
    little.max_clients = 1;
    noting_server server(loop, little);
    server.on_drained([](tolvane::peer) { notes.push_back("drained"); });
    std::optional<raw> slow(connect_to(server.port()));
    slow->send(login);
    AWAIT(noted("tcp://raw:1"));
    raw next(connect_to(server.port()));
    next.send(message(0, "login", "tcp://next:1~"));
    tolvane::peer peer = server.find("tcp://raw:1");
    tolvane::status told;
    for (int i = 0; i < 10000 && (told = peer.tell(text(60000, 'x'))); i++)
        loop.run_once(0ms);
    EXPECT_TRUE(told.full()) << told.what();
    EXPECT_LE(peer.queued(), little.max_queued + 65536);
    peer.request("too much", 5s, note);
    AWAIT(noted("refused"));
    notes.clear();
    AWAIT(!slow->ended() && noted("drained"));
    EXPECT_TRUE(peer.tell("again"));
    EXPECT_EQ(noted("tcp://next:1"), 0);
    slow.reset();
    AWAIT(noted("tcp://next:1"));
    EXPECT_FALSE(peer);
}

// A queue may be full of what waits for its turn. That says nothing about the other end.
TEST_F(Layer, KeepsALinkThatIsFullOfWaitingRequests)
{
    tolvane::options little{20ms};
    little.max_queued = 1000;
    little.pipelined = little.reconnect = false;
    noting_server server(loop, little);
    noting_client client(loop, server.port(), "client", little);
    EXPECT_TRUE(client.tell(text(2000, 'x'))); // before the login is sent
    AWAIT(noted("client connected"));
    std::vector<tolvane::request> kept;
    server.on_request([&](tolvane::request request) { kept.push_back(std::move(request)); });
    client.request("slow", 20s, note);
    client.request(text(2000, 'x'), 20s, note);
    const auto end = tolvane::timer::once(200ms, [] { notes.push_back("10 heartbeats later"); });
    AWAIT(noted("10 heartbeats later"));
    EXPECT_EQ(noted("client lost"), 0);
    server.stop();
    AWAIT(noted("client lost"));
}

// ---- the loop

TEST_F(Layer, RunsInsideAnotherLoopWithThreadsAndFiles)
{
    noting_server server(loop);
    noting_client client(loop, server.port(), "client");
    client.request("x", 5s, note);
    std::thread poster([&] {
        for (int i = 0; i < 100; i++)
            loop.post([] { notes.push_back("posted"); });
    });
    tolvane::timer twice;
    tolvane::timer ticks = tolvane::timer::every(5ms, [&] {
        notes.push_back("tick");
        if (noted("tick") == 3)
            ticks.stop();
    });
    twice = tolvane::timer::once(30ms, [&] { // replaces itself
        twice = tolvane::timer::once(1ms, [] { notes.push_back("second"); });
    });
    const raw file(open("/dev/null", O_RDONLY | O_CLOEXEC)); // always readable
    EXPECT_TRUE(loop.watch(file.fd, [&] {
        notes.push_back("file");
        loop.unwatch(file.fd);
    }));
    EXPECT_FALSE(loop.watch(-1, [] {}));
    const auto all = [] {
        return noted("replied server:x") && noted("posted") == 100 && noted("second");
    };
    for (int i = 0; i < 1000 && !all(); i++) { // fd() reports all that there is to wait for
        pollfd outer = {loop.fd(), POLLIN, 0};
        ASSERT_EQ(poll(&outer, 1, 10000), 1);
        loop.run_once(0ms);
    }
    poster.join();
    EXPECT_TRUE(all() && noted("tick") == 3 && noted("file") == 1 && !ticks && !twice);
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

// ---- random applications

// A client or a server, and its requests: each handler runs once, or is dropped uncalled when its
// owner is destroyed.
struct owner {
    int asked = 0, called = 0, dropped = 0;
    bool gone = false;
};

struct ticket {
    owner &of;
    bool used = false;
    ~ticket() { of.dropped += !used; }
};

// Three clients, two of one name, and a server do anything at any time, in all callbacks. A client or
// a server that is destroyed is replaced by a new one.
struct application {
    std::mt19937 random;
    std::list<owner> owners{1}; // the first one of requests to peers that have gone
    tolvane::loop loop = {};
    int budget = 1000, depth = 0; // acts left; callbacks inside each other
    owner *owner_of[4] = {};      // the clients and the server
    std::unique_ptr<tolvane::client> clients[3] = {};
    std::unique_ptr<tolvane::server> server = {};
    std::vector<tolvane::request> kept = {};
    std::list<tolvane::timer> timers = {};
    std::list<raw> strangers = {};
    const raw listener{listen_here()};

    size_t draw(size_t below) { return random() % below; }
    text payload() { return text(draw(4) == 0 ? 60000 : draw(50), 'x'); }
    auto acting(const owner *of = nullptr) // a callback, of a client or a server that exists
    {
        return [this, of](auto &&...) {
            REQUIRE(of == nullptr || !of->gone);
            act();
        };
    }
    template <class End> void request_by(End &end, owner *by)
    {
        by->asked++;
        const std::shared_ptr<ticket> one(new ticket{*by});
        end.request(payload(), milliseconds(draw(30)), [this, one](const tolvane::response &) {
            REQUIRE(!std::exchange(one->used, true) && !one->of.gone);
            one->of.called++;
            act();
        });
    }
    template <class End> void serve_by(End &end, size_t i)
    {
        if (owner_of[i] != nullptr)
            owner_of[i]->gone = true;
        owner_of[i] = &owners.emplace_back();
        end.on_drained(acting(owner_of[i]));
        end.on_request([this, of = owner_of[i]](tolvane::request request) {
            REQUIRE(!of->gone);
            const size_t way = draw(4); // the last one destroys it
            if (way == 0)
                kept.push_back(std::move(request));
            else if (way == 1)
                request.decline();
            else if (way == 2)
                (void)request.reply(payload());
            act();
        });
    }
    static tolvane::options settings(bool pipelined)
    {
        tolvane::options options = quick(pipelined);
        options.max_queued = 100000; // now and then it is full
        return options;
    }
    void make_server()
    {
        server.reset();
        server = std::make_unique<tolvane::server>(loop, settings(true));
        serve_by(*server, 3);
        server->on_login(acting(owner_of[3]));
        server->on_logout(acting(owner_of[3]));
        (void)server->listen("127.0.0.1", 0);
    }
    void make_client(size_t i)
    {
        const uint16_t port = draw(4) == 0 ? port_of(listener.fd) : server->port();
        clients[i] = std::make_unique<tolvane::client>(loop, tolvane::endpoint{"127.0.0.1", port},
                                                       tolvane::endpoint{i == 0 ? "a" : "b", 1},
                                                       settings(draw(2) == 0));
        serve_by(*clients[i], i);
        clients[i]->on_connected(acting(owner_of[i]));
        clients[i]->on_lost(acting(owner_of[i]));
        (void)clients[i]->connect();
    }
    void act_once()
    {
        const size_t i = draw(3);
        tolvane::client &client = *clients[i];
        std::vector<tolvane::peer> peers = server->peers();
        peers.emplace_back(); // who has gone
        tolvane::peer peer = peers[draw(peers.size())];
        const std::function<void()> acts[] = {
            [&] { make_client(i); },
            [&] { client.disconnect(); },
            [&] { (void)client.connect(); },
            [&] { (void)client.tell(payload()); },
            [&] { client.on_lost(acting(owner_of[i])); },
            [&] { make_server(); },
            [&] { server->stop(); },
            [&] { (void)server->listen("127.0.0.1", 0); },
            [&] { (void)server->broadcast(payload()); },
            [&] { peer.close(); },
            [&] { (void)peer.tell(payload()); },
            [&] { strangers.emplace_back(connect_to(server->port())).send(pipelined_login); },
            [&] {
                strangers.emplace_back(tcp_impl_accept_socket(listener.fd)).send(acknowledgement);
            },
            [&] { strangers.clear(); },
            [&] { kept.clear(); },
            [&] { // declined while the loop drops the task
                if (!kept.empty())
                    loop.post([dropped = std::move(kept.back())] {});
                kept.resize(kept.size() - !kept.empty());
            },
            [&] { kept.empty() ? void() : void(kept.back().reply(payload())); },
            [&] { timers.push_back(tolvane::timer::once(milliseconds(draw(5)), acting())); },
            [&] { timers.clear(); },
            [&] { loop.post(acting()); },
            [&] { loop.run_once(0ms); },
        };
        const size_t which = draw(2 * std::size(acts)); // half of what is done are requests
        if (which < std::size(acts))
            acts[which]();
        else if (draw(2) == 0)
            request_by(client, owner_of[i]);
        else
            request_by(peer, peer ? owner_of[3] : &owners.front());
    }
    void act()
    {
        if (++depth <= 3)
            for (size_t i = draw(3); i > 0 && budget > 0; i--, budget--)
                act_once();
        depth--;
    }

    // True if those that are left in the end get all results, and those destroyed at most one each.
    bool run()
    {
        make_server();
        for (size_t i = 0; i < 3; i++)
            make_client(i);
        for (; budget > 0; loop.run_once(0ms))
            act();
        const auto settled = [](const owner *of) { return of->called == of->asked; };
        const bool complete = until(loop, [&] {
            return settled(&owners.front()) && std::all_of(owner_of, owner_of + 4, settled);
        });
        server.reset();
        for (auto &client : clients)
            client.reset();
        loop.run_once(0ms); // drops what was posted for them
        return complete && std::all_of(owners.begin(), owners.end(), [](const owner &of) {
                   return of.called + of.dropped == of.asked;
               });
    }
};

static long open_descriptors()
{
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

TEST(LayerApplication, RunsEveryHandlerOnceWhateverCallbacksDo)
{
    const long descriptors = open_descriptors();
    owner all;
    for (unsigned seed = 1; seed <= 100; seed++) {
        application app{std::mt19937(seed)};
        EXPECT_TRUE(app.run()) << "seed " << seed;
        for (const owner &of : app.owners)
            all = {all.asked + of.asked, all.called + of.called, all.dropped + of.dropped};
    }
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_TRUE(all.called > 1000 && all.dropped > 100) << all.called << ' ' << all.dropped;
}

// ---- system calls that fail

static text faulty; // the call, which fails once, after so many that succeed
static int countdown, failure;

static bool fails(const char *call)
{
    errno = failure;
    return faulty == call && countdown-- == 0;
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
WRAP(int, timerfd_settime, (int fd, int flags, const itimerspec *now, itimerspec *before),
     (fd, flags, now, before))

// Each call fails once, early or late, while a client and a server talk. Either one of them says so
// at its start, or the request has one outcome, and the next one is answered.
TEST(LayerFaults, AreReportedOrSurvived)
{
    const std::pair<const char *, int> faults[] = {{"send", EAGAIN},
                                                   {"send", EINTR},
                                                   {"send", ECONNRESET},
                                                   {"recv", EAGAIN},
                                                   {"recv", EINTR},
                                                   {"recv", ECONNRESET},
                                                   {"socket", EMFILE},
                                                   {"connect", ECONNREFUSED},
                                                   {"connect", EINTR},
                                                   {"accept4", EMFILE},
                                                   {"accept4", ECONNABORTED},
                                                   {"accept4", EINTR},
                                                   {"epoll_ctl", ENOMEM},
                                                   {"epoll_create1", EMFILE},
                                                   {"epoll_wait", EINTR},
                                                   {"eventfd", EMFILE},
                                                   {"timerfd_create", EMFILE},
                                                   {"timerfd_settime", EINVAL}};
    const long descriptors = open_descriptors();
    for (const auto &[call, error] : faults)
        for (int nth = 0; nth == 0 || countdown < 0; nth++) {
            SCOPED_TRACE(testing::Message() << call << ' ' << strerror(error) << ' ' << nth);
            notes.clear();
            faulty = call, failure = error, countdown = nth;
            tolvane::loop loop;
            tolvane::server server(loop, quick());
            server.on_request(answering("server"));
            bool works = loop.fd() != -1 && server.listen("127.0.0.1", 0);
            tolvane::client client(loop, {"127.0.0.1", server.port()}, {"client", 1}, quick());
            works = works && client.connect();
            client.request("a", 5s, note);
            const auto outcomes = [] { return noted("replied server:a") + noted("lost"); };
            AWAIT(!works || outcomes() == 1);
            faulty.clear();
            client.request("b", 10s, note);
            AWAIT(!works || noted("replied server:b"));
            EXPECT_TRUE(outcomes() == works && (nth > 0 || countdown < 0));
        }
    EXPECT_EQ(open_descriptors(), descriptors);
}
