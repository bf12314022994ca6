// test_server.cpp - the service server: its callbacks in order, its pairs, and all clients at once.

#include "channel_fixture.h"

using Server = ChannelTest;

TEST_F(Server, TellsOfLoginReplacementAndLogoutInOrder)
{
    play(R"(
        a: login tcp://a:1        => a: fd-open, a: connected tcp://a:1;
        gets login tcp://a:1~     => a: connected tcp://a:1;
        b: login tcp://c:1        => b: fd-open, b: connected tcp://c:1;
        gets login tcp://b:1~     => b: connected tcp://b:1)");
    EXPECT_EQ(tv_get_client_channel("b", 1), current->id);
    inside["connected"] = {[] { EXPECT_EQ(tv_get_client_channel("a", 1), -1); }}; // not yet
    play(R"(
        again: login tcp://a:1    => again: fd-open,
            a: disconnected tcp://a:1, a: fd-close, a: hears the end, again: connected tcp://a:1)");
    const std::string replaced = "login_msg_received, close previous channel for url: tcp://a:1";
    EXPECT_EQ(std::count(logged.begin(), logged.end(), replaced), 1);
    EXPECT_EQ(tv_get_client_channel("a", 1), current->id);
    play(R"(
        again: gets logout tcp://a:1~ =>
            again: fd-close, again: hears the end, again: disconnected tcp://a:1)");
    EXPECT_EQ(logged.back(), "logout msg received");
    tv_close_client_connection(links["b:"].id);
    play("=> b: fd-close, b: hears the end");
}

TEST_F(Server, DropsALoginWithoutAUrlAndCutsALongOne)
{
    play(R"(
        a: accept            => a: fd-open;
        b: accept            => b: fd-open;
        gets login ~; gets login;
        a: actors Hok P & gets request early => a: actor0 early, a: hears reply ok)");
    const std::string url = "tcp://" + std::string(70, 'u');
    play("gets login " + url + "~ => a: connected " + url);
    EXPECT_EQ(tv_get_channel(current->id)->url, url.substr(0, 63));
    play(R"(
        gets news x;
        log => get_msg_type, unexpected tolvane received, unexpected msg type received!!!;
        b: gets logout       => b: fd-close, b: hears the end, b: disconnected)");
}

TEST_F(Server, SupervisesAllClientsWithOneTimerEach)
{
    tv_channel *own = tv_get_channel(server); // supervises nobody
    send_heartbeat(own);
    EXPECT_LOG({"could not send HB on mode[2]"});
    prepare("a: login tcp://a:1");
    inside["fd-open"] = {[&] { // the settings are read afterwards, the callbacks before, too
        EXPECT_EQ(tv_get_channel(current->id)->linkdownCallback, on_linkdown);
        tv_set_poll_timeout(server, 700);
        tv_client_enable_heartbeat(server, 100, 1, nullptr);
        EXPECT_EQ(enable_heartbeat(own), 0);
    }};
    play("b: accept & left => b: fd-open, 100");
    const tv_channel *b = tv_get_channel(current->id);
    EXPECT_EQ(b->pollTimeout, 700);
    EXPECT_EQ(b->linkdownCallback, nullptr);
    for (const int interval : {100, 300})
        tv_service_enable_heartbeat(interval, 1, on_linkdown);
    play(R"(
        gets login tcp://b:1~ & left => b: connected tcp://b:1, 300;
        after 300 => a: hears heartbeat {sequence:1}, {interval:300},{count:1}~,
                     b: hears heartbeat {sequence:1}, {interval:300},{count:1}~;
        a: gets heartbeatack {})");
    tv_service_enable_heartbeat(0, 0, on_linkdown); // restarts nothing: down whatever comes
    prepare("c: accept");
    EXPECT_EQ(tv_get_channel(current->id)->linkdownCallback, on_linkdown);
    play(R"(
        gets heartbeatack {}; after 300 => b: linkdown tcp://b:1, a: linkdown tcp://a:1)");
    EXPECT_EQ(b->hbTimerId, -1);
}

TEST_F(Server, FindsListsAndAddressesItsClients)
{
    prepare("a: login tcp://a:80");
    add_channel(&tv_service_server.pairList, nullptr); // stands for nobody
    prepare("b: login tcp://b:80");
    const int a = links["a:"].id, b = links["b:"].id;
    EXPECT_EQ(tv_get_client_channel("b", 80), b);
    for (const auto &[ip, port] : {std::pair("b", 8), {"B", 80}, {"", 80}, {nullptr, 80}})
        EXPECT_EQ(tv_get_client_channel(ip, port), -1);

    for (const bool both : {false, true}) {
        std::vector<int> fds(3, -1);
        EXPECT_EQ(tv_get_all_client_fds(fds.data(), both ? 2 : 1), 0);
        const int second = both ? tv_get_polling_fd(b) : -1;
        EXPECT_EQ(fds, (std::vector<int>{tv_get_polling_fd(a), second, -1}));
    }
    EXPECT_LOG({"too many fds, maxsize is [1]"});

    play(R"(
        a: ask mine 100     => a: hears request mine;
        broadcast all       => b: hears request all;
        b: gets reply x; log => internal list error, should never reach here,
                               no outgoing request, response discarded)");
    prepare("stop");
    clean_channel_repo(&tv_service_server.pairList); // the entry for nobody, which no stop closes
}

TEST_F(Server, ABroadcastInsideABroadcastMayCloseThePairThatComesNext)
{
    prepare("a: login tcp://a:1 & b: login tcp://b:1 & c: login tcp://c:1");
    play(R"(
        a: end & b: end; in linkdown broadcast inner; in linkdown close;
        broadcast outer     => a: linkdown tcp://a:1, b: linkdown tcp://b:1, b: fd-close,
                               c: hears request inner, c: hears request outer)");
}

TEST_F(Server, StopsInOrderAndStartsAgain)
{
    prepare("a: login tcp://a:1 & c: login tcp://c:1 & b: login tcp://b:1 & d: login tcp://d:1");
    tv_remove_channel(tv_get_channel(links["b:"].id)); // cannot be closed by its id any more
    tv_channel *own = (tv_channel *)malloc(sizeof(tv_channel)); // another one that has this id
    init_channel(own, links["b:"].id);
    tv_add_channel(own);
    play("b: close");                      // the pair stays the server's
    EXPECT_EQ(tv_start_server("", 0), -1); // a server runs
    EXPECT_EQ(tv_service_server.listenIp, "127.0.0.1"s);
    EXPECT_EQ(tv_service_server.serverChannel->channelId, server);
    inside["fd-close"] = {[] { EXPECT_NE(tv_get_server_polling_fd(), -1); }}; // listens until then
    play(R"(
        in fd-close; in fd-close stop;
        stop => a: fd-close, a: hears the end, c: fd-close, c: hears the end, b: fd-close,
                d: fd-close, b: hears the end, d: hears the end)");

    const int id = tv_get_channel_id();
    play("fail bind & start => b: start: -1");
    EXPECT_EQ(logged.back(), "impl_create_server_socket, failed on bind");
    run("fail nothing");
    const auto resp = [](int, const char *, int) {};
    const auto timeout = [](int) {};
    strcpy(tv_service_server.listenIp, "127.0.0.1");
    server = tv_start_service_server(tv_service_server.listenIp, 0, resp, timeout, nullptr);
    EXPECT_EQ(tv_get_channel(server)->respHandler, resp);
    EXPECT_EQ(tv_get_channel(server)->timeoutHandler, timeout);
    EXPECT_EQ(server, id + 2); // a failed start uses up an id
    EXPECT_EQ(tv_service_server.listenIp, "127.0.0.1"s);
    // The start without a connected callback has cleared it, and no other.
    play("e: login tcp://e:1 => e: fd-open");
    tv_remove_channel(tv_get_channel(server));     // it cannot be closed by its id, either
    play("stop => e: fd-close, e: hears the end"); // the callback is for pairs only
}

TEST_F(Server, AServerThatIsStartedInsideAStopStays)
{
    prepare("a: login tcp://a:1");
    play(R"(
        in fd-close stop & start & b: login tcp://b:1;
        stop => a: fd-close, b: fd-open, b: connected tcp://b:1, a: hears the end;
        a: login tcp://a:1 => a: fd-open, a: connected tcp://a:1)");
    EXPECT_EQ(get_channel_type(links["b:"].id), TV_CHANNEL_PAIR);
}

TEST_F(Server, BeforeTheFirstStartEveryOperationReturns)
{
    run("stop");
    tv_service_server.pairList = {nullptr, nullptr};
    EXPECT_EQ(tv_service_enable_heartbeat(100, 1, on_linkdown), 0);
    int fd = dup(0);
    EXPECT_EQ(tv_get_all_client_fds(&fd, 1), 0);
    EXPECT_EQ(create_pair_channel(fd), -1); // closes it
    EXPECT_EQ(tv_pair_fd_handler(fd, 0, 0), 0);
    EXPECT_EQ(tv_get_server_polling_fd(), -1);
    EXPECT_EQ(tv_get_client_channel("a", 1), -1);
    EXPECT_EQ(tv_server_fd_handler(fd, 0, 0), -1);
    play("stop & broadcast x");
}
