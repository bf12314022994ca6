// test_heartbeat.cpp - supervision of a silent peer, at exact times, on a client and on a pair.

#include "channel_fixture.h"

struct Heartbeat : ChannelTest, testing::WithParamInterface<int> {
    // Starts with the next accepted message.
    Link supervised(int interval, int count)
    {
        Link link = this->link(GetParam());
        tv_client_enable_heartbeat(link.id, interval, count, on_linkdown);
        receive(link, "heartbeatack", "{}");
        return link;
    }
    using Intervals = std::vector<int>;
};

INSTANTIATE_TEST_SUITE_P(Client, Heartbeat, testing::Values(TV_CHANNEL_CLIENT));
INSTANTIATE_TEST_SUITE_P(Pair, Heartbeat, testing::Values(TV_CHANNEL_PAIR));

TEST_P(Heartbeat, ASilentPeerIsDeclaredDownOnceAndItsChannelStays)
{
    for (const int count : {0, 1, 3}) {
        Link link = supervised(100, count);
        for (int i = 1; i <= count; i++) {
            hand_timer_advance(99);
            link.peer.expectSilence();
            hand_timer_advance(1);
            link.peer.expect("heartbeat", "{sequence:" + std::to_string(i) + "}, {interval:100}," +
                                              "{count:" + std::to_string(count) + "}" + '\0');
        }
        hand_timer_advance(99);
        EXPECT_EQ(happened(), Events());
        hand_timer_advance(1);
        EXPECT_EQ(happened(), Events({"linkdown link " + link.peer.url}));
        EXPECT_EQ(hand_timer_pending(), Intervals());
        receive(link, "heartbeat", "{}"); // is answered, and restarts nothing
        link.peer.expect("heartbeatack", "{sequence:" + std::to_string(count) + "}" + '\0');
        hand_timer_advance(1000);
        EXPECT_EQ(happened(), Events());
    }
}

TEST_P(Heartbeat, EveryAcceptedMessageStartsItAnewAndARefusedOneDoesNot)
{
    script = {"H"};
    Link link = supervised(100, 1);
    for (const char *tag : {"request", "reply", "heartbeat", "heartbeatack"}) {
        hand_timer_advance(199);
        link.peer.expect("heartbeat", std::string("{sequence:1}, {interval:100},{count:1}") + '\0');
        receive(link, tag, "x");
        if (tag == std::string("heartbeat"))
            link.peer.expect("heartbeatack", std::string("{sequence:0}") + '\0');
    }
    EXPECT_EQ(happened(), Events({"actor0 link x"}));
    hand_timer_advance(150);
    link.peer.said++;
    receive(link, "heartbeatack", "after a gap");
    hand_timer_advance(49);
    EXPECT_EQ(happened(), Events());
    hand_timer_advance(1);
    EXPECT_EQ(happened(), Events({"linkdown link " + link.peer.url}));
}

TEST_P(Heartbeat, NewSettingsCountAtOnceAndChangeThePeriodWithTheNextStart)
{
    Link link = supervised(100, 1);
    tv_client_enable_heartbeat(link.id, 300, 0, on_linkdown);
    EXPECT_EQ(hand_timer_pending(), Intervals({100}));
    receive(link, "heartbeatack", "{}");
    EXPECT_EQ(hand_timer_pending(), Intervals({300}));
    EXPECT_EQ(enable_heartbeat(tv_get_channel(link.id)), 0);
    EXPECT_EQ(hand_timer_pending(), Intervals({300})); // the same one, started anew
    tv_client_enable_heartbeat(link.id, 100, 5, on_linkdown);
    hand_timer_advance(300);
    EXPECT_EQ(happened(), Events()); // a miss that counts no longer

    hand_timer_fail_starts(true);
    receive(link, "heartbeatack", "{}");
    EXPECT_EQ(hand_timer_pending(), Intervals()); // silent, until the next message
    hand_timer_fail_starts(false);
    receive(link, "heartbeatack", "{}");
    EXPECT_EQ(hand_timer_pending(), Intervals({100}));
}

TEST_P(Heartbeat, WithoutAnIntervalOrAConnectionNothingStarts)
{
    Link link = supervised(0, 1);
    tv_channel *channel = tv_get_channel(link.id);
    EXPECT_EQ(enable_heartbeat(channel), -1);
    EXPECT_EQ(enable_heartbeat(nullptr), -1);
    tv_client_enable_heartbeat(server, 100, 1, on_linkdown);
    EXPECT_EQ(enable_heartbeat(tv_get_channel(server)), 0);
    EXPECT_EQ(hand_timer_pending(), Intervals());
    channel->hbMode = TV_HEARTBEAT_OFF;
    log.take();
    send_heartbeat(channel);
    log.expect({"could not send HB on mode[2]"});
}
