// test_client.cpp - connecting and logging in, what a client's handler does with each message, and
// the operations by id.

#include "channel_fixture.h"

#include <limits.h>

struct Client : ChannelTest {
};

TEST_F(Client, LogsInAndOutWithTheseBytes)
{
    Link client = dial(newClient(port_of(hub)));
    EXPECT_EQ(tv_disconnect_server(client.id), 0);
    for (const std::string tag : {"0\nvelun_tolvane_login", "1\nvelun_tolvane_logout"}) {
        const std::string url("tcp://client:7");
        const std::string body = tag + "\n" + url + "\nvelun_tolvane_payload\n" + url + '\0';
        std::string frame("TCP_WATER_MARK");
        frame.resize(35);
        frame += (char)body.size() + body;
        std::string bytes(frame.size(), '\0');
        EXPECT_TRUE(wait_for(client.peer.fd, POLLIN));
        EXPECT_EQ(recv(client.peer.fd, &bytes[0], bytes.size(), 0), (int)frame.size());
        EXPECT_EQ(bytes, frame);
    }
    EXPECT_EQ(get_channel_type(client.id), TV_CHANNEL_CLIENT); // stays open
    client.peer.expectSilence();
}

TEST_F(Client, ReconnectsOnANewConnectionAndStartsItsHeartbeat)
{
    const int id = newClient(port_of(hub));
    EXPECT_EQ(tv_get_polling_fd(id), -1);
    EXPECT_EQ(tv_disconnect_server(id), -1); // not connected: no link that could be down
    Link first = dial(id);
    first.peer.heard++;
    first.peer.expect("login", first.peer.url + '\0');
    tv_client_enable_heartbeat(id, 100, 1, linkdown);
    EXPECT_EQ(hand_timer_intervals(), std::vector<int>());
    Link second = dial(id);
    EXPECT_EQ(hand_timer_intervals(), std::vector<int>({100}));
    EXPECT_EQ(first.peer.hear(), "closed");
    second.peer.heard = 2;
    second.peer.expect("login", second.peer.url + '\0');

    for (const int timeout : {-1, 100}) { // with the system's limit, and with the channel's
        tv_set_connect_timeout(id, timeout);
        tv_get_channel(id)->serverPort = 1;
        EXPECT_EQ(tv_connect_server(id), -1);
        EXPECT_EQ(log.take().back(), "create client or connect server fail");
        EXPECT_EQ(tv_get_polling_fd(id), -1);
    }
    EXPECT_EQ(happened(), Events());
}

TEST_F(Client, OnlyAClientConnects)
{
    const int pair = login("tcp://pair:7").id;
    log.take();
    for (const int id : {server, pair}) {
        EXPECT_EQ(tv_connect_server(id), -1);
        EXPECT_EQ(tv_disconnect_server(id), -1);
        const std::string end = ", channel[" + std::to_string(id) + "] is not a client";
        log.expect({"failed on tv_connect_server" + end, "failed on tv_disconnect_server" + end});
    }
}

TEST_F(Client, AcceptsTheSuccessorAndAnythingAfterZero)
{
    const struct {
        int last, number, result, expected;
    } cases[] = {
        {0, 0, 0, 0},  {0, 5, 0, 0},       {0, -3, 0, 0},       {5, 6, 0, 0},  {5, 7, -1, 6},
        {5, 5, -1, 6}, {INT_MAX, 0, 0, 0}, {INT_MAX, 1, -1, 0}, {-3, 0, 0, 0}, {-3, -2, -1, 0},
    };
    tv_channel *channel = tv_get_channel(newClient(1));
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
    const struct {
        const char *tag;
        int result;
        const char *logged; // last
    } cases[] = {
        {"login", -1, "unexpected msg received"},
        {"logout", -1, "unexpected msg received"},
        {"news", -1, "unexpected msg received"},
        {"heartbeat", 0, "heartbeat msg"},
        {"heartbeatack", 0, "heartbeat ack msg"},
        {"reply", -1, "no outgoing request, response discarded"},
        {"request", 0, ""},
    };
    script = {"H"};
    Link client = link(TV_CHANNEL_CLIENT);
    for (const auto &now : cases) {
        log.take();
        client.peer.say(now.tag, "x");
        EXPECT_TRUE(wait_for(tv_get_polling_fd(client.id), POLLIN));
        EXPECT_EQ(handle_client_polling_fd(tv_get_channel(client.id)), now.result) << now.tag;
        const Events logged = log.take();
        EXPECT_EQ(logged.empty() ? "" : logged.back(), now.logged);
    }
    client.peer.send("");
    serve(client);
    EXPECT_EQ(happened(), Events({"actor0 link x", "linkdown link " + client.peer.url}));
}

TEST_F(Client, AnIdThatNamesNothingIsLoggedInTheOperationsName)
{
    const int id = 123456;
    EXPECT_EQ(tv_get_channel(id), nullptr);
    tv_close_channel(id);
    EXPECT_EQ(tv_register_actor(id, nullptr), -1);
    EXPECT_EQ(tv_register_resp_handler(id, nullptr), -1);
    EXPECT_EQ(tv_register_timeout_handler(id, nullptr), -1);
    EXPECT_EQ(tv_register_linkdown_callback(id, nullptr), -1);
    EXPECT_EQ(tv_set_poll_timeout(id, 0), -1);
    tv_set_connect_timeout(id, 0);
    tv_client_enable_heartbeat(id, 1, 1, nullptr);
    EXPECT_EQ(tv_connect_server(id), -1);
    EXPECT_EQ(tv_disconnect_server(id), -1);
    EXPECT_EQ(tv_send_rqst(id, "", 0, 1), -1);
    EXPECT_EQ(tv_send_resp(id, "", 0), -1);
    EXPECT_EQ(tv_get_polling_fd(id), -1);
    tv_channel_fd_handler(0, id, 0);
    Events misses;
    for (const std::string name :
         {"get_channel", "close_channel", "register_actor", "register_resp_handler",
          "register_timeout_handler", "register_linkdown_callback", "get_channel",
          "set_connect_timeout", "client_enable_heartbeat", "connect_server", "disconnect_server",
          "send_rqst", "send_resp", "get_polling_fd", "channel_fd_handler"})
        misses.push_back("could not get channel with id[123456] in tv_" + name);
    log.expect(misses);
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
    for (int i = 0; i < TV_MAX_ACTORS; i++)
        EXPECT_EQ(tv_register_actor(id, act<0>), 0);
    EXPECT_EQ(tv_register_actor(id, act<0>), -1);
    EXPECT_EQ(tv_register_actor(login("tcp://pair:7").id, act<0>), -1);
    const Events said = log.take();
    EXPECT_EQ(said[0], "too many actors, limitation is 16");
    EXPECT_EQ(said.back(), "should not register actor for pair channel, register for server");
}
