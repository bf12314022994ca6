// test_client.cpp - connecting, logging in and out, what a client's handler does with each message,
// and the operations by id.

#include "channel_fixture.h"

#include <limits.h>

using Client = ChannelTest;

TEST_F(Client, ReconnectsOnANewConnectionAndStartsItsHeartbeat)
{
    run("client");
    EXPECT_EQ(tv_get_polling_fd(current->id), -1);
    tv_set_connect_timeout(current->id, 150);
    play(R"(
        logout                => logout: -1;
        lose 0 1;
        dial                  => dials 127.0.0.1:80 within 150, hears login tcp://link:7~;
        supervise 100 1 & left => -1;
        dial & left           => hears the end, dials 127.0.0.1:80 within 150,
                                 hears login tcp://link:7~, 100;
        logout                => hears logout tcp://link:7~;
        fail send; dial => hears the end, dials 127.0.0.1:80 within 150,
                                 linkdown tcp://link:7, dial: -1;
        fail connect & dial   => hears the end, dials 127.0.0.1:80 within 150, dial: -1)");
    EXPECT_EQ(logged.back(), "create client or connect server fail");
    EXPECT_EQ(tv_get_polling_fd(current->id), -1);
}

TEST_F(Client, AcceptsTheSuccessorAndAnythingAfterZero)
{
    const int cases[][3] = {
        {0, 5, 5},       {0, -3, -3},     {5, 6, 6},  {5, 7, 6},   {5, 5, 6},
        {INT_MAX, 0, 0}, {INT_MAX, 1, 0}, {-3, 0, 0}, {-3, -2, 0},
    };
    prepare("client");
    tv_channel *channel = tv_get_channel(current->id);
    for (const auto &[last, number, expected] : cases) {
        const bool accepted = number == expected;
        channel->recvSequence = last;
        EXPECT_EQ(tv_msg_received(channel, number), accepted ? 0 : -1);
        EXPECT_EQ(channel->recvSequence, accepted ? number : last);
        if (!accepted) {
            EXPECT_LOG({"unexpected msg with seq[" + std::to_string(number) +
                        "] received, ignore, expected[" + std::to_string(expected) + "]"});
        }
    }
}

TEST_F(Client, HandlesEachMessageByItsType)
{
    prepare("client & dial & actors H P");
    run("says request x & says reply x & says heartbeat x & says heartbeatack x & says logout x");
    for (const int result : {0, -1, 0, 0, -1})
        EXPECT_EQ(handle_client_polling_fd(tv_get_channel(current->id)), result);
    EXPECT_LOG({"no outgoing request, response discarded", "heartbeat msg", "heartbeat ack msg",
                "unexpected msg received"});
    play("=> actor0 x, hears heartbeatack {sequence:0}~");
    play("empty => linkdown tcp://link:7");
}

TEST_F(Client, AnIdThatNamesNothingOrNoClientIsLoggedInTheOperationsName)
{
    const std::pair<std::string, std::function<int(int)>> operations[] = {
        {"connect_server", [](int id) { return tv_connect_server(id); }},
        {"disconnect_server", [](int id) { return tv_disconnect_server(id); }},
        {"get_channel", [](int id) { return tv_set_poll_timeout(id, 1); }},
        {"register_actor", [](int id) { return tv_register_actor(id, nullptr); }},
        {"register_resp_handler", [](int id) { return tv_register_resp_handler(id, nullptr); }},
        {"send_rqst", [](int id) { return tv_send_rqst(id, "", 0, 1); }},
        {"send_resp", [](int id) { return tv_send_resp(id, "", 0); }},
        {"get_polling_fd", [](int id) { return tv_get_polling_fd(id); }},
        {"close_channel", [](int id) { return tv_close_channel(id), -1; }},
        {"channel_fd_handler", [](int id) { return tv_channel_fd_handler(0, id, 0) - 1; }},
    };
    for (const auto &[name, operation] : operations) {
        EXPECT_EQ(operation(123456), -1);
        EXPECT_LOG({"could not get channel with id[123456] in tv_" + name});
    }
    for (int i = 0; i < 2; i++) {
        EXPECT_EQ(operations[i].second(server), -1);
        EXPECT_LOG({"failed on tv_" + operations[i].first + ", channel[" + std::to_string(server) +
                    "] is not a client"});
    }
    EXPECT_EQ(tv_send_rqst(server, "", 0, 0), -1);
    EXPECT_LOG({"error in tv_impl_send_rqst, could not send msg to listening socket",
                "failed to send rqst"});
}

TEST_F(Client, SettersRefuseWhatMakesNoSenseAndTextsAreCut)
{
    tv_client_addr addr = {"", "", 1, 65535};
    memset(addr.serverIp, '1', TV_IP_SIZE); // without an end
    memset(addr.clientIp, '2', TV_IP_SIZE);
    const int id = tv_create_client_channel(&addr);
    const tv_channel *channel = tv_get_channel(id);
    EXPECT_EQ(channel->serverIp, std::string(15, '1'));
    EXPECT_EQ(channel->url, "tcp://" + std::string(16, '2') + ":65535");
    EXPECT_EQ(tv_set_poll_timeout(id, 0), -1);
    tv_set_connect_timeout(id, 0);
    EXPECT_EQ(channel->pollTimeout, INT_MAX);
    EXPECT_EQ(channel->connectTimeout, -1);
    tv_client_enable_heartbeat(id, 100, 1, nullptr);
    EXPECT_EQ(channel->hbMode, TV_HEARTBEAT_ON); // from the next message on
    for (int i = 0; i <= TV_MAX_ACTORS; i++)
        EXPECT_EQ(tv_register_actor(id, act<0>), i < TV_MAX_ACTORS ? 0 : -1);
    EXPECT_LOG({"too many actors, limitation is 16"});
    prepare("accept");
    EXPECT_EQ(tv_register_actor(current->id, act<0>), -1);
    EXPECT_LOG({"should not register actor for pair channel, register for server"});
    tv_close_channel(id);
}

TEST_F(Client, WhatCannotBePackedIsNotSentAndWhatHasNoTimerIs)
{
    prepare("client & dial & actors D P & gets request x");
    EXPECT_EQ(tv_send_rqst(current->id, nullptr, 0, 100), -1);
    EXPECT_EQ(tv_send_rqst(current->id, "", -1, 100), -1);
    EXPECT_EQ(tv_send_resp(current->id, "", -1), -1);
    const std::string negative = "pack_msg_to_buf, negative length[-1]";
    EXPECT_LOG({"pack requst fail:0", negative, "pack requst fail:-1", negative});
    play("respond late => hears reply late; fail ruvo_start_timer & ask x 100 => hears request x");
    EXPECT_EQ(logged.back(),
              "failed on start timer for channel[" + std::to_string(current->id) + "]");
}

TEST_F(Client, WaitsForNothingLongerThanItsPollTimeout)
{
    prepare("client & dial");
    for (const std::string wait : {"flood & flood & flood", "serve"}) { // no room, and nothing to read
        const long long start = now;
        run(wait);
        EXPECT_EQ(now - start, 100);
    }
    happened();
}

TEST_F(Client, NeedsNoHandlers)
{
    prepare("client & dial");
    tv_register_resp_handler(current->id, nullptr);
    tv_register_timeout_handler(current->id, nullptr);
    tv_register_linkdown_callback(current->id, nullptr);
    for (const char *const end : {"gets reply pong", "after 100"}) {
        play("ask ping 100 & "s + end + " => hears request ping");
        awaited.clear();
    }
    play("fail send & ask ping 100 => ask: -1");
}
