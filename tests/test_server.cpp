// test_server.cpp - the service server: its callbacks in order, its pairs, and all clients at once.

#include "channel_fixture.h"

using Server = ChannelTest;

TEST_F(Server, TellsOfLoginReplacementAndLogoutInOrder)
{
    Link a = login("tcp://a:1"), b = login("tcp://b:1");
    receive(a, "login", a.url + '\0'); // once more on the same connection
    EXPECT_EQ(happened(), Events({"fd-open pair1", "connected pair1 tcp://a:1", "fd-open pair2",
                                  "connected pair2 tcp://b:1", "connected pair1 tcp://a:1"}));
    inside["connected"] = [] { EXPECT_EQ(tv_get_client_channel("a", 1), -1); }; // not yet
    Link again = login("tcp://a:1");
    EXPECT_EQ(tv_get_client_channel("a", 1), again.id);
    EXPECT_EQ(log.take().back(), "login_msg_received, close previous channel for url: tcp://a:1");
    EXPECT_EQ(a.hear(), "closed");
    receive(again, "logout", again.url + '\0');
    EXPECT_EQ(log.take().back(), "logout msg received");
    tv_close_client_connection(b.id);
    EXPECT_EQ(happened(), Events({"fd-open pair3", "disconnected pair1 tcp://a:1", "fd-close pair1",
                                  "connected pair3 tcp://a:1", "fd-close pair3",
                                  "disconnected pair3 tcp://a:1", "fd-close pair2"}));
}

TEST_F(Server, DropsALoginWithoutAUrlAndCutsALongOne)
{
    script = {"Hok"};
    Link pair = connect(""); // served before its login, and another one that a "" would match
    receive(pair, "request", "early");
    pair.expect("reply", "ok");
    Link other = connect("");
    receive(other, "login", std::string(1, '\0'));
    other.send("1\nvelun_tolvane_login\ntcp://x:1"); // no marker
    serve(other);
    const std::string url = "tcp://" + std::string(70, 'u');
    receive(pair, "login", url + '\0');
    EXPECT_EQ(tv_get_channel(pair.id)->url, url.substr(0, 63));
    other.send("2\nvelun_tolvane_logout\n");
    serve(other);
    EXPECT_EQ(happened(),
              Events({"fd-open pair1", "actor0 pair1 early", "fd-open pair2",
                      "connected pair1 " + url, "fd-close pair2", "disconnected pair2"}));
    log.take();
    receive(pair, "news", "x");
    log.expect({"get_msg_type, unexpected tolvane received", "unexpected msg type received!!!"});
}

TEST_F(Server, SupervisesAllClientsWithOneTimerEach)
{
    Link a = login("tcp://a:1");
    inside["fd-open"] = [&] { // the settings are read afterwards, the callbacks before, too
        EXPECT_EQ(tv_get_channel(newestPair)->linkdownCallback, on_linkdown);
        tv_set_poll_timeout(server, 700);
        tv_client_enable_heartbeat(server, 100, 1, nullptr);
    };
    Link b = connect("tcp://b:1");
    EXPECT_EQ(hand_timer_pending(), std::vector<int>({100}));
    EXPECT_EQ(tv_get_channel(b.id)->pollTimeout, 700);
    EXPECT_EQ(tv_get_channel(b.id)->linkdownCallback, nullptr);
    receive(b, "login", b.url + '\0');
    happened();
    for (const int interval : {100, 300})
        tv_service_enable_heartbeat(interval, 1, on_linkdown);
    EXPECT_EQ(hand_timer_pending(), std::vector<int>({300, 300}));
    hand_timer_advance(300);
    receive(a, "heartbeatack", "{}");
    tv_service_enable_heartbeat(0, 0, on_linkdown); // restarts nothing: down whatever comes
    receive(a, "heartbeatack", "{}");
    hand_timer_advance(300);
    EXPECT_EQ(happened(), Events({"linkdown pair2 tcp://b:1", "linkdown pair1 tcp://a:1"}));
}

TEST_F(Server, FindsListsAndAddressesItsClients)
{
    Link a = login("tcp://a:80"), b = login("tcp://b:80");
    EXPECT_EQ(tv_get_client_channel("b", 80), b.id);
    for (const auto &[ip, port] : {std::pair("b", 8), {"B", 80}, {"", 80}, {nullptr, 80}})
        EXPECT_EQ(tv_get_client_channel(ip, port), -1);

    const int first = tv_get_polling_fd(a.id), second = tv_get_polling_fd(b.id);
    std::vector<int> fds(3, -1);
    log.take();
    EXPECT_EQ(tv_get_all_client_fds(fds.data(), 1), 0);
    log.expect({"too many fds, maxsize is [1]"});
    EXPECT_EQ(fds, (std::vector<int>{first, -1, -1}));
    EXPECT_EQ(tv_get_all_client_fds(fds.data(), 2), 0);
    EXPECT_EQ(fds, (std::vector<int>{first, second, -1}));
    log.expect({});

    EXPECT_EQ(request(a, "mine", 100), 0);
    a.expect("request", "mine");
    EXPECT_EQ(tv_broadcast_rqst_to_client("all", 3), 0);
    a.expectSilence(); // awaits a reply
    b.expect("request", "all");
    log.take();
    receive(b, "reply", "x");
    log.expect({"no outgoing request, response discarded"});
}

TEST_F(Server, ABroadcastInsideABroadcastMayCloseThePairThatComesNext)
{
    Link a = login("tcp://a:1"), b = login("tcp://b:1"), c = login("tcp://c:1");
    for (const int id : {a.id, b.id})
        tv_get_channel(id)->pollTimeout = 0; // sends fail
    inside["linkdown"] = [&] {
        inside["linkdown"] = [&] { tv_close_channel(b.id); };
        tv_broadcast_rqst_to_client("inner", 5);
    };
    happened();
    tv_broadcast_rqst_to_client("outer", 5);
    EXPECT_EQ(happened(),
              Events({"linkdown pair1 tcp://a:1", "linkdown pair2 tcp://b:1", "fd-close pair2"}));
    c.expect("request", "inner");
    c.expect("request", "outer");
}

TEST_F(Server, StopsInOrderAndStartsAgain)
{
    Link a = login("tcp://a:1"), b = login("tcp://b:1"), c = login("tcp://c:1");
    tv_remove_channel(tv_get_channel(b.id)); // cannot be closed by its id any more
    tv_channel *own = (tv_channel *)malloc(sizeof(tv_channel)); // another one that has this id
    init_channel(own, b.id);
    tv_add_channel(own);
    tv_close_channel(b.id); // the pair stays the server's
    const int port = port_of(tv_get_server_polling_fd());
    happened();
    EXPECT_EQ(tv_start_server("127.0.0.1", 0), -1); // a server runs
    EXPECT_EQ(tv_service_server.serverChannel->channelId, server);
    inside["fd-close"] = [&] { inside["fd-close"] = [] { tv_stop_server(); }; }; // that of b
    tv_stop_server();
    EXPECT_EQ(happened(), Events({"fd-close pair1", "fd-close pair2", "fd-close pair3"}));
    EXPECT_EQ(b.hear(), "closed");

    const int id = tv_get_channel_id();
    log.take();
    EXPECT_EQ(tv_start_server("127.0.0.1", port_of(hub)), -1); // taken
    log.expect({"impl_create_server_socket, failed on bind"});
    const auto resp = [](int, const char *, int) {};
    const auto timeout = [](int) {};
    server = tv_start_service_server(tv_service_server.listenIp, port, resp, timeout, nullptr);
    EXPECT_EQ(tv_get_channel(server)->respHandler, resp);
    EXPECT_EQ(tv_get_channel(server)->timeoutHandler, timeout);
    EXPECT_EQ(server, id + 2); // a failed start uses up an id
    EXPECT_EQ(tv_service_server.listenIp, std::string("127.0.0.1"));
    login("tcp://a:1"); // the start without a connected callback has cleared it, and no other
    EXPECT_EQ(happened(), Events({"fd-open pair1"}));
    tv_remove_channel(tv_get_channel(server)); // it cannot be closed by its id, either
    tv_stop_server();
    EXPECT_EQ(happened(), Events({"fd-close pair1"})); // and the callback is for pairs only
}

TEST_F(Server, AServerThatIsStartedInsideAStopStays)
{
    int newcomer = -1;
    login("tcp://a:1");
    inside["fd-close"] = [&] {
        tv_stop_server();
        startServer();
        newcomer = login("tcp://b:1").id;
    };
    tv_stop_server();
    EXPECT_EQ(get_channel_type(server), TV_CHANNEL_SERVER);
    EXPECT_EQ(get_channel_type(newcomer), TV_CHANNEL_PAIR);
}

TEST_F(Server, BeforeTheFirstStartEveryOperationReturns)
{
    tv_stop_server();
    tv_service_server.pairList = {nullptr, nullptr};
    tv_stop_server();
    EXPECT_EQ(tv_service_enable_heartbeat(100, 1, on_linkdown), 0);
    EXPECT_EQ(tv_broadcast_rqst_to_client("x", 1), 0);
    int fd = dup(hub);
    EXPECT_EQ(tv_get_all_client_fds(&fd, 1), 0);
    EXPECT_EQ(create_pair_channel(fd), -1); // closes it
    EXPECT_EQ(tv_server_fd_handler(-1, 0, 0), -1);
    EXPECT_EQ(tv_pair_fd_handler(fd, 0, 0), 0);
    EXPECT_EQ(tv_get_server_polling_fd(), -1);
    EXPECT_EQ(tv_get_client_channel("a", 1), -1);
    EXPECT_EQ(happened(), Events());
}
