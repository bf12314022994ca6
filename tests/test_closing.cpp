// test_closing.cpp - something is closed inside a callback: its own channel, another, the server.
//
// Each place brings one callback about, where possible with a request waiting in the queue. With
// the address sanitizer this shows every use of a released record and every leak; without it, it
// still shows descriptors closed twice, wrong lists, timers left over, and calls for a dead channel.

#include "channel_fixture.h"

struct Closing;

struct Place {
    std::string name;
    const char *callback;
    std::vector<int> types; // of the channel that it happens to
    std::function<void(Closing &)> bringAbout;
};

struct Closing : ChannelTest, testing::WithParamInterface<Place> {
    // The channel it happens to is the first of every walk and of every firing, the other follows.
    void open(int type)
    {
        script = {"D", "H"};
        tv_service_enable_heartbeat(interval, 1, on_linkdown);
        own = type == TV_CHANNEL_PAIR ? login("tcp://own:1") : link(type);
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
    // Close, and take the free descriptors, so that a second close would hit one of them.
    void closeInside(const char *callback, const std::function<void(Closing &)> &close)
    {
        inside[callback] = [=] {
            if (callback == std::string("fd-open"))
                own.id = newestPair;
            close(*this);
            for (int i = 0; i < 8; i++)
                taken.push_back(::open("/dev/null", O_RDONLY));
        };
    }
    void expectConsistency()
    {
        EXPECT_FALSE(taken.empty()) << "the callback did not come";
        for (const int fd : std::exchange(taken, {}))
            EXPECT_EQ(close(fd), 0);
        hand_timer_advance(interval / 2); // ends every wait for a reply
        int pairs = 0, supervised = 0;
        for (const auto &[id, name] : names) {
            pairs += get_channel_type(id) == TV_CHANNEL_PAIR;
            supervised += tv_get_channel(id) != nullptr && tv_get_channel(id)->hbTimerId != -1;
        }
        std::vector<int> fds(9, -1);
        tv_get_all_client_fds(fds.data(), fds.size());
        EXPECT_EQ(std::count(fds.begin(), fds.end(), -1), 9 - pairs);
        EXPECT_EQ((int)hand_timer_pending().size(), supervised);
        tv_broadcast_rqst_to_client("x", 1); // what is left goes on
        hand_timer_advance(3 * interval);
    }

    static constexpr int interval = 1000;
    Link own = {}, other = {};
    std::vector<int> taken;
};

static std::vector<Place> places()
{
    const std::vector<int> pair = {TV_CHANNEL_PAIR}, client = {TV_CHANNEL_CLIENT},
                           both = {TV_CHANNEL_PAIR, TV_CHANNEL_CLIENT};
    const auto breakInActor = [](Closing &t) {
        t.script = {"Hreply"};
        t.inside["actor0"] = [&t] {
            t.breakLink(t.own);
            EXPECT_EQ(t.request(t.own, "x", 0), -1);
        };
    };
    std::vector<Place> list = {
        {"resp", "resp", both, [](Closing &t) { t.fillQueue(), t.hear("reply", "r"); }},
        {"timeout", "timeout", both,
         [](Closing &t) { t.fillQueue(), hand_timer_advance(t.interval / 2); }},
        {"receive_fails", "linkdown", both, [](Closing &t) { t.breakLink(t.own), t.serve(t.own); }},
        {"empty_message", "linkdown", both,
         [](Closing &t) { t.own.peer.send(""), t.serve(t.own); }},
        {"send_fails", "linkdown", both,
         [](Closing &t) { t.breakLink(t.own), t.request(t.own, "x", 100); }},
        {"send_fails_in_actor", "linkdown", both,
         [=](Closing &t) { breakInActor(t), t.hear("request", "rq"); }},
        {"send_fails_in_queued_actor", "linkdown", both,
         [=](Closing &t) { breakInActor(t), t.fillQueue(), t.hear("reply", "r"); }},
        {"reply_fails_in_queue", "linkdown", both,
         [](Closing &t) {
             t.script = {"Hreply"};
             t.inside["actor0"] = [&t] { t.breakLink(t.own); };
             t.fillQueue(), t.hear("reply", "r");
         }},
        {"deferred_reply_fails", "linkdown", both,
         [](Closing &t) {
             t.hear("request", "deferred"), t.hear("request", "queued"), t.breakLink(t.own);
             EXPECT_EQ(t.respond(t.own, "x"), -1);
         }},
        {"acknowledgement_fails", "linkdown", both,
         [](Closing &t) {
             tv_get_channel(t.own.id)->pollTimeout = 0; // receives at once what is there
             t.hear("heartbeat", "{}");
         }},
        {"heartbeat_gives_up", "linkdown", both,
         [](Closing &t) { hand_timer_advance(2 * t.interval); }},
        {"heartbeat_fails", "linkdown", both,
         [](Closing &t) { t.breakLink(t.own), hand_timer_advance(t.interval); }},
        {"broadcast_fails", "linkdown", pair,
         [](Closing &t) { t.breakLink(t.own), tv_broadcast_rqst_to_client("x", 1); }},
        {"login_fails", "linkdown", client,
         [](Closing &t) {
             tv_get_channel(t.own.id)->pollTimeout = 0;
             EXPECT_EQ(tv_connect_server(t.own.id), -1);
         }},
        {"logout_fails", "linkdown", client,
         [](Closing &t) { t.breakLink(t.own), tv_disconnect_server(t.own.id); }},
        {"connected", "connected", pair,
         [](Closing &t) { t.hear("login", t.own.peer.url + '\0'); }},
        {"logout", "disconnected", pair,
         [](Closing &t) { t.hear("logout", t.own.peer.url + '\0'); }},
        {"replaced", "disconnected", pair,
         [](Closing &t) { t.other.peer.say("login", t.own.peer.url + '\0'), t.serve(t.other); }},
        {"fd_open", "fd-open", pair, [](Closing &t) { t.connect("tcp://third:1"); }},
        {"fd_close", "fd-close", pair, [](Closing &t) { tv_close_channel(t.own.id); }},
        {"fd_close_at_stop", "fd-close", pair, [](Closing &) { tv_stop_server(); }},
    };
    for (const std::string play : {"P", "Preply", "H", "Hreply", "D", "Dreply"}) {
        list.push_back({"actor_" + play, "actor0", both, [=](Closing &t) {
                            t.script = {play, "H"};
                            t.hear("request", "rq");
                        }});
        list.push_back({"queued_actor_" + play, "actor0", both, [=](Closing &t) {
                            t.script = {play, "H"};
                            t.fillQueue(), t.hear("reply", "r");
                        }});
    }
    return list;
}

INSTANTIATE_TEST_SUITE_P(Inside, Closing, testing::ValuesIn(places()),
                         [](const auto &place) { return place.param.name; });

TEST_P(Closing, IsSafe)
{
    const std::pair<const char *, std::function<void(Closing &)>> closes[] = {
        {"own", [](Closing &t) { tv_close_channel(t.own.id); }},
        {"other", [](Closing &t) { tv_close_channel(t.other.id); }},
        {"server", [](Closing &) { tv_stop_server(); }},
        {"server channel", [](Closing &t) { tv_close_channel(t.server); }},
        {"restart", [](Closing &t) { tv_stop_server(), t.startServer(); }},
    };
    for (const auto &[what, close] : closes) {
        for (const int type : GetParam().types) {
            SCOPED_TRACE(std::string(what) + (type == TV_CHANNEL_PAIR ? ", pair" : ", client"));
            open(type);
            closeInside(GetParam().callback, close);
            GetParam().bringAbout(*this);
            expectConsistency();
            TearDown();
            SetUp();
        }
    }
}
