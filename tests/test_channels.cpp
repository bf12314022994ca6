// test_channels.cpp - what scenarios cannot express about clients, the server and the loop: misuse,
// limits, and records that an application has changed itself.

#include "channel_fixture.h"

using Client = ChannelTest;
using Server = ChannelTest;
using Loop = ChannelTest;

TEST_F(Client, OperationsLogAnUnknownIdAndAChannelThatIsNotAClient)
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
    play("accept => ...");
    EXPECT_EQ(tv_register_actor(current->channelId, actor<0>), -1);
    EXPECT_LOG({"should not register actor for pair channel, register for server"});
    tv_close_channel(id);
}

TEST_F(Client, DoesNotSendWhatDoesNotFitAMessage)
{
    play("create_client; connect; actors defer pass; peer_sends request x => ...");
    EXPECT_EQ(tv_send_rqst(current->channelId, nullptr, 0, 100), -1);
    EXPECT_EQ(tv_send_rqst(current->channelId, "", -1, 100), -1);
    EXPECT_EQ(tv_send_resp(current->channelId, "", -1), -1);
    const std::string negative = "pack_msg_to_buf, negative length[-1]";
    EXPECT_LOG({"pack requst fail:0", negative, "pack requst fail:-1", negative});
    play("send_reply late => peer_got reply late");
}

TEST_F(Client, WaitsNoLongerThanItsPollTimeout)
{
    play("create_client; connect => ...");
    const std::string large = "send_large_request 0; "; // three are too many for the socket
    for (const std::string &wait : {large + large + large, "serve"s}) {
        const long long start = now;
        run(wait);
        EXPECT_EQ(now - start, 100);
    }
    happened();
}

TEST_F(Server, FindsListsAndAddressesItsClients)
{
    play("a: peer_logs_in tcp://a:80 => ...");
    add_channel(&tv_service_server.pairList, nullptr); // an entry without a channel
    play("b: peer_logs_in tcp://b:80 => ...");
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
        logged no outgoing request, response discarded
        stop_server                         => a: fd_close, a: peer_got EOF,
                                            => b: fd_close, b: peer_got EOF)");
    clean_channel_repo(&tv_service_server.pairList); // stopping only closes channels
}

TEST_F(Server, StopsInOrder)
{
    play("a: peer_logs_in tcp://a:1; c: peer_logs_in tcp://c:1; b: peer_logs_in tcp://b:1 => ...");
    play("d: peer_logs_in tcp://d:1 => ...");
    tv_remove_channel(tv_get_channel(links["b:"].channelId)); // cannot be closed by its id any more
    tv_channel *other = (tv_channel *)malloc(sizeof(tv_channel)); // with the same id
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

TEST_F(Server, ARestartUsesItsOwnHandlers)
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

TEST_F(Server, BeforeTheFirstStartEveryOperationReturns)
{
    run("stop_server");
    tv_service_server.pairList = {nullptr, nullptr};
    int fd = dup(0);
    log.take();
    EXPECT_EQ(tv_service_enable_heartbeat(100, 1, on_link_down), 0);
    EXPECT_EQ(tv_get_all_client_fds(&fd, 1), 0);
    EXPECT_LOG({"channel list is null", "channel list is null"});
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
    play("a: accept => ...");
    int fd = -1;
    tv_get_all_client_fds(&fd, 1);
    add_channel(&tv_service_server.pairList, nullptr); // by an application
    tv_channel *pair = ((tv_channel_node *)tv_service_server.pairList.next)->channel;
    close_channel(pair);
    EXPECT_EQ(tv_pair_fd_handler(-1, 0, 0), 0);
    EXPECT_LOG(
        {"internal list error, should never reach here", "could not find channel with fd[-1]"});
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    EXPECT_EQ(tv_get_all_client_fds(&fd, 1), 0);
    EXPECT_LOG({"internal data error"});
    tv_close_client_connection(pair->channelId);
    play("=> a: peer_got EOF");
    clean_channel_repo(&tv_service_server.pairList);
}

TEST_F(Loop, HoldsSixteenDescriptors)
{
    const auto listed = [](int size) {
        struct pollfd list[TV_MAX_POLLING_FDS];
        std::vector<int> fds;
        for (int i = 0, count = build_polling_fd_list(list, size); i < count; i++) {
            EXPECT_EQ(list[i].events, POLLIN);
            fds.push_back(list[i].fd);
        }
        return fds;
    };
    std::vector<int> fds;
    tv_unregister_polling_fd(tv_get_server_polling_fd());
    tv_unregister_polling_fd(loopFd);
    for (int fd = 500; fd < 500 + TV_MAX_POLLING_FDS; fd++) {
        EXPECT_EQ(tv_unregister_polling_fd(-1), -1); // frees no slot
        EXPECT_EQ(tv_register_polling_fd(fd, nullptr, 0, 0), 0);
        fds.push_back(fd);
    }
    log.take();
    EXPECT_EQ(tv_register_polling_fd(7, nullptr, 0, 0), -1);
    EXPECT_EQ(tv_unregister_polling_fd(7), -1);
    EXPECT_EQ(listed(3), (std::vector<int>{500, 501, 502}));
    EXPECT_LOG(
        {"failed on reserve_fd_index, fdHandlerCount[16]",
         "tv_register_polling_fd, failed on reserve_fd_index",
         "faield on tv_unregister_polling_fd, fd[7]",
         "build_external_fd_list, size is too small, for sanity, should never reach here!!!"});
    for (const int slot : {3, 9}) {
        tv_unregister_polling_fd(fds[slot]);
        fds[slot] += 100;
        tv_register_polling_fd(fds[slot], nullptr, 0, 0); // takes the lowest free slot
    }
    EXPECT_EQ(listed(TV_MAX_POLLING_FDS), fds);
    for (const int fd : fds)
        EXPECT_EQ(tv_unregister_polling_fd(fd), 0);
    tv_register_polling_fd(loopFd, nullptr, 0, 0);
}

TEST_F(Loop, FiresTimersAndServesReadyDescriptorsInSlotOrder)
{
    static std::vector<intptr_t> served;
    const auto handle = [](int, intptr_t name, intptr_t negative) {
        EXPECT_EQ(negative, -name);
        served.push_back(name);
        return -1; // ignored
    };
    const int low = eventfd(1, 0), high = eventfd(1, 0), closed = 400;
    const int order[] = {high, low, closed, high}; // not the order of their numbers
    for (int i = 0; i < 4; i++)
        tv_register_polling_fd(order[i], handle, i, -i);
    ruvo_start_timer(
        1, [](intptr_t name, intptr_t) { served.push_back(name); }, 9, 0);
    run("be_busy 1; advance 4");
    EXPECT_EQ(served, (std::vector<intptr_t>{9, 0, 1, 2, 0})); // the lower slot serves both
    EXPECT_EQ(lastPerror, "poll: Bad file descriptor");        // how the simulated loop ends
    for (const int fd : order)
        tv_unregister_polling_fd(fd);
    close(low);
    close(high);
}

TEST_F(Loop, ADescriptorNumberThatAHandlerReusesIsServedOnlyIfReady)
{
    static int other;
    other = eventfd(1, 0);
    const int first = eventfd(1, 0);
    static const auto serve_other = [](int, intptr_t, intptr_t) {
        note("served");
        return 0;
    };
    const auto replace_other = [](int, intptr_t, intptr_t) {
        tv_unregister_polling_fd(other);
        dup2(loopFd, other); // which is never ready
        return tv_register_polling_fd(other, serve_other, 0, 0);
    };
    tv_register_polling_fd(first, replace_other, 0, 0);
    tv_register_polling_fd(other, serve_other, 0, 0);
    play("advance 4");
    for (const int fd : {first, other}) {
        tv_unregister_polling_fd(fd);
        close(fd);
    }
}

TEST_F(Loop, AReadyDescriptorThatAHandlerHasUnregisteredIsLogged)
{
    play("actors handle pass; a: peer_logs_in a; b: peer_logs_in b => ...");
    const std::string fd = std::to_string(tv_get_polling_fd(current->channelId));
    play("b: peer_buffers request y; a: peer_buffers request x\n on actor0: b: close\n"
         "advance 4 => a: actor0 x, b: fd_close, b: peer_got EOF");
    EXPECT_EQ(std::count(logged.begin(), logged.end(), "unknown socket[" + fd + "], not registerd"),
              1);
}
