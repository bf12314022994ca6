// test_exchange.cpp - requests and replies over one channel, the same on a client and on a pair.

#include "channel_fixture.h"

struct Exchange : ChannelTest, testing::WithParamInterface<int> {
};

INSTANTIATE_TEST_SUITE_P(Client, Exchange, testing::Values(TV_CHANNEL_CLIENT));
INSTANTIATE_TEST_SUITE_P(Pair, Exchange, testing::Values(TV_CHANNEL_PAIR));

TEST_P(Exchange, AReplyEndsTheWaitForOneRequest)
{
    Link link = this->link(GetParam());
    const std::string bytes("a\0b", 3);
    EXPECT_EQ(request(link, bytes, 100), 0);
    link.peer.expect("request", bytes);
    log.take();
    EXPECT_EQ(request(link, "second", 100), -1);
    log.expect({"has pending outgoing request, could not send request now"});

    inside["resp"] = [&] { EXPECT_EQ(request(link, "next", 200), 0); };
    receive(link, "reply", bytes);
    EXPECT_EQ(hand_timer_pending(), std::vector<int>({200}));
    link.peer.expect("request", "next");
    link.peer.send(std::to_string(link.peer.said) + "\nvelun_tolvane_reply\n"); // no marker
    serve(link);
    EXPECT_EQ(happened(), Events({"resp link " + bytes, "resp link (null)"}));
}

TEST_P(Exchange, ATimeOutEndsTheWaitAndTheLateReplyIsDiscarded)
{
    Link link = this->link(GetParam());
    EXPECT_EQ(request(link, "ping", 100), 0);
    hand_timer_advance(99);
    EXPECT_EQ(happened(), Events());
    inside["timeout"] = [&] { EXPECT_EQ(request(link, "too early", 100), -1); };
    hand_timer_advance(1);
    log.take();
    receive(link, "reply", "late");
    log.expect({"no outgoing request, response discarded"});
    EXPECT_EQ(request(link, "again", 100), 0);
    receive(link, "reply", "pong");
    hand_timer_advance(1000);
    EXPECT_EQ(happened(), Events({"timeout link", "resp link pong"}));
}

TEST_P(Exchange, WithoutATimeOutNoReplyIsAwaitedAndWithoutATimerOnlyTheReplyEndsTheWait)
{
    Link link = this->link(GetParam());
    for (const int timeout : {0, -1}) {
        EXPECT_EQ(request(link, "tell", timeout), 0);
        receive(link, "reply", "unasked");
    }
    hand_timer_fail_starts(true);
    log.take();
    EXPECT_EQ(request(link, "ask", 100), 0);
    log.expect({"failed on start timer for channel[" + std::to_string(link.id) + "]"});
    EXPECT_EQ(request(link, "more", 100), -1);
    receive(link, "reply", "told");
    EXPECT_EQ(happened(), Events({"resp link told"}));
}

TEST_P(Exchange, ActorsAreAskedInOrderUntilOneTakesTheRequest)
{
    const struct {
        std::vector<std::string> script;
        int asked;
        const char *reply; // "later": deferred
    } cases[] = {
        {{"P", "Hb"}, 2, "b"},     {{"Pa", "H"}, 2, "a"},     {{"Xa", "Hb"}, 1, "a"},
        {{"H", "Hb"}, 1, ""},      {{"Pa", "P"}, 2, ""},      {{"Pa", "D"}, 2, "later"},
        {{"D", "Hb"}, 1, "later"}, {{"Da", "H"}, 1, "later"},
    };
    script = {"P", "P"};
    Link link = this->link(GetParam());
    for (const auto &now : cases) {
        script = now.script;
        SCOPED_TRACE(script[0] + " " + script[1]);
        inside["actor0"] = [&] { EXPECT_EQ(respond(link, "not yet"), -1); };
        receive(link, "request", "rq");
        EXPECT_EQ(respond(link, "later"), now.reply == std::string("later") ? 0 : -1);
        Events asked = {"actor0 link rq", "actor1 link rq"};
        asked.resize(now.asked);
        EXPECT_EQ(happened(), asked);
        if (*now.reply != '\0')
            link.peer.expect("reply", now.reply);
    }
    link.peer.expectSilence();
}

TEST_P(Exchange, ARequestThatNobodyTakesIsLogged)
{
    Link link = this->link(GetParam());
    log.take();
    receive(link, "request", "rq");
    const std::string text = message(link.peer.said - 1, "request", link.peer.url, "rq");
    const std::string bare = std::to_string(link.peer.said) + "\nvelun_tolvane_request\nno marker";
    link.peer.send(bare);
    serve(link);
    EXPECT_EQ(respond(link, "to what"), -1);
    log.expect({"no actor registered to process this msg: " + text,
                "get_msg_payload, unexpected tolvane received",
                "not expected msg layout, ignore: " + bare,
                "no message pending, response discarded"});
}

// Three rounds, so that the queue's indices wrap.
TEST_P(Exchange, EightRequestsWaitBehindADeferredOneAndTheNinthIsDropped)
{
    script = {"D"};
    Link link = this->link(GetParam());
    for (int round = 0; round < 3; round++) {
        for (const char payload : {'1', '2', '3', '4', '5', '6', '7', '8', '9', '!'})
            receive(link, "request", {payload});
        for (int i = 0; i < 4; i++) // frees four places
            EXPECT_EQ(respond(link, "ok"), 0);
        for (const char payload : {'a', 'b', 'c', 'd', '!'})
            receive(link, "request", {payload});
        script = {"Hnow"}; // each reply serves the next request, nested
        EXPECT_EQ(respond(link, "ok"), 0);
        script = {"D"};
        std::string served;
        for (const std::string &event : happened())
            served += event.back();
        EXPECT_EQ(served, "123456789abcd");
        for (int i = 0; i < 13; i++)
            link.peer.expect("reply", i < 5 ? "ok" : "now");
    }
}

TEST_P(Exchange, RequestsWaitWhileTheChannelAwaitsAReply)
{
    script = {"Hpong"};
    Link link = this->link(GetParam());
    for (const bool answered : {true, false}) {
        script = {answered ? "Hpong" : "H"}; // without a reply the next one is served, too
        EXPECT_EQ(request(link, "mine", 100), 0);
        receive(link, "request", "A");
        receive(link, "request", "B");
        EXPECT_EQ(happened(), Events());
        if (answered)
            receive(link, "reply", "yes");
        else
            hand_timer_advance(100);
        const std::string end = answered ? "resp link yes" : "timeout link";
        EXPECT_EQ(happened(), Events({end, "actor0 link A", "actor0 link B"}));
    }
}

TEST_P(Exchange, WhatCannotBeSentLeavesTheChannelAsItWas)
{
    script = {"D"};
    Link link = this->link(GetParam());
    receive(link, "request", "rq");
    tv_channel *channel = tv_get_channel(link.id);
    const int room =
        TV_MSG_BUF_SIZE - message(channel->msgSequence, "request", link.peer.url, "").size();
    log.take();
    EXPECT_EQ(request(link, std::string(room + 1, 'x'), 100), -1);
    EXPECT_EQ(tv_send_rqst(link.id, nullptr, 0, 100), -1);
    log.expect({"pack_msg_to_buf, msg[len:" + std::to_string(room + 1) + "] is too long",
                "pack requst fail:-1", "pack requst fail:0"});
    EXPECT_EQ(tv_send_resp(link.id, "", -1), -1);
    EXPECT_EQ(request(link, std::string(room, 'x'), 0), 0);
    link.peer.expect("request", std::string(room, 'x'));

    channel->pollTimeout = 0; // every send fails at once
    EXPECT_EQ(request(link, "lost", 100), -1);
    EXPECT_EQ(respond(link, "lost"), -1);
    const std::string down = "linkdown link " + link.peer.url;
    EXPECT_EQ(happened(), Events({"actor0 link rq", down, down}));
    EXPECT_EQ(log.take().back(), "linkdown_callback end");
    channel->pollTimeout = patience;
    EXPECT_EQ(respond(link, "at last"), 0); // is still owed
    link.peer.heard += 2;                   // the numbers of the two that were lost
    link.peer.expect("reply", "at last");
    EXPECT_EQ(request(link, "not refused", 100), 0);
}
