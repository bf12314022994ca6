// test_server.cpp - the service server: its callbacks in order, its pairs, and all clients at once.

#include "channel_fixture.h"

using Server = ChannelTest;

TEST_F(Server, ReportsLoginReplacementAndLogoutInOrder)
{
    play(R"(
        a: peer_logs_in tcp://a:1           => a: fd_open, a: connected tcp://a:1
        peer_sends login tcp://a:1~         => a: connected tcp://a:1
        b: peer_logs_in tcp://c:1           => b: fd_open, b: connected tcp://c:1
        peer_sends login tcp://b:1~         => b: connected tcp://b:1
        find_client b 1                     => client b:
        on connected: find_client a 1       # the new one gets its URL later
        new: peer_logs_in tcp://a:1         => new: fd_open, a: disconnected tcp://a:1, a: fd_close,
                                            => a: peer_got EOF, new: connected tcp://a:1, no client
        find_client a 1                     => client new:
        peer_sends logout tcp://a:1~        => new: fd_close, new: peer_got EOF,
                                            => new: disconnected tcp://a:1
        last_logged logout msg received)");
    tv_close_client_connection(links["b:"].channelId);
    play("=> b: fd_close, b: peer_got EOF");
}

TEST_F(Server, DropsALoginWithoutAUrlAndCutsALongOne)
{
    play(R"(
        a: accept                           => a: fd_open
        b: accept                           => b: fd_open
        peer_sends login ~; peer_sends login
        a: actors handle:ok pass
        peer_sends request early            => a: actor0 early, a: peer_got reply ok)");
    const std::string url = "tcp://" + std::string(70, 'u');
    play("peer_sends login " + url + "~ => a: connected " + url);
    EXPECT_EQ(tv_get_channel(current->channelId)->url, url.substr(0, 63));
    play(R"(
        peer_sends news x
        logged get_msg_type, unexpected tolvane received, unexpected msg type received!!!
        b: peer_sends logout                => b: fd_close, b: peer_got EOF, b: disconnected)");
}

TEST_F(Server, PairsTakeTheServersSettingsAfterTheirFdOpenCallback)
{
    tv_channel *server = tv_get_channel(serverId);
    verbs["change_settings"] = [=](const Step &s) {
        EXPECT_EQ(tv_get_channel(s.id)->linkdownCallback, on_link_down);
        EXPECT_EQ(tv_get_channel(s.id)->pollTimeout, 100);
        tv_set_poll_timeout(serverId, 700);
        tv_client_enable_heartbeat(serverId, 100, 1, nullptr);
        EXPECT_EQ(enable_heartbeat(server), 0); // the server channel has no timer of its own
    };
    play(R"(
        on fd_open: change_settings
        accept; next_timer                  => fd_open, next timer 100)");
    const tv_channel *pair = tv_get_channel(current->channelId);
    EXPECT_EQ(pair->pollTimeout, 700);
    EXPECT_EQ(pair->linkdownCallback, nullptr);
}

TEST_F(Server, SupervisesAllClientsWithOneTimerEach)
{
    send_heartbeat(tv_get_channel(serverId));
    EXPECT_LOG({"could not send HB on mode[2]"});
    prepare("a: peer_logs_in tcp://a:1; b: peer_logs_in tcp://b:1");
    play(R"(
        enable_all_heartbeats 100 1; enable_all_heartbeats 300 1
        next_timer                          => next timer 300
        advance 300     => a: peer_got heartbeat {sequence:1}, {interval:300},{count:1}~,
                        => b: peer_got heartbeat {sequence:1}, {interval:300},{count:1}~
        a: peer_sends heartbeatack {}
        enable_all_heartbeats 0 0           # restarts nothing: the next expiry is one too many
        b: peer_sends heartbeatack {}
        advance 300     => b: link_down tcp://b:1, a: link_down tcp://a:1)");
    EXPECT_EQ(tv_get_channel(links["b:"].channelId)->hbTimerId, -1);
}

TEST_F(Server, FindsListsAndAddressesItsClients)
{
    prepare("a: peer_logs_in tcp://a:80");
    add_channel(&tv_service_server.pairList, nullptr); // an entry without a channel
    prepare("b: peer_logs_in tcp://b:80");
    const int a = links["a:"].channelId, b = links["b:"].channelId;
    EXPECT_EQ(tv_get_client_channel(nullptr, 80), -1);

    for (const int room : {1, 2}) {
        std::vector<int> fds(3, -1);
        EXPECT_EQ(tv_get_all_client_fds(fds.data(), room), 0);
        const int second = room == 2 ? tv_get_polling_fd(b) : -1;
        EXPECT_EQ(fds, (std::vector<int>{tv_get_polling_fd(a), second, -1}));
    }
    EXPECT_LOG({"too many fds, maxsize is [1]"});

    play(R"(
        find_client b 80                    => client b:
        find_client b 8                     => no client
        find_client B 80                    => no client
        a: send_request mine 100            => a: peer_got request mine
        broadcast all                       => b: peer_got request all
        b: peer_sends reply x               # which nobody awaits
        logged internal list error, should never reach here, no outgoing request, response discarded
        stop_server                         => a: fd_close, a: peer_got EOF,
                                            => b: fd_close, b: peer_got EOF)");
    clean_channel_repo(&tv_service_server.pairList); // a stop closes channels only
}

TEST_F(Server, ABroadcastInsideABroadcastMayCloseThePairThatComesNext)
{
    prepare("a: peer_logs_in tcp://a:1; b: peer_logs_in tcp://b:1; c: peer_logs_in tcp://c:1");
    play(R"(
        a: peer_closes; b: peer_closes
        on link_down: broadcast inner
        on link_down: close
        broadcast outer     => a: link_down tcp://a:1, b: link_down tcp://b:1, b: fd_close,
                            => c: peer_got request inner, c: peer_got request outer)");
}

TEST_F(Server, StopsInOrder)
{
    prepare("a: peer_logs_in tcp://a:1; c: peer_logs_in tcp://c:1; b: peer_logs_in tcp://b:1");
    prepare("d: peer_logs_in tcp://d:1");
    tv_remove_channel(tv_get_channel(links["b:"].channelId)); // cannot be closed by its id any more
    tv_channel *other = (tv_channel *)malloc(sizeof(tv_channel)); // which has the same id
    init_channel(other, links["b:"].channelId);
    tv_add_channel(other);
    verbs["expect_listening"] = [](const Step &) { EXPECT_NE(tv_get_server_polling_fd(), -1); };
    play(R"(
        b: close                            # closes the other one
        on fd_close: expect_listening
        on fd_close: # nothing
        on fd_close: stop_server
        stop_server     => a: fd_close, a: peer_got EOF, c: fd_close, c: peer_got EOF, b: fd_close,
                        => d: fd_close, b: peer_got EOF, d: peer_got EOF)");
}

TEST_F(Server, StartsAgainWithTheHandlersOfThatStart)
{
    EXPECT_EQ(tv_start_server("", 0), -1); // one is running
    EXPECT_EQ(tv_service_server.listenIp, "127.0.0.1"s);
    EXPECT_EQ(tv_service_server.serverChannel->channelId, serverId);
    const int id = tv_get_channel_id();
    play(R"(
        stop_server
        fail bind
        start_server                        => start_server: -1
        last_logged impl_create_server_socket, failed on bind
        fail nothing)");
    const auto onResponse = [](int, const char *, int) {};
    const auto onTimeout = [](int) {};
    serverId =
        tv_start_service_server(tv_service_server.listenIp, 0, onResponse, onTimeout, nullptr);
    EXPECT_EQ(serverId, id + 2); // a failed start uses up an id
    EXPECT_EQ(tv_get_channel(serverId)->respHandler, onResponse);
    EXPECT_EQ(tv_get_channel(serverId)->timeoutHandler, onTimeout);
    EXPECT_EQ(tv_service_server.listenIp, "127.0.0.1"s);
    play("peer_logs_in tcp://e:1 => fd_open");   // the start has cleared the connected callback
    tv_remove_channel(tv_get_channel(serverId)); // cannot be closed by its id any more
    play("stop_server => fd_close, peer_got EOF");
}

TEST_F(Server, AServerThatIsStartedInsideAStopStays)
{
    prepare("a: peer_logs_in tcp://a:1");
    play(R"(
        on fd_close: stop_server; start_server; b: peer_logs_in tcp://b:1
        stop_server     => a: fd_close, b: fd_open, b: connected tcp://b:1, a: peer_got EOF
        a: peer_logs_in tcp://a:1           => a: fd_open, a: connected tcp://a:1)");
    EXPECT_EQ(get_channel_type(links["b:"].channelId), TV_CHANNEL_PAIR);
}

TEST_F(Server, BeforeTheFirstStartEveryOperationReturns)
{
    run("stop_server");
    tv_service_server.pairList = {nullptr, nullptr};
    int fd = dup(0);
    EXPECT_EQ(tv_service_enable_heartbeat(100, 1, on_link_down), 0);
    EXPECT_EQ(tv_get_all_client_fds(&fd, 1), 0);
    EXPECT_EQ(create_pair_channel(fd), -1); // closes it
    EXPECT_EQ(tv_pair_fd_handler(fd, 0, 0), 0);
    EXPECT_EQ(tv_get_server_polling_fd(), -1);
    EXPECT_EQ(tv_get_client_channel("a", 1), -1);
    EXPECT_EQ(tv_server_fd_handler(fd, 0, 0), -1);
    play("stop_server; broadcast x");
}

TEST_F(Server, WithoutCallbacksPairsComeAndGoSilently)
{
    tv_register_client_fd_open_callback(nullptr);
    tv_register_client_fd_close_callback(nullptr);
    prepare("a: accept");
    int fd = -1;
    tv_get_all_client_fds(&fd, 1);
    add_channel(&tv_service_server.pairList, nullptr); // by an application
    EXPECT_EQ(tv_pair_fd_handler(-1, 0, 0), 0);
    EXPECT_LOG(
        {"internal list error, should never reach here", "could not find channel with fd[-1]"});
    tv_close_client_connection(
        ((tv_channel_node *)tv_service_server.pairList.next)->channel->channelId);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    play("=> a: peer_got EOF");
    clean_channel_repo(&tv_service_server.pairList);
}
