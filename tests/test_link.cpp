// test_link.cpp - requests, replies and supervision over one channel. Every scenario is played on a
// client, and again on a pair.

#include "channel_fixture.h"

static const struct Scenario {
    const char *name, *steps;
} scenarios[] = {
    {"AReplyEndsTheWaitForOneRequest", R"(
        send_request a~b 100                => peer_got request a~b
        send_request second 100             => send_request: -1
        logged has pending outgoing request, could not send request now
        on response: send_request next 200
        peer_sends reply c~d; next_timer    => response c~d, peer_got request next, next timer 200
        peer_sends reply                    => response (null))"},

    {"ATimeoutEndsTheWait", R"(
        send_request ping 100               => peer_got request ping
        on timeout: send_request early 100
        advance 99; next_timer; advance 1   => next timer 1, timeout, send_request: -1
        send_request untimed 0              => peer_got request untimed
        send_request untimed -1             => peer_got request untimed
        peer_sends reply late
        logged no outgoing request, response discarded)"},

    {"WithoutATimerOnlyTheReplyEndsTheWait", R"(
        fail ruvo_start_timer
        send_request ping 100               => peer_got request ping
        send_request early 100              => send_request: -1
        peer_sends reply pong               => response pong)"},

    {"AReplyMayArriveWhileTheTimeoutHandlerRuns", R"(
        send_request ping 100               => peer_got request ping
        on timeout: peer_sends reply just-in-time; send_request next 100
        advance 100                         => timeout, response just-in-time, peer_got request next
        send_request early 100              => send_request: -1)"},

    {"ARequestSentInsideTheTimeoutHandlerWaitsAlsoWithoutATimer", R"(
        send_request ping 100           => peer_got request ping
        on timeout: peer_sends reply just-in-time; fail ruvo_start_timer; send_request next 100
        advance 100                     => timeout, response just-in-time, peer_got request next
        send_request early 100          => send_request: -1)"},

    {"ActorsAreAskedInOrderUntilOneTakesTheRequest", R"(
        actors pass handle:b;   peer_sends request x  => actor0 x, actor1 x, peer_got reply b
        actors pass:a handle;   peer_sends request x  => actor0 x, actor1 x, peer_got reply a
        actors other:a handle;  peer_sends request x  => actor0 x, peer_got reply a
        actors handle handle:b; peer_sends request x  => actor0 x
        send_reply late                               => send_reply: -1
        logged no message pending, response discarded
        actors pass:a defer;    peer_sends request x  => actor0 x, actor1 x
        send_reply late                               => peer_got reply late
        on actor0: send_reply early
        actors defer handle:b;  peer_sends request x  => actor0 x, send_reply: -1
        send_reply late                               => peer_got reply late
        actors pass:a pass;     peer_sends request x  => actor0 x, actor1 x
        logged no actor registered to process this msg: 7 velun_tolvane_request tcp://link:7 velun_tolvane_payload x
        peer_sends request
        last_logged not expected msg layout, ignore: 8 velun_tolvane_request tcp://link:7)"},

    {"EightRequestsWaitBehindADeferredOneAndTheNinthIsDropped", R"(
        actors defer pass; peer_sends request 1       => actor0 1
        peer_sends request 2; peer_sends request 3; peer_sends request 4; peer_sends request 5
        peer_sends request 6; peer_sends request 7; peer_sends request 8; peer_sends request 9
        peer_sends request dropped
        send_reply +; send_reply +                    => peer_got reply +, actor0 2,
                                                      => peer_got reply +, actor0 3
        peer_sends request a; peer_sends request b    # in the first two slots
        peer_sends request dropped
        actors handle:- pass; send_reply +            => peer_got reply +,
            => actor0 4, peer_got reply -, actor0 5, peer_got reply -, actor0 6, peer_got reply -,
            => actor0 7, peer_got reply -, actor0 8, peer_got reply -, actor0 9, peer_got reply -,
            => actor0 a, peer_got reply -, actor0 b, peer_got reply -)"},

    {"RequestsWaitWhileTheChannelAwaitsAReply", R"(
        send_request mine 100; peer_sends request A; peer_sends request B  => peer_got request mine
        actors handle pass; advance 100     => timeout, actor0 A, actor0 B
        send_request mine 100; peer_sends request A; peer_sends request B  => peer_got request mine
        actors handle:+ pass
        peer_sends reply yes => response yes, actor0 A, peer_got reply +, actor0 B, peer_got reply +)"},

    {"WhatCannotBeSentLeavesTheChannelAsItWas", R"(
        actors defer pass; peer_sends request x       => actor0 x
        fail send
        on link_down: send_request inside 0           # which does not run the callback again
        send_request lost 100    => link_down tcp://link:7, send_request: -1, send_request: -1
        send_reply lost          => link_down tcp://link:7, send_reply: -1
        fail nothing; peer_misses 3
        send_reply at-last                            => peer_got reply at-last
        send_request again 100                        => peer_got request again)"},

    {"ASilentPeerIsDeclaredDownOnceAndItsChannelStays", R"(
        enable_heartbeat 100 0; peer_sends heartbeatack {}
        advance 99; next_timer; advance 1   => next timer 1, link_down tcp://link:7
        peer_sends heartbeat {}; next_timer => peer_got heartbeatack {sequence:0}~, next timer -1
        enable_heartbeat 100 2; peer_sends heartbeatack {}
        advance 100                         => peer_got heartbeat {sequence:1}, {interval:100},{count:2}~
        advance 99
        advance 1                           => peer_got heartbeat {sequence:2}, {interval:100},{count:2}~
        advance 99
        advance 1                           => link_down tcp://link:7
        peer_sends heartbeat {}; next_timer => peer_got heartbeatack {sequence:2}~, next timer -1)"},

    {"AHeartbeatThatGivesUpInsideLinkDownIsReportedAfterIt", R"(
        send_request ping 100               => peer_got request ping
        enable_heartbeat 100 0; peer_sends heartbeatack {}
        on timeout: peer_sends_bytes 36-bytes-that-begin-no-frame-at-all!
        on link_down: advance 0; send_reply early # the heartbeat is due
        advance 100                         => timeout, link_down tcp://link:7, send_reply: -1,
                                            => link_down tcp://link:7)"},

    {"EveryAcceptedMessageRestartsSupervisionAndARejectedOneDoesNot", R"(
        enable_heartbeat 100 1; actors handle pass; peer_sends request x  => actor0 x
        advance 199                         => peer_got heartbeat {sequence:1}, {interval:100},{count:1}~
        peer_sends reply x; advance 199     => peer_got heartbeat {sequence:1}, {interval:100},{count:1}~
        peer_sends heartbeatack {}; advance 99
        drop_frames 1; peer_sends request after-a-gap
        advance 100                         => peer_got heartbeat {sequence:1}, {interval:100},{count:1}~
        advance 1                           => link_down tcp://link:7)"},

    {"ANewCountHoldsAtOnceAndANewIntervalFromTheNextMessageOn", R"(
        enable_heartbeat 100 1; peer_sends heartbeatack {}
        enable_heartbeat 300 0; next_timer  => next timer 100
        peer_sends heartbeatack {}; next_timer  => next timer 300
        enable_heartbeat 100 5; advance 300 => peer_got heartbeat {sequence:1}, {interval:100},{count:5}~
        enable_heartbeat 0 1; peer_sends heartbeatack {}; next_timer  => next timer 300)"},
};

struct OneLink : ChannelTest, testing::WithParamInterface<Scenario> {
};

TEST_P(OneLink, OnAClient)
{
    prepare("create_client; connect; drop_frames 1"); // a pair's peer has sent a login already
    play(GetParam().steps);
}

TEST_P(OneLink, OnAPair)
{
    prepare("peer_logs_in tcp://link:7");
    play(GetParam().steps);
}

INSTANTIATE_TEST_SUITE_P(Scenarios, OneLink, testing::ValuesIn(scenarios),
                         [](const auto &info) { return std::string(info.param.name); });
