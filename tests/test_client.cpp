// test_client.cpp - connecting, logging in and out, what a client's handler does with each message,
// and the operations by id.

#include "channel_fixture.h"

#include <limits.h>

using Client = ChannelTest;

TEST_F(Client, ReconnectsOnANewConnectionAndStartsItsHeartbeat)
{
    const int id = newClient();
    EXPECT_EQ(tv_get_polling_fd(id), -1);
    EXPECT_EQ(tv_disconnect_server(id), -1); // not connected: no link that could be down
    Link first = dial(id);
    tv_client_enable_heartbeat(id, 100, 1, on_linkdown);
    EXPECT_EQ(hand_timer_pending(), std::vector<int>());
    EXPECT_EQ(tv_get_channel(id)->hbMode, TV_HEARTBEAT_ON);
    Link second = dial(id);
    EXPECT_EQ(hand_timer_pending(), std::vector<int>({100}));
    first.heard = 1;
    first.expect("login", first.url + '\0');
    EXPECT_EQ(first.hear(), "closed");
    EXPECT_EQ(tv_disconnect_server(id), 0);
    second.heard = 2;
    for (const char *tag : {"login", "logout"})
        second.expect(tag, second.url + '\0');
    second.expectSilence(); // stays open

    tv_get_channel(id)->pollTimeout = 0; // the login cannot be sent
    EXPECT_EQ(tv_connect_server(id), -1);
    EXPECT_EQ(happened(), Events({"linkdown link " + second.url}));
    tv_get_channel(id)->serverPort = 1;
    for (const int timeout : {-1, 100}) { // with the system's limit, and with the channel's
        tv_set_connect_timeout(id, timeout);
        log.take();
        EXPECT_EQ(tv_connect_server(id), -1);
        const auto entries = log.take();
        EXPECT_EQ(entries.front().rfind("nonblock connecting mode", 0) == 0, timeout == 100);
        EXPECT_EQ(entries.back(), "create client or connect server fail");
        EXPECT_EQ(tv_get_polling_fd(id), -1);
    }
    EXPECT_EQ(happened(), Events());
}

TEST_F(Client, AcceptsTheSuccessorAndAnythingAfterZero)
{
    const struct {
        int last, number, result, expected;
    } cases[] = {
        {0, 5, 0, 0},       {0, -3, 0, 0},       {5, 6, 0, 0},  {5, 7, -1, 6},   {5, 5, -1, 6},
        {INT_MAX, 0, 0, 0}, {INT_MAX, 1, -1, 0}, {-3, 0, 0, 0}, {-3, -2, -1, 0},
    };
    tv_channel *channel = tv_get_channel(newClient());
    for (const auto &now : cases) {
        channel->recvSequence = now.last;
        EXPECT_EQ(tv_msg_received(channel, now.number), now.result);
        EXPECT_EQ(channel->recvSequence, now.result == 0 ? now.number : now.last);
        if (now.result != 0)
            log.expect({"unexpected msg with seq[" + std::to_string(now.number) +
                        "] received, ignore, expected[" + std::to_string(now.expected) + "]"});
    }
}

TEST_F(Client, HandlesEachMessageByItsType)
{
    const std::pair<const char *, int> results[] = {
        {"request", 0}, {"reply", -1}, {"heartbeat", 0}, {"heartbeatack", 0}, {"login", -1},
    };
    script = {"H"};
    Link client = makeLink(TV_CHANNEL_CLIENT);
    for (const auto &[tag, result] : results) {
        client.say(tag, "x");
        EXPECT_TRUE(wait_for(tv_get_polling_fd(client.id), POLLIN));
        EXPECT_EQ(handle_client_polling_fd(tv_get_channel(client.id)), result) << tag;
    }
    log.expect({"no outgoing request, response discarded", "heartbeat msg", "heartbeat ack msg",
                "unexpected msg received"});
    client.send("");
    serve(client);
    EXPECT_EQ(happened(), Events({"actor0 link x", "linkdown link " + client.url}));
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
        log.expect({"could not get channel with id[123456] in tv_" + name});
    }
    for (int i = 0; i < 2; i++) {
        EXPECT_EQ(operations[i].second(server), -1);
        log.expect({"failed on tv_" + operations[i].first + ", channel[" + std::to_string(server) +
                    "] is not a client"});
    }
    EXPECT_EQ(tv_send_rqst(server, "", 0, 0), -1);
    log.expect({"error in tv_impl_send_rqst, could not send msg to listening socket",
                "failed to send rqst"});
}

TEST_F(Client, SettersRefuseWhatMakesNoSenseAndTextsAreCut)
{
    tv_client_addr addr = {"", "", 1, 65535};
    memset(addr.serverIp, '1', TV_IP_SIZE); // without an end
    memset(addr.clientIp, '2', TV_IP_SIZE);
    const int id = tv_create_client_channel(&addr);
    names[id] = "link";
    const tv_channel *channel = tv_get_channel(id);
    EXPECT_EQ(channel->serverIp, std::string(15, '1'));
    EXPECT_EQ(channel->url, "tcp://" + std::string(16, '2') + ":65535");
    EXPECT_EQ(tv_set_poll_timeout(id, 0), -1);
    tv_set_connect_timeout(id, 0);
    EXPECT_EQ(channel->pollTimeout, INT_MAX);
    EXPECT_EQ(channel->connectTimeout, -1);
    for (int i = 0; i <= TV_MAX_ACTORS; i++)
        EXPECT_EQ(tv_register_actor(id, act<0>), i < TV_MAX_ACTORS ? 0 : -1);
    log.expect({"too many actors, limitation is 16"});
    EXPECT_EQ(tv_register_actor(login("tcp://pair:7").id, act<0>), -1);
    EXPECT_EQ(log.take().back(), "should not register actor for pair channel, register for server");
}
