// test_closing.cpp - something is closed inside a callback: its own channel, another, the server.
//
// Each place brings one callback about, where possible with a request waiting in the queue. With
// the address sanitizer this shows every use of a released record and every leak; without it, it
// still shows descriptors closed twice, timers left over, and calls for a dead channel.

#include "channel_fixture.h"

struct Closing;
using Action = std::function<void(Closing &)>;

struct Place {
    std::string name, callback;
    bool onlyPairs; // has to happen to a pair
    Action bringAbout;
};

struct Closing : ChannelTest, testing::WithParamInterface<Place> {
    // The channel it happens to is the first of every walk and of every firing, the other follows.
    void open(int type)
    {
        script = {"Dreply", "H"};
        tv_service_enable_heartbeat(interval, 1, on_linkdown);
        own = type == TV_CHANNEL_PAIR ? login("tcp://own:1") : makeLink(type);
        if (type == TV_CHANNEL_CLIENT)
            tv_client_enable_heartbeat(own.id, interval, 1, on_linkdown);
        hear("heartbeatack", "{}");
        other = login("tcp://other:1");
    }
    void hear(const std::string &tag, const std::string &payload)
    {
        receive(own, tag, payload);
    }
    // Await a reply and have two requests in the queue.
    void fillQueue()
    {
        EXPECT_EQ(request(own, "x", interval / 2), 0);
        hear("request", "first");
        hear("request", "second");
    }
    void expectConsistency()
    {
        EXPECT_FALSE(taken.empty()) << "the callback did not come";
        for (const int fd : std::exchange(taken, {}))
            EXPECT_EQ(close(fd), 0);
        tv_broadcast_rqst_to_client("x", 1); // what is left goes on
        hand_timer_advance(3 * interval);
    }

    static constexpr int interval = 1000;
    Link own = {}, other = {};
    std::vector<int> taken;
};

static const Place places[] = {
    {"resp", "resp", false, [](Closing &t) { t.fillQueue(), t.hear("reply", "r"); }},
    {"timeout", "timeout", false,
     [](Closing &t) { t.fillQueue(), hand_timer_advance(t.interval / 2); }},
    {"actor", "actor0", false, [](Closing &t) { t.hear("request", "rq"); }},
    {"queued_actor", "actor0", false, [](Closing &t) { t.fillQueue(), t.hear("reply", "r"); }},
    {"passing_actor", "actor0", false,
     [](Closing &t) { t.script[0] = "Preply", t.hear("request", "rq"); }},
    {"receive_fails", "linkdown", false, [](Closing &t) { t.breakLink(t.own), t.serve(t.own); }},
    {"empty_message", "linkdown", false, [](Closing &t) { t.own.send(""), t.serve(t.own); }},
    {"send_fails", "linkdown", false,
     [](Closing &t) { t.breakLink(t.own), t.request(t.own, "x", 100); }},
    {"reply_fails_in_queue", "linkdown", false,
     [](Closing &t) {
         t.script[0] = "Hreply";
         t.inside["actor0"] = [&t] { t.breakLink(t.own); };
         t.fillQueue(), t.hear("reply", "r");
     }},
    {"deferred_reply_fails", "linkdown", false,
     [](Closing &t) {
         t.hear("request", "deferred"), t.hear("request", "queued"), t.breakLink(t.own);
         EXPECT_EQ(t.respond(t.own, "x"), -1);
     }},
    {"acknowledgement_fails", "linkdown", false,
     [](Closing &t) {
         tv_get_channel(t.own.id)->pollTimeout = 0; // receives at once what is there
         t.hear("heartbeat", "{}");
     }},
    {"heartbeat_gives_up", "linkdown", false,
     [](Closing &t) { hand_timer_advance(2 * t.interval); }},
    {"broadcast_fails", "linkdown", true,
     [](Closing &t) { t.breakLink(t.own), tv_broadcast_rqst_to_client("x", 1); }},
    {"connected", "connected", true, [](Closing &t) { t.hear("login", t.own.url + '\0'); }},
    {"logout", "disconnected", true, [](Closing &t) { t.hear("logout", t.own.url + '\0'); }},
    {"replaced", "disconnected", true,
     [](Closing &t) { t.receive(t.other, "login", t.own.url + '\0'); }},
    {"fd_open", "fd-open", true, [](Closing &t) { t.connect("tcp://third:1"); }},
    {"fd_close", "fd-close", true, [](Closing &t) { tv_close_channel(t.own.id); }},
    {"fd_close_at_stop", "fd-close", true, [](Closing &) { tv_stop_server(); }},
};

INSTANTIATE_TEST_SUITE_P(Inside, Closing, testing::ValuesIn(places),
                         [](const auto &place) { return place.param.name; });

TEST_P(Closing, IsSafe)
{
    const std::pair<const char *, Action> closes[] = {
        {"own", [](Closing &t) { tv_close_channel(t.own.id); }},
        {"other", [](Closing &t) { tv_close_channel(t.other.id); }},
        {"server", [](Closing &) { tv_stop_server(); }},
        {"server channel", [](Closing &t) { tv_close_channel(t.server); }},
        {"restart", [](Closing &t) { tv_stop_server(), t.startServer(); }},
    };
    for (const int type : {TV_CHANNEL_PAIR, TV_CHANNEL_CLIENT}) {
        for (const auto &[what, close] : closes) {
            if (GetParam().onlyPairs && type != TV_CHANNEL_PAIR)
                continue;
            SCOPED_TRACE(std::string(what) + (type == TV_CHANNEL_PAIR ? ", pair" : ", client"));
            open(type);
            inside[GetParam().callback] = [this, &close = close] {
                if (GetParam().callback == "fd-open")
                    own.id = newestPair;
                close(*this);
                for (int i = 0; i < 8; i++) // so that a second close would hit one of them
                    taken.push_back(::open("/dev/null", O_RDONLY));
            };
            GetParam().bringAbout(*this);
            expectConsistency();
            TearDown();
            SetUp();
        }
    }
}
