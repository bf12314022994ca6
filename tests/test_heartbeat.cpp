// test_heartbeat.cpp - supervision of a silent peer, at exact times, on a client and on a pair.

#include "channel_fixture.h"

struct Heartbeat : LinkTest {
    // Starts with the next accepted message.
    void supervise(int interval, int count)
    {
        tv_client_enable_heartbeat(link.id, interval, count, on_linkdown);
        receive(link, "heartbeatack", "{}");
    }
    // Expect one that the channel has sent.
    void expectHeartbeat(int sequence, int count)
    {
        link.expect("heartbeat", "{sequence:" + std::to_string(sequence) + "}, {interval:100}," +
                                     "{count:" + std::to_string(count) + "}" + '\0');
    }
    using Intervals = std::vector<int>;
};

INSTANTIATE_TEST_SUITE_P(On, Heartbeat, bothKinds);

TEST_P(Heartbeat, ASilentPeerIsDeclaredDownOnceAndItsChannelStays)
{
    for (const int count : {0, 2}) {
        supervise(100, count);
        for (int i = 1; i <= count; i++) {
            hand_timer_advance(99);
            link.expectSilence();
            hand_timer_advance(1);
            expectHeartbeat(i, count);
        }
        hand_timer_advance(99);
        EXPECT_EQ(happened(), Events());
        hand_timer_advance(1);
        EXPECT_EQ(happened(), Events({"linkdown link " + link.url}));
        receive(link, "heartbeat", "{}"); // is answered, and restarts nothing
        link.expect("heartbeatack", "{sequence:" + std::to_string(count) + "}" + '\0');
        EXPECT_EQ(hand_timer_pending(), Intervals());
        EXPECT_EQ(tv_get_channel(link.id)->hbTimerId, -1);
    }
}

TEST_P(Heartbeat, EveryAcceptedMessageStartsItAnewAndARefusedOneDoesNot)
{
    supervise(100, 1);
    for (const char *tag : {"request", "reply", "heartbeatack"}) {
        hand_timer_advance(199);
        expectHeartbeat(1, 1);
        receive(link, tag, "x");
    }
    hand_timer_advance(150);
    link.said++;
    receive(link, "request", "after a gap");
    hand_timer_advance(49);
    EXPECT_EQ(happened(), Events({"actor0 link x", "actor1 link x"}));
    hand_timer_advance(1);
    EXPECT_EQ(happened(), Events({"linkdown link " + link.url}));
}

TEST_P(Heartbeat, NewSettingsCountAtOnceAndChangeThePeriodWithTheNextStart)
{
    supervise(100, 1);
    tv_client_enable_heartbeat(link.id, 300, 0, on_linkdown);
    EXPECT_EQ(hand_timer_pending(), Intervals({100}));
    receive(link, "heartbeatack", "{}");
    EXPECT_EQ(hand_timer_pending(), Intervals({300})); // the same one, started anew
    tv_client_enable_heartbeat(link.id, 100, 5, on_linkdown);
    hand_timer_advance(300);
    EXPECT_EQ(happened(), Events()); // a miss that counts no longer

    hand_timer_fail_starts(true);
    receive(link, "heartbeatack", "{}");
    EXPECT_EQ(hand_timer_pending(), Intervals()); // silent, until the next message
    hand_timer_fail_starts(false);
    supervise(0, 1); // without an interval nothing starts
    EXPECT_EQ(hand_timer_pending(), Intervals());
    supervise(100, 1);
    EXPECT_EQ(hand_timer_pending(), Intervals({100}));
}

TEST_P(Heartbeat, TheServersChannelIsNotSupervisedAndSendsNone)
{
    tv_channel *channel = tv_get_channel(server);
    tv_client_enable_heartbeat(server, 100, 1, on_linkdown);
    EXPECT_EQ(enable_heartbeat(channel), 0);
    EXPECT_EQ(hand_timer_pending(), Intervals());
    channel->hbMode = TV_HEARTBEAT_OFF;
    log.take();
    send_heartbeat(channel);
    log.expect({"could not send HB on mode[2]"});
}
