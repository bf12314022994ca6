// test_link.cpp - requests, replies and supervision over one channel, the same on a client and on a
// pair.

#include "channel_fixture.h"

static const struct Scenario {
    const char *name, *steps;
} scenarios[] = {
    {"AReplyEndsTheWaitForOneRequest", R"(
        ask a~b 100       => hears request a~b;
        ask second 100    => ask: -1;
        log               => has pending outgoing request, could not send request now;
        in resp ask next 200; gets reply c~d => resp c~d, hears request next;
        left => 200; gets reply => resp (null))"},

    {"ATimeOutEndsTheWaitAndWithoutATimerOnlyTheReplyDoes", R"(
        ask ping 100      => hears request ping;
        in timeout ask early 100; after 99; after 1 => timeout, ask: -1;
        ask tell 0 & ask tell -1 => hears request tell, hears request tell;
        gets reply late; log => no outgoing request, response discarded;
        fail ruvo_start_timer & ask more 100 => hears request more;
        gets reply told   => resp told;
        fail nothing & ask ping 100 => hears request ping;
        in timeout gets reply just-in-time & ask next 100;
        after 100         => timeout, resp just-in-time, hears request next;
        ask early 100     => ask: -1)"},

    {"ActorsAreAskedInOrderUntilOneTakesTheRequest", R"(
        actors P Hb  & gets request x  => actor0 x, actor1 x, hears reply b;
        actors Pa H  & gets request x  => actor0 x, actor1 x, hears reply a;
        actors Xa Hb & gets request x  => actor0 x, hears reply a;
        actors H Hb  & gets request x  => actor0 x;
        respond late => respond: -1; log => no message pending, response discarded;
        actors Pa D  & gets request x  => actor0 x, actor1 x;
        respond late => hears reply late;
        in actor0 respond early; actors D Hb  & gets request x => actor0 x, respond: -1;
        respond late => hears reply late;
        actors Pa P  & gets request x  => actor0 x, actor1 x;
        log          => no actor registered to process this msg:
                        7 velun_tolvane_request tcp://link:7 velun_tolvane_payload x;
        gets request; log => get_msg_payload, unexpected tolvane received,
                        not expected msg layout, ignore: 8 velun_tolvane_request tcp://link:7)"},

    // After four replies the queue's indices begin anew. The last reply serves all, nested.
    {"EightRequestsWaitBehindADeferredOneAndTheNinthIsDropped", R"(
        actors D P & gets request 1 => actor0 1;
        gets request 2 & gets request 3 & gets request 4 & gets request 5 & gets request 6 &
        gets request 7 & gets request 8 & gets request 9 & gets request lost;
        respond + => hears reply +, actor0 2; respond + => hears reply +, actor0 3;
        respond + => hears reply +, actor0 4; respond + => hears reply +, actor0 5;
        gets request a & gets request b & gets request c & gets request d & gets request lost;
        actors H- P & respond + => hears reply +,
            actor0 6, hears reply -, actor0 7, hears reply -, actor0 8, hears reply -,
            actor0 9, hears reply -, actor0 a, hears reply -, actor0 b, hears reply -,
            actor0 c, hears reply -, actor0 d, hears reply -)"},

    // Also when the first one of them gets no reply.
    {"RequestsWaitWhileTheChannelAwaitsAReply", R"(
        actors H P; ask mine 100 & gets request A & gets request B => hears request mine;
        after 100       => timeout, actor0 A, actor0 B;
        actors H+ P; ask mine 100 & gets request A & gets request B => hears request mine;
        gets reply yes  => resp yes, actor0 A, hears reply +, actor0 B, hears reply +)"},

    {"WhatCannotBeSentLeavesTheChannelAsItWas", R"(
        actors D P & gets request x => actor0 x;
        fail send & in linkdown ask untold 0;
        ask lost 100      => linkdown tcp://link:7, ask: -1, ask: -1;
        respond lost      => linkdown tcp://link:7, respond: -1;
        lose 0 3 & fail nothing; respond at-last => hears reply at-last;
        ask again 100     => hears request again)"},

    {"ASilentPeerIsDeclaredDownOnceAndItsChannelStays", R"(
        supervise 100 0 & gets heartbeatack {}; after 99; after 1 => linkdown tcp://link:7;
        gets heartbeat {} => hears heartbeatack {sequence:0}~; left => -1;
        supervise 100 2 & gets heartbeatack {};
        after 99; after 1 => hears heartbeat {sequence:1}, {interval:100},{count:2}~;
        after 99; after 1 => hears heartbeat {sequence:2}, {interval:100},{count:2}~;
        after 99; after 1 => linkdown tcp://link:7;
        gets heartbeat {} => hears heartbeatack {sequence:2}~; left => -1)"},

    {"EveryAcceptedMessageStartsSupervisionAnewAndARefusedOneDoesNot", R"(
        actors H P & supervise 100 1; gets request x => actor0 x;
        after 199         => hears heartbeat {sequence:1}, {interval:100},{count:1}~;
        gets reply x & after 199        => hears heartbeat {sequence:1}, {interval:100},{count:1}~;
        gets heartbeatack {} & after 99; lose 1 0 & gets request after-a-gap;
        after 100         => hears heartbeat {sequence:1}, {interval:100},{count:1}~;
        after 1           => linkdown tcp://link:7)"},

    // A change is not a start: that comes with the next message, if there is an interval.
    {"NewSettingsCountAtOnceAndChangeThePeriodWithTheNextStart", R"(
        supervise 100 1 & gets heartbeatack {}; supervise 300 0 & left => 100;
        gets heartbeatack {} & left   => 300;
        supervise 100 5;
        after 300         => hears heartbeat {sequence:1}, {interval:100},{count:5}~;
        supervise 0 1 & gets heartbeatack {} & left   => 300)"},
};

struct OneLink : ChannelTest, testing::WithParamInterface<Scenario> {
};

TEST_P(OneLink, OnAClient)
{
    prepare("client & dial & lose 1 0"); // whose peer has sent no login
    play(GetParam().steps);
}

TEST_P(OneLink, OnAPair)
{
    prepare("login tcp://link:7");
    play(GetParam().steps);
}

INSTANTIATE_TEST_SUITE_P(Plays, OneLink, testing::ValuesIn(scenarios),
                         [](const auto &info) { return std::string(info.param.name); });
