// test_client.cpp - connecting, logging in and out, what a client does with each kind of message,
// and the limits of the operations by id.

#include "channel_fixture.h"

using Client = ChannelTest;

TEST_F(Client, ConnectsAgainOnANewConnection)
{
    run("create_client");
    EXPECT_EQ(tv_get_polling_fd(current->channelId), -1);
    play(R"(
        set_connect_timeout 150
        disconnect                      => disconnect: -1
        peer_misses 1                 # the logout, which was numbered
        connect     => connecting to 127.0.0.1:80 within 150, peer_got login tcp://link:7~
        enable_heartbeat 100 1
        next_timer                      => next timer -1
        connect     => peer_got EOF, connecting to 127.0.0.1:80 within 150,
                    => peer_got login tcp://link:7~
        next_timer                      => next timer 100
        disconnect                      => peer_got logout tcp://link:7~
        fail send
        connect     => peer_got EOF, connecting to 127.0.0.1:80 within 150,
                    => link_down tcp://link:7, connect: -1
        fail connect
        connect     => peer_got EOF, connecting to 127.0.0.1:80 within 150, connect: -1
        last_logged create client or connect server fail)");
    EXPECT_EQ(tv_get_polling_fd(current->channelId), -1);
}

TEST_F(Client, AcceptsTheNextSequenceNumberAndAnyAfterZero)
{
    const int cases[][3] = {
        // last, received, expected
        {0, 5, 5},       {0, -3, -3},     {5, 6, 6},  {5, 7, 6},   {5, 5, 6},
        {INT_MAX, 0, 0}, {INT_MAX, 1, 0}, {-3, 0, 0}, {-3, -2, 0},
    };
    prepare("create_client");
    tv_channel *channel = tv_get_channel(current->channelId);
    for (const auto &[last, number, expected] : cases) {
        channel->recvSequence = last;
        if (number == expected) {
            EXPECT_EQ(tv_msg_received(channel, number), 0);
            EXPECT_EQ(channel->recvSequence, number);
        } else {
            EXPECT_EQ(tv_msg_received(channel, number), -1);
            EXPECT_EQ(channel->recvSequence, last);
            EXPECT_LOG({"unexpected msg with seq[" + std::to_string(number) +
                        "] received, ignore, expected[" + std::to_string(expected) + "]"});
        }
    }
}

TEST_F(Client, HandlesEachMessageByItsKind)
{
    prepare("create_client; connect; actors handle pass");
    const std::pair<std::string, int> kinds[] = {
        {"request", 0}, {"reply", -1}, {"heartbeat", 0}, {"heartbeatack", 0}, {"logout", -1}};
    for (const auto &[kind, result] : kinds) {
        run("peer_buffers " + kind + " x");
        EXPECT_EQ(handle_client_polling_fd(tv_get_channel(current->channelId)), result) << kind;
    }
    EXPECT_LOG({"no outgoing request, response discarded", "heartbeat msg", "heartbeat ack msg",
                "unexpected msg received"});
    play(R"(
                                        => actor0 x, peer_got heartbeatack {sequence:0}~
        peer_sends_empty_frame          => link_down tcp://link:7)");
}

TEST_F(Client, OperationsLogAnUnknownIdAndAChannelThatIsNoClient)
{
    const std::pair<std::string, std::function<int(int)>> operations[] = {
        {"connect_server", tv_connect_server},
        {"disconnect_server", tv_disconnect_server},
        {"send_rqst", [](int id) { return tv_send_rqst(id, "", 0, 1); }},
        {"get_polling_fd", tv_get_polling_fd},
    };
    for (const auto &[name, operation] : operations) {
        EXPECT_EQ(operation(123456), -1);
        EXPECT_LOG({"could not get channel with id[123456] in tv_" + name});
    }
    for (int i = 0; i < 2; i++) {
        const auto &[name, operation] = operations[i];
        EXPECT_EQ(operation(serverId), -1);
        EXPECT_LOG({"failed on tv_" + name + ", channel[" + std::to_string(serverId) +
                    "] is not a client"});
    }
    EXPECT_EQ(tv_send_rqst(serverId, "", 0, 0), -1);
    EXPECT_LOG({"error in tv_impl_send_rqst, could not send msg to listening socket",
                "failed to send rqst"});
}

TEST_F(Client, RefusesSettingsThatMakeNoSenseAndCutsTexts)
{
    tv_client_addr addr = {"", "", 1, 65535};
    memset(addr.serverIp, '1', TV_IP_SIZE); // without a terminating NUL
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
    EXPECT_EQ(channel->hbMode, TV_HEARTBEAT_ON);
    EXPECT_EQ(channel->hbTimerId, -1); // until the next message
    for (int i = 0; i <= TV_MAX_ACTORS; i++)
        EXPECT_EQ(tv_register_actor(id, actor<0>), i < TV_MAX_ACTORS ? 0 : -1);
    EXPECT_LOG({"too many actors, limitation is 16"});
    prepare("accept");
    EXPECT_EQ(tv_register_actor(current->channelId, actor<0>), -1);
    EXPECT_LOG({"should not register actor for pair channel, register for server"});
    tv_close_channel(id);
}

TEST_F(Client, DoesNotSendWhatDoesNotFitAMessage)
{
    prepare("create_client; connect; actors defer pass; peer_sends request x");
    EXPECT_EQ(tv_send_rqst(current->channelId, nullptr, 0, 100), -1);
    EXPECT_EQ(tv_send_rqst(current->channelId, "", -1, 100), -1);
    EXPECT_EQ(tv_send_resp(current->channelId, "", -1), -1);
    const std::string negative = "pack_msg_to_buf, negative length[-1]";
    EXPECT_LOG({"pack requst fail:0", negative, "pack requst fail:-1", negative});
    play("send_reply late => peer_got reply late");
}

TEST_F(Client, WaitsNoLongerThanItsPollTimeout)
{
    prepare("create_client; connect");
    const std::string large = "send_large_request 0; "; // three are too many for the socket
    for (const std::string &wait : {large + large + large, "serve"s}) {
        const long long start = now;
        run(wait);
        EXPECT_EQ(now - start, 100);
    }
    happened();
}

TEST_F(Client, NeedsNoHandlers)
{
    prepare("create_client; connect");
    tv_register_resp_handler(current->channelId, nullptr);
    tv_register_timeout_handler(current->channelId, nullptr);
    tv_register_linkdown_callback(current->channelId, nullptr);
    for (const std::string end : {"peer_sends reply pong", "advance 100"}) {
        play("send_request ping 100; " + end + " => peer_got request ping");
        awaited.clear();
    }
    play("fail send; send_request ping 100 => send_request: -1");
}
