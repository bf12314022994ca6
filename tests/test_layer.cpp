// test_layer.cpp - tolvane.hpp: with the C interface at the other end, with what it has to refuse,
// with hostile peers, with random applications, and with system calls that fail. The peers in Python
// are in test_peers.py.

#include "layer_ends.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <list>
#include <poll.h>
#include <random>
#include <string.h>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <thread>

#define AWAIT(...)                                                                                 \
    ASSERT_TRUE(until(loop, [&] { return __VA_ARGS__; }))                                          \
        << #__VA_ARGS__ << ", notes: " << testing::PrintToString(notes)

struct Layer : testing::Test {
    void SetUp() override
    {
        notes.clear();
    }
    void idle() // with nothing but heartbeats
    {
        bool over = false;
        const auto timer = tolvane::timer::once(700ms, [&] { over = true; });
        AWAIT(over);
    }
    tolvane::loop loop;
};

// ---- the C interface at the other end

static std::function<void(int fd, tv_fd_handler handler, int id)> watch;
static std::function<void(int fd)> unwatch;

static int c_answer(int, const char *payload, int len, char **reply, int *replyLen)
{
    const text whole = "c:" + text(payload, static_cast<size_t>(len));
    notes.push_back("c hears " + whole.substr(2));
    *reply = strdup(whole.c_str());
    *replyLen = static_cast<int>(whole.size());
    return TV_ACTOR_HANDLED;
}

static void c_replied(int, const char *payload, int len)
{
    notes.push_back("replied " + text(payload, static_cast<size_t>(len)));
}

static void c_lost(int id, const char *url)
{
    notes.push_back(text(url) + " lost");
    unwatch(tv_get_polling_fd(id));
    tv_close_channel(id);
}

struct LayerAndC : Layer {
    LayerAndC()
    {
        watch = [this](int fd, tv_fd_handler handler, int id) {
            ASSERT_TRUE(loop.watch(fd, [=] { handler(fd, id, 0); }));
        };
        unwatch = [this](int fd) { loop.unwatch(fd); };
    }
    static void set_up(int id)
    {
        tv_register_actor(id, c_answer);
        tv_register_resp_handler(id, c_replied);
        tv_set_poll_timeout(id, 5000);
    }
};

// Requests both ways at the same time, a broadcast, a while with nothing but heartbeats, logouts.
TEST_F(LayerAndC, AServerHasClientsOfAllKinds)
{
    noting_server server(loop);
    noting_client fast(loop, server.port(), "fast"),
        plain(loop, server.port(), "plain", quick(false));
    const tv_client_addr address = {"127.0.0.1", "c", server.port(), 1};
    const int c = tv_create_client_channel(&address);
    set_up(c);
    tv_client_enable_heartbeat(c, 200, 2, c_lost);
    ASSERT_EQ(tv_connect_server(c), 0);
    watch(tv_get_polling_fd(c), tv_channel_fd_handler, c);
    AWAIT(server.peers().size() == 3 && noted("fast connected") && noted("plain connected"));
    for (int round = 1; round <= 2; round++) {
        fast.request("f", 5s, note);
        plain.request("p", 5s, note);
        EXPECT_EQ(tv_send_rqst(c, "c", 1, 5000), 0);
        for (const text name : {"fast", "plain", "c"})
            server.find("tcp://" + name + ":1").request("x", 5s, note);
        for (const text reply : {"server:f", "server:p", "server:c", "fast:x", "plain:x", "c:x"})
            AWAIT(noted("replied " + reply) == round);
        idle();
    }
    EXPECT_EQ(server.broadcast("news"), 3u);
    AWAIT(noted("fast hears news") && noted("plain hears news") && noted("c hears news"));
    fast.disconnect();
    plain.disconnect();
    EXPECT_EQ(tv_disconnect_server(c), 0);
    for (const text name : {"fast", "plain", "c"})
        AWAIT(noted("tcp://" + name + ":1 logged out"));
    EXPECT_TRUE(server.peers().empty());
    unwatch(tv_get_polling_fd(c));
    tv_close_channel(c);
}

TEST_F(LayerAndC, AClientHasAServerOfTheCInterface)
{
    const int server = tv_start_service_server("127.0.0.1", 0, c_replied, nullptr, nullptr);
    set_up(server);
    tv_register_disconnected_callback(
        server, [](int, const char *url) { notes.push_back(text(url) + " logged out"); });
    tv_register_client_fd_open_callback([](int fd) { watch(fd, tv_pair_fd_handler, 0); });
    tv_register_client_fd_close_callback([](int fd) { unwatch(fd); });
    tv_service_enable_heartbeat(200, 2, c_lost);
    const int listening = tv_get_server_polling_fd();
    watch(listening, tv_server_fd_handler, 0);
    noting_client eager(loop, port_of(listening), "eager"),
        plain(loop, port_of(listening), "plain", quick(false));
    for (tolvane::client *client :
         {static_cast<tolvane::client *>(&eager), static_cast<tolvane::client *>(&plain)})
        for (const char *const what : {"a", "b", "c"}) // one after the other on the wire
            client->request(what, 5s, note);
    AWAIT(tv_get_client_channel("eager", 1) != -1 && tv_get_client_channel("plain", 1) != -1);
    for (const char *const name : {"eager", "plain"})
        EXPECT_EQ(tv_send_rqst(tv_get_client_channel(name, 1), "x", 1, 5000), 0);
    for (const text reply : {"c:a", "c:b", "c:c"})
        AWAIT(noted("replied " + reply) == 2);
    AWAIT(noted("replied eager:x") && noted("replied plain:x"));
    idle();
    eager.disconnect();
    AWAIT(noted("tcp://eager:1 logged out"));
    EXPECT_EQ(noted("eager lost") + noted("plain lost") + noted("tcp://plain:1 lost"), 0);
    unwatch(listening);
    tv_stop_server();
    tv_register_client_fd_open_callback(nullptr);
    tv_register_client_fd_close_callback(nullptr);
}

// ---- what the layer refuses

TEST_F(Layer, RefusesBadNamesAndAddresses)
{
    noting_server server(loop);
    const text here = "127.0.0.1";
    const struct {
        text host, name, why;
    } cases[] = {{"localhost", "a", "address"}, {"1.2.3", "a", "address"},
                 {"", "a", "address"},          {here, text(60, 'x'), "name"},
                 {here, "two\nlines", "name"},  {here, "velun_tolvane_login", "name"}};
    for (const auto &each : cases) {
        const tolvane::status status =
            tolvane::client(loop, {each.host, 1}, {each.name, 1}).connect();
        EXPECT_EQ(status.error(), std::errc::invalid_argument) << each.host << each.name;
        EXPECT_NE(text(status.what()).find(each.why), text::npos) << status.what();
    }
    EXPECT_FALSE(tolvane::server(loop).listen(here, 0)); // a process has one server
    server.stop();
    EXPECT_EQ(server.listen("localhost", 0).error(), std::errc::invalid_argument);
    const raw other(impl_create_server_socket("127.0.0.1", 0));
    EXPECT_EQ(server.listen(here, static_cast<uint16_t>(port_of(other.fd))).error(),
              std::errc::address_in_use);
}

TEST_F(Layer, RefusesPayloadsThatDoNotFitAndTagsOnAPlainLink)
{
    noting_server server(loop);
    const text tooLong(tolvane::max_payload + 1, 'x'), tag("velun_tolvane_logout");
    server.on_request([&](tolvane::request request) {
        const auto longer = request.reply(tooLong).error(); // it may still be answered
        EXPECT_TRUE(longer == std::errc::message_size || !request.wants_reply());
        answering("server")(std::move(request));
    });
    noting_client fast(loop, server.port(), "fast"),
        plain(loop, server.port(), "plain", quick(false));
    AWAIT(noted("fast connected") && noted("plain connected"));
    for (noting_client *client : {&fast, &plain}) {
        notes.clear();
        client->request(tooLong, 5s, note);
        EXPECT_EQ(client->tell(tooLong).error(), std::errc::message_size);
        EXPECT_EQ(noted("refused"), 0) << "not from inside";
        EXPECT_TRUE(client->tell(tooLong.substr(1)));
        client->request(tag, 5s, note);
        AWAIT(noted("refused") == (client == &fast ? 1 : 2) &&
              noted("server hears " + tooLong.substr(1)));
    }
    fast.request(tag, 5s, note);
    AWAIT(noted("replied server:" + tag));
}

// ---- hostile peers

static const struct {
    const char *name;
    text bytes;
    bool ends; // the link; else what is wrong is ignored, or its rest is waited for
} attacks[] = {
    {"garbage", text(1000, 'x'), true},
    {"empty", frame(""), true},
    {"half a header", frame("x").substr(0, 20), false},
    {"half a body", frame("0123456789").substr(0, 40), false},
    {"too long", frame(text(65537, 'x')).substr(0, 40), true},
    {"2 GiB", frame("").substr(0, 32) + "\x7f\xff\xff\xff", true},
    {"below zero", frame("").substr(0, 32) + "\xff\xff\xff\xff", true},
    {"no tag", frame("0\nvelun_tolvane_nonsense\n"), false},
    {"no payload", frame("0\nvelun_tolvane_request\ntcp://raw:1"), false},
    {"no URL", frame("0\nvelun_tolvane_login\n") + message(1, "login", "~"), false},
    {"60 kB of URL", message(0, "login", text(60000, 'u') + "~"), false},
    {"a gap", message(1, "request", "a") + message(3, "request", "b"), false},
    {"replies", login + message(1, "reply", "x") + message(2, "reply", "y"), false},
    {"a tag", login + message(1, "request", "velun_tolvane_logout"), true},
    {"no such kind", pipelinedLogin + message(1, "request", "*00000001~x"), false},
    {"a short ID", pipelinedLogin + message(1, "request", "?0001~x"), false},
    {"not an ID", pipelinedLogin + message(1, "request", "=0000000g~x"), false},
    {"other IDs",
     pipelinedLogin + message(1, "request", "=00000007~x") + message(2, "request", "-00000008~"),
     false},
};

TEST_F(Layer, EndsTheLinkOfAHostileClientAndServesTheOthers)
{
    noting_server server(loop);
    noting_client healthy(loop, server.port(), "healthy");
    for (const auto &[name, bytes, ends] : attacks) {
        SCOPED_TRACE(name);
        raw hostile(connect_to(server.port()));
        EXPECT_TRUE(hostile.send(bytes));
        healthy.request(name, 10s, note);
        AWAIT(noted(text("replied server:") + name) && (!ends || hostile.ended()));
        EXPECT_EQ(hostile.ended(), ends);
    }
    AWAIT(server.peers().size() == 1);
    EXPECT_EQ(noted("healthy lost"), 0);
}

TEST_F(Layer, EndsTheLinkToAHostileServerAndTriesAgain)
{
    const raw listener(listen_here());
    noting_client client(loop, port_of(listener.fd), "client");
    for (const auto &[name, bytes, ends] : attacks) {
        SCOPED_TRACE(name);
        notes.clear();
        raw hostile(-1);
        AWAIT((hostile.fd = tcp_impl_accept_socket(listener.fd)) >= 0);
        client.request("anybody?", 10s, note);
        EXPECT_TRUE(hostile.send(alive));
        AWAIT(hostile.hears("anybody?"));
        EXPECT_TRUE(hostile.send(bytes));
        if (!ends)
            shutdown(hostile.fd, SHUT_WR);
        AWAIT(noted("client lost") && noted("lost") + noted("replied x") == 1);
    }
}

TEST_F(Layer, SurvivesThousandsOfLoginsResetsAndFloods)
{
    noting_server server(loop);
    noting_client healthy(loop, server.port(), "healthy");
    std::list<raw> others;
    for (int i = 0; i < 3000; i++) {
        others.emplace_back(connect_to(server.port())).send(i % 2 == 0 ? login : pipelinedLogin);
        if (others.size() > 50)
            i % 100 == 0 ? others.clear() : others.pop_front();
        loop.run_once(0ms);
    }
    raw flood(connect_to(server.port())); // never reads a reply, and is not read from in the end
    for (int i = 0; i < 1000 && flood.send(message(0, "request", text(60000, 'x'))); i++)
        loop.run_once(0ms);
    healthy.request("still here", 10s, note);
    AWAIT(noted("replied server:still here"));
    others.clear();
    AWAIT(server.peers().size() == 1);
    EXPECT_EQ(noted("healthy lost"), 0);
}

// ---- limits, and the ends of links

TEST_F(Layer, LeavesClientsInTheBacklogAndTellsFullFromNever)
{
    tolvane::options little{10s};
    little.max_queued = 300000;
    little.max_clients = 1;
    noting_server server(loop, little);
    server.on_drained([](tolvane::peer peer) { notes.push_back(peer.url() + " drained"); });
    raw next(-1);
    {
        raw slow(connect_to(server.port()));
        slow.send(login);
        AWAIT(server.find("tcp://raw:1"));
        next.fd = connect_to(server.port());
        next.send(message(0, "login", "tcp://next:1~"));
        tolvane::peer peer = server.find("tcp://raw:1");
        tolvane::status told;
        for (int i = 0; i < 10000 && (told = peer.tell(text(60000, 'x'))); i++)
            loop.run_once(0ms);
        EXPECT_EQ(told.error(), std::errc::no_buffer_space) << told.what();
        EXPECT_LE(peer.queued(), little.max_queued + 65536);
        peer.request("too much", 5s, note);
        AWAIT(noted("refused"));
        AWAIT(!slow.ended() && noted("tcp://raw:1 drained"));
        EXPECT_TRUE(peer.tell("again"));
        EXPECT_EQ(noted("tcp://next:1 logged in"), 0);
    }
    AWAIT(noted("tcp://next:1 logged in"));
}

TEST_F(Layer, ReplacesAnOlderLoginAndDeclaresSilentPeersDown)
{
    noting_server server(loop);
    raw older(connect_to(server.port())), newer(connect_to(server.port()));
    older.send(login);
    AWAIT(noted("tcp://raw:1 logged in"));
    const tolvane::peer first = server.find("tcp://raw:1");
    newer.send(login);
    AWAIT(noted("tcp://raw:1 replaced") && older.ended());
    EXPECT_FALSE(first);
    AWAIT(noted("tcp://raw:1 logged in") == 2 && newer.hears("heartbeat") && newer.ended());
}

// A plain link holds the next request back until the late reply is there, or the link is given up.
TEST_F(Layer, NeverTakesALateReplyForAnotherOne)
{
    const raw listener(listen_here());
    tolvane::options patient{10s};
    patient.pipelined = false;
    noting_client client(loop, port_of(listener.fd), "client", patient);
    raw server(-1);
    AWAIT((server.fd = tcp_impl_accept_socket(listener.fd)) >= 0);
    server.send(alive);
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
    tolvane::timer twice, ticks = tolvane::timer::every(5ms, [&] {
                              notes.push_back("tick");
                              if (noted("tick") == 3)
                                  ticks.stop();
                          });
    twice = tolvane::timer::once(30ms, [&] { // replaces itself
        twice = tolvane::timer::once(1ms, [] { notes.push_back("second"); });
    });
    const raw file(open("/dev/null", O_RDONLY | O_CLOEXEC));
    EXPECT_TRUE(loop.watch(file.fd, [&] {
        notes.push_back("file");
        loop.unwatch(file.fd);
    }));
    EXPECT_FALSE(loop.watch(-1, [] {}));
    const auto all = [] {
        return noted("replied server:x") && noted("posted") == 100 && noted("second");
    };
    for (int i = 0; i < 1000 && !all(); i++) { // what fd() reports is all that there is to wait for
        pollfd outer = {loop.fd(), POLLIN, 0};
        ASSERT_EQ(poll(&outer, 1, 10000), 1);
        loop.run_once(0ms);
    }
    poster.join();
    EXPECT_TRUE(all() && noted("tick") == 3 && noted("file") == 1 && !ticks && !twice);
    loop.post([&] { loop.stop(); });
    EXPECT_TRUE(loop.run());
}

// ---- random applications

// A client or a server, and its requests: each handler runs once, or is dropped uncalled when its
// owner is destroyed.
struct owner {
    int asked = 0, called = 0, dropped = 0;
};

struct ticket {
    owner &of;
    bool used = false;
    ~ticket()
    {
        of.dropped += !used;
    }
};

// Three clients, two of one name, and a server do anything at any time, in all callbacks. A client or
// a server that is destroyed is replaced by a new one.
struct application {
    std::mt19937 random;
    tolvane::loop loop = {};
    int budget = 1000, depth = 0; // acts left; callbacks inside each other
    std::list<owner> owners = {}; // the server's latest and the clients' latest stand in owner_of
    owner *owner_of[4] = {};
    std::unique_ptr<tolvane::client> clients[3] = {};
    std::unique_ptr<tolvane::server> server = {};
    std::vector<tolvane::request> kept = {};
    std::list<tolvane::timer> timers = {};
    std::list<raw> strangers = {};
    const raw listener{listen_here()};

    size_t draw(size_t below)
    {
        return random() % below;
    }

    text payload()
    {
        return text(draw(4) == 0 ? 60000 : draw(50), 'x');
    }

    template <class End> void request_by(End &end, owner *by)
    {
        by->asked++;
        const std::shared_ptr<ticket> one(new ticket{*by});
        end.request(payload(), milliseconds(draw(30)), [this, one](const tolvane::response &) {
            REQUIRE(!one->used);
            one->used = true;
            one->of.called++;
            act();
        });
    }

    template <class End> void serve_by(End &end)
    {
        end.on_drained([this](auto...) { act(); });
        end.on_request([this](tolvane::request request) {
            const size_t way = draw(4); // the last one is to destroy it
            if (way == 0)
                kept.push_back(std::move(request));
            else if (way == 1)
                request.decline();
            else if (way == 2)
                (void)request.reply(payload());
            act();
        });
    }

    void make_server()
    {
        server.reset();
        owner_of[3] = &owners.emplace_back();
        server = std::make_unique<tolvane::server>(loop, quick());
        serve_by(*server);
        server->on_login([this](auto) { act(); });
        server->on_logout([this](auto, auto) { act(); });
        (void)server->listen("127.0.0.1", 0);
    }

    void make_client(size_t i)
    {
        const int port = draw(4) == 0 ? port_of(listener.fd) : server->port();
        owner_of[i] = &owners.emplace_back();
        clients[i] = std::make_unique<tolvane::client>(
            loop, tolvane::endpoint{"127.0.0.1", static_cast<uint16_t>(port)},
            tolvane::endpoint{i == 0 ? "a" : "b", 1}, quick(draw(2) == 0));
        serve_by(*clients[i]);
        clients[i]->on_connected([this] { act(); });
        clients[i]->on_lost([this](auto) { act(); });
        (void)clients[i]->connect();
    }

    void act_once()
    {
        const size_t i = draw(3);
        tolvane::client &client = *clients[i];
        std::vector<tolvane::peer> peers = server->peers();
        tolvane::peer peer = peers.empty() ? tolvane::peer() : peers[draw(peers.size())];
        const std::function<void()> acts[] = {
            [&] { make_client(i); },
            [&] { client.disconnect(); },
            [&] { (void)client.connect(); },
            [&] { (void)client.tell(payload()); },
            [&] { serve_by(client); },
            [&] { make_server(); },
            [&] { server->stop(); },
            [&] { (void)server->listen("127.0.0.1", 0); },
            [&] { (void)server->broadcast(payload()); },
            [&] { peer.close(); },
            [&] { (void)peer.tell(payload()); },
            [&] {
                strangers.emplace_back(connect_to(server->port()))
                    .send(attacks[draw(std::size(attacks))].bytes);
            },
            [&] {
                strangers.emplace_back(tcp_impl_accept_socket(listener.fd))
                    .send(attacks[draw(std::size(attacks))].bytes);
            },
            [&] { strangers.clear(); },
            [&] { kept.clear(); },
            [&] { kept.empty() ? void() : (void)kept.back().reply(payload()); },
            [&] {
                timers.push_back(tolvane::timer::once(milliseconds(draw(5)), [this] { act(); }));
            },
            [&] { timers.clear(); },
            [&] { loop.post([this] { act(); }); },
            [&] { loop.run_once(0ms); },
        };
        const size_t which = draw(2 * std::size(acts));
        if (which < std::size(acts))
            acts[which]();
        else if (draw(2) == 0)
            request_by(client, owner_of[i]);
        else
            request_by(peer, owner_of[3]);
    }

    void act()
    {
        if (depth == 3)
            return;
        depth++;
        for (size_t i = draw(3); i > 0 && budget > 0; i--, budget--)
            act_once();
        depth--;
    }

    // Run it; true if all that are left got all results, and those that are destroyed got each at most once.
    bool run()
    {
        make_server();
        for (size_t i = 0; i < 3; i++)
            make_client(i);
        for (; budget > 0; loop.run_once(0ms))
            act();
        const bool settled = until(loop, [&] {
            return std::all_of(owner_of, owner_of + 4,
                               [](const owner *of) { return of->called == of->asked; });
        });
        server.reset();
        for (auto &client : clients)
            client.reset();
        return settled && std::all_of(owners.begin(), owners.end(), [](const owner &of) {
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
TEST(LayerFaults, AreReportedAndSurvived)
{
    const struct {
        const char *call;
        std::vector<int> failures;
    } faults[] = {
        {"send", {EAGAIN, EINTR, ECONNRESET}},
        {"recv", {EAGAIN, EINTR, ECONNRESET}},
        {"socket", {EMFILE}},
        {"connect", {ECONNREFUSED, EINTR}},
        {"accept4", {EMFILE, ECONNABORTED, EINTR}},
        {"epoll_create1", {EMFILE}},
        {"epoll_ctl", {ENOMEM}},
        {"epoll_wait", {EINTR}},
        {"eventfd", {EMFILE}},
        {"timerfd_create", {EMFILE}},
        {"timerfd_settime", {EINVAL}},
    };
    const long descriptors = open_descriptors();
    for (const auto &[call, failures] : faults)
        for (const int each : failures)
            for (int nth = 0; nth == 0 || countdown < 0; nth++) {
                SCOPED_TRACE(testing::Message() << call << ' ' << strerror(each) << ' ' << nth);
                notes.clear();
                faulty = call, failure = each, countdown = nth;
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
                EXPECT_TRUE(outcomes() == works);
                EXPECT_TRUE(nth > 0 || countdown < 0) << "never called";
            }
    EXPECT_EQ(open_descriptors(), descriptors);
}
