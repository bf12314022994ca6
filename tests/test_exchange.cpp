// test_exchange.cpp - requests and replies over one channel, the same on a client and on a pair.

#include "channel_fixture.h"

using Exchange = LinkTest;
INSTANTIATE_TEST_SUITE_P(On, Exchange, bothKinds);

TEST_P(Exchange, AReplyEndsTheWaitForOneRequest)
{
    const std::string bytes("a\0b", 3);
    EXPECT_EQ(request(link, bytes, 100), 0);
    link.expect("request", bytes);
    EXPECT_EQ(request(link, "second", 100), -1);
    log.expect({"has pending outgoing request, could not send request now"});

    inside["resp"] = [&] { EXPECT_EQ(request(link, "next", 200), 0); };
    receive(link, "reply", bytes);
    EXPECT_EQ(hand_timer_pending(), std::vector<int>({200}));
    link.expect("request", "next");
    link.send(std::to_string(link.said) + "\nvelun_tolvane_reply\n"); // no marker
    serve(link);
    EXPECT_EQ(happened(), Events({"resp link " + bytes, "resp link (null)"}));
}

TEST_P(Exchange, ATimeOutEndsTheWaitAndWithoutATimerOnlyTheReplyDoes)
{
    EXPECT_EQ(request(link, "ping", 100), 0);
    hand_timer_advance(99);
    EXPECT_EQ(happened(), Events());
    inside["timeout"] = [&] { EXPECT_EQ(request(link, "too early", 100), -1); };
    hand_timer_advance(1);
    for (const int timeout : {0, -1}) // no reply is awaited
        EXPECT_EQ(request(link, "tell", timeout), 0);
    log.take();
    receive(link, "reply", "late");
    hand_timer_fail_starts(true);
    EXPECT_EQ(request(link, "ask", 100), 0);
    log.expect({"no outgoing request, response discarded",
                "failed on start timer for channel[" + std::to_string(link.id) + "]"});
    receive(link, "reply", "told");
    EXPECT_EQ(happened(), Events({"timeout link", "resp link told"}));

    hand_timer_fail_starts(false);
    EXPECT_EQ(request(link, "ask", 100), 0);
    inside["timeout"] = [&] {
        receive(link, "reply", "just in time");
        EXPECT_EQ(request(link, "next", 100), 0);
    };
    hand_timer_advance(100);
    EXPECT_EQ(request(link, "too early", 100), -1); // the next one goes on waiting
    EXPECT_EQ(happened(), Events({"timeout link", "resp link just in time"}));
}

TEST_P(Exchange, ActorsAreAskedInOrderUntilOneTakesTheRequest)
{
    const struct {
        std::vector<std::string> script;
        int asked;
        std::string reply; // "later": deferred
    } cases[] = {
        {{"P", "Hb"}, 2, "b"}, {{"Pa", "H"}, 2, "a"},     {{"Xa", "Hb"}, 1, "a"},
        {{"H", "Hb"}, 1, ""},  {{"Pa", "D"}, 2, "later"}, {{"D", "Hb"}, 1, "later"},
    };
    for (const auto &now : cases) {
        script = now.script;
        SCOPED_TRACE(script[0] + " " + script[1]);
        inside["actor0"] = [&] { EXPECT_EQ(respond(link, "not yet"), -1); };
        receive(link, "request", "rq");
        EXPECT_EQ(respond(link, "later"), now.reply == "later" ? 0 : -1);
        Events asked = {"actor0 link rq", "actor1 link rq"};
        asked.resize(now.asked);
        EXPECT_EQ(happened(), asked);
        if (!now.reply.empty())
            link.expect("reply", now.reply);
    }
    script = {"Pa", "P"}; // nobody takes it
    log.take();
    receive(link, "request", "rq");
    const std::string text = message(link.said - 1, "request", link.url, "rq");
    const std::string bare = std::to_string(link.said) + "\nvelun_tolvane_request\nno marker";
    link.send(bare);
    serve(link);
    EXPECT_EQ(respond(link, "to what"), -1);
    log.expect({"no actor registered to process this msg: " + text,
                "get_msg_payload, unexpected tolvane received",
                "not expected msg layout, ignore: " + bare,
                "no message pending, response discarded"});
    link.expectSilence();
}

TEST_P(Exchange, EightRequestsWaitBehindADeferredOneAndTheNinthIsDropped)
{
    script = {"D"};
    for (const char payload : {'1', '2', '3', '4', '5', '6', '7', '8', '9', '!'})
        receive(link, "request", {payload});
    for (int i = 0; i < 4; i++) // frees four places, for the queue's indices to wrap
        EXPECT_EQ(respond(link, "ok"), 0);
    for (const char payload : {'a', 'b', 'c', 'd', '!'})
        receive(link, "request", {payload});
    script = {"Hnow"}; // each reply serves the next request, nested
    EXPECT_EQ(respond(link, "ok"), 0);
    std::string served;
    for (const std::string &event : happened())
        served += event.back();
    EXPECT_EQ(served, "123456789abcd");
    for (int i = 0; i < 13; i++)
        link.expect("reply", i < 5 ? "ok" : "now");
}

TEST_P(Exchange, RequestsWaitWhileTheChannelAwaitsAReply)
{
    for (const bool answered : {false, true}) {
        script = {answered ? "Hpong" : "H"}; // without a reply the next one is served, too
        EXPECT_EQ(request(link, "mine", 100), 0);
        receive(link, "request", "A");
        receive(link, "request", "B");
        answered ? receive(link, "reply", "yes") : hand_timer_advance(100);
        const std::string end = answered ? "resp link yes" : "timeout link";
        EXPECT_EQ(happened(), Events({end, "actor0 link A", "actor0 link B"}));
    }
}

TEST_P(Exchange, OfADeferralInsideADeferralTheOuterOneIsOwed)
{
    script = {"D"};
    link.say("request", "outer");
    link.say("request", "inner");
    inside["actor0"] = [&] { serve(link); };
    serve(link);
    EXPECT_EQ(respond(link, "to the outer one"), 0);
    EXPECT_EQ(respond(link, "to the inner one"), -1);
}

TEST_P(Exchange, WhatCannotBeSentLeavesTheChannelAsItWas)
{
    script = {"D"};
    receive(link, "request", "rq");
    EXPECT_EQ(tv_send_rqst(link.id, nullptr, 0, 100), -1);
    EXPECT_EQ(tv_send_rqst(link.id, "", -1, 100), -1);
    log.expect(
        {"pack requst fail:0", "pack_msg_to_buf, negative length[-1]", "pack requst fail:-1"});
    EXPECT_EQ(tv_send_resp(link.id, "", -1), -1);

    tv_channel *channel = tv_get_channel(link.id);
    channel->pollTimeout = 0; // every send fails at once
    inside["linkdown"] = [&] { EXPECT_EQ(request(link, "lost, and nobody is told", 0), -1); };
    EXPECT_EQ(request(link, "lost", 100), -1);
    EXPECT_EQ(respond(link, "lost"), -1);
    const std::string down = "linkdown link " + link.url;
    EXPECT_EQ(happened(), Events({"actor0 link rq", down, down}));
    EXPECT_EQ(log.take().back(), "linkdown_callback end");
    channel->pollTimeout = patience;
    EXPECT_EQ(respond(link, "at last"), 0); // is still owed
    link.heard += 3;                        // the numbers of those that were lost
    link.expect("reply", "at last");
    EXPECT_EQ(request(link, "not refused", 100), 0);
}
