// test_misuse.cpp - null records, messages that do not fit, channels outside the repository, lists
// with null links, and a server that was never started.

#include "log_capture.h"
#include "wire.h"

#include "ruvo_timer.h"

#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

TEST(Misuse, NullRecordsAreRefused)
{
    LogCapture log;
    int len = 7;
    EXPECT_EQ(tv_impl_get_polling_fd(nullptr), -1);
    EXPECT_EQ(get_polling_fd(nullptr), -1);
    EXPECT_EQ(tv_impl_send_rqst(nullptr, "", 0), -1);
    EXPECT_EQ(tv_impl_recv(nullptr, &len), nullptr);
    EXPECT_EQ(len, 0);
    EXPECT_EQ(process_channel_rqst(nullptr, strdup("released"), 8), -1);
    EXPECT_EQ(process_channel_resp(nullptr, strdup("released"), 8), -1);
    EXPECT_EQ(tv_msg_received(nullptr, 0), -1);
    EXPECT_EQ(enable_heartbeat(nullptr), -1);
    EXPECT_EQ(register_actor(nullptr, nullptr), -1);
    EXPECT_EQ(create_server_channel(nullptr, 0, "", 0), -1);
    EXPECT_EQ(server_remove_channel(nullptr), 0);
    EXPECT_EQ(tv_get_client_channel(nullptr, 80), -1);
    tv_impl_close_channel(nullptr);
    send_heartbeat(nullptr);
    tv_set_polling_interval(5); // only logs, for old programs
    EXPECT_EQ(tv_impl_set_retransmit_interval(5), 0);
    EXPECT_LOG({"get_polling_fd, channel is NULL", "tv_set_polling_interval, interval is 5"});
}

TEST(Misuse, BeforeTheFirstStartEveryServerOperationReturns)
{
    LogCapture log;
    int fd = dup(0);
    EXPECT_EQ(tv_service_enable_heartbeat(100, 1, nullptr), 0);
    EXPECT_EQ(tv_get_all_client_fds(&fd, 1), 0);
    EXPECT_LOG({"channel list is null", "channel list is null"});
    EXPECT_EQ(create_pair_channel(fd), -1);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1); // closed
    EXPECT_EQ(tv_pair_fd_handler(-1, 0, 0), 0);
    EXPECT_EQ(tv_server_fd_handler(fd, 0, 0), -1);
    EXPECT_LOG({"create_pair_channel, no server is running", "channel list is null",
                "could not find channel with fd[-1]", "tv_server_fd_handler, failed on accept"});
    EXPECT_EQ(tv_get_server_polling_fd(), -1);
    EXPECT_EQ(tv_get_client_channel("a", 1), -1);
    EXPECT_EQ(tv_broadcast_rqst_to_client("x", 1), 0);
    tv_stop_server();
}

TEST(Misuse, AddressesWithoutATerminatingNulAreCut)
{
    tv_client_addr addr = {"", "", 1, 65535};
    memset(addr.serverIp, '1', TV_IP_SIZE);
    memset(addr.clientIp, '2', TV_IP_SIZE);
    const int id = tv_create_client_channel(&addr);
    EXPECT_EQ(tv_get_channel(id)->serverIp, std::string(15, '1'));
    EXPECT_EQ(tv_get_channel(id)->url, "tcp://" + std::string(16, '2') + ":65535");
    LogCapture log;
    tv_close_channel(id);
    EXPECT_LOG({}); // although there has been no list of pairs yet
}

TEST(Misuse, OperationsReturn0ForAChannelAndMinus1ForAnUnknownId)
{
    const tv_client_addr addr = {"127.0.0.1", "link", 80, 7};
    int ids[5];
    for (int &each : ids)
        each = tv_create_client_channel(&addr);
    const int id = ids[4];
    for (const int channelId : {id, -1}) {
        const int result = channelId == id ? 0 : -1;
        EXPECT_EQ(tv_register_actor(channelId, nullptr), result);
        EXPECT_EQ(tv_register_resp_handler(channelId, nullptr), result);
        EXPECT_EQ(tv_register_timeout_handler(channelId, nullptr), result);
        EXPECT_EQ(tv_register_linkdown_callback(channelId, nullptr), result);
        EXPECT_EQ(tv_set_poll_timeout(channelId, 1), result);
        EXPECT_EQ(tv_send_resp(channelId, "", 0), -1);
        EXPECT_EQ(tv_channel_fd_handler(-1, channelId, 0), 0);
        tv_client_enable_heartbeat(channelId, 100, 1, nullptr);
    }
    EXPECT_EQ(tv_get_channel(id)->hbMode, TV_HEARTBEAT_ON);
    tv_channel *const channel = tv_get_channel(id);
    channel->channelId = 70000; // by hand, so only a walk finds it
    EXPECT_EQ(tv_get_channel(70000), channel);
    EXPECT_EQ(tv_remove_channel(channel), 0);
    tv_add_channel(channel);
    tv_close_channel(70000);
    for (int i = 0; i < 4; i++)
        tv_close_channel(ids[i]);
    EXPECT_EQ(tv_set_log_fd(nullptr), 0);
    EXPECT_EQ(tv_set_log_file(nullptr), 0);
}

TEST(Misuse, WhatDoesNotFitIsNotBuilt)
{
    LogCapture log;
    static tv_channel channel;
    init_channel(&channel, 1);
    const int headerLen = 49, len = headerLen + 37; // of a heartbeat without a URL
    for (int size = 0; size < len; size++) {
        std::vector<char> dst(size);
        EXPECT_EQ(build_heartbeat_msg(&channel, dst.data(), size), -1);
        EXPECT_LOG(
            {size <= headerLen ? "snprintf error:49" : "pack_msg_to_buf, msg[len:37] is too long"});
        const std::string whole = message(0, "heartbeat", "", marker);
        EXPECT_EQ(std::string(dst.data(), size > 0 ? strlen(dst.data()) : 0), // as much as fits
                  whole.substr(0, size > 0 ? size - 1 : 0));
    }
    const std::string big(TV_MSG_BUF_SIZE, 'x');
    const int attempts[][2] = {{65490, -1},   {INT_MAX, -1},  {-1, -1},
                               {INT_MIN, -1}, {65489, 65536}, {0, 47}};
    for (const auto &[size, result] : attempts)
        EXPECT_EQ(pack_outgoing_rqst(&channel, big.data(), size), result);
    EXPECT_EQ(pack_outgoing_rqst(&channel, nullptr, 5), 0);
    EXPECT_EQ(pack_outgoing_resp(&channel, nullptr, 5), 0);
    EXPECT_EQ(pack_outgoing_rqst(nullptr, "", 0), 0);
    EXPECT_EQ(pack_outgoing_resp(nullptr, "", 0), 0);
    EXPECT_EQ(channel.msgSequence, 2); // used up by the two that fitted
}

TEST(Misuse, ARecordOutsideTheRepositoryUsesItsOwnSocket)
{
    LogCapture log;
    static tv_channel channel;
    memset((void *)&channel, 0xa5, sizeof(channel));
    init_channel(&channel, -2);
    channel.url[0] = '\0';
    EXPECT_FALSE(channel.respHandler || channel.timeoutHandler || channel.linkdownCallback);
    EXPECT_TRUE(channel.hbInterval == 0 && channel.hbCount == 0 && channel.hbMissCount == 0);
    EXPECT_TRUE(channel.pollTimeout == INT_MAX && channel.connectTimeout == -1);
    EXPECT_TRUE(channel.rqstTimerId == -1 && channel.hbTimerId == -1); // 0 may be a timer's id
    int ends[2], len = 7;
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends), 0);
    EXPECT_EQ(connect_server(&channel), -1);
    channel.hbInterval = 100;
    EXPECT_EQ(enable_heartbeat(&channel), 0); // as for a server's: no connection, so no timer
    EXPECT_EQ(channel.hbTimerId, -1);
    send_heartbeat(&channel);
    EXPECT_EQ(log.take().back(), "could not send HB on mode[2]");
    EXPECT_EQ(tv_impl_recv(&channel, &len), nullptr);
    EXPECT_EQ(len, 0);
    EXPECT_EQ(log.take().back(), "tv_impl_get_polling_fd, channel is invalid");

    channel.clientSocket = (tv_socket *)malloc(sizeof(tv_socket));
    channel.clientSocket->fd = ends[0];
    EXPECT_EQ(tv_impl_recv_with_timeout(&channel, &len, 1), nullptr); // not the channel's timeout
    channel.pollTimeout = 1;
    EXPECT_EQ(tv_impl_recv(&channel, &len), nullptr);
    EXPECT_EQ(handle_client_polling_fd(&channel), 0);
    channel.recvSequence = 5;
    EXPECT_EQ(tcp_impl_send_with_timeout(ends[1], "9\n", 2, 1000), 2);
    EXPECT_EQ(handle_client_polling_fd(&channel), -1); // not the next message
    EXPECT_EQ(tv_impl_send_rqst(&channel, "", -1), -1);
    EXPECT_EQ(log.take().back(), "tv_impl_send_rqst, negative length[-1]");
    EXPECT_EQ(tcp_impl_send_with_timeout(ends[0], "lost", 4, 0), -1);
    EXPECT_EQ(tcp_impl_send_with_timeout(ends[0], "lost", -1, 1000), -1);
    EXPECT_LOG({"time out:0", "tcp_impl_send, failed on send header",
                "tcp_impl_send, negative length[-1]"});
    EXPECT_EQ(tv_impl_send_resp(&channel, "ping", 4), 0);
    channel.clientSocket->fd = ends[1];
    channel.pollTimeout = 1000;
    char *msg = tv_impl_recv(&channel, &len);
    EXPECT_EQ(std::string(msg, len), "ping");
    tv_impl_free_msg(msg);
    static int taken; // what the actor returns
    const std::string request = message(1, "request", "", marker);
    register_actor(&channel, [](int, const char *, int, char **, int *) { return taken; });
    for (taken = TV_ACTOR_PASS; taken <= TV_ACTOR_DEFERRED; taken++) {
        const int result = taken == TV_ACTOR_PASS ? -1 : 0;
        EXPECT_EQ(process_channel_rqst(&channel, strdup(request.c_str()), 47), result);
    }
    EXPECT_EQ(send_resp(&channel, nullptr, 5), -1);
    tv_impl_free_msg(std::exchange(channel.pendingRqst, nullptr));
    EXPECT_EQ(process_channel_rqst(&channel, strdup("no payload"), 10), -1);
    channel.waitingResp = 1;
    EXPECT_EQ(process_channel_resp(&channel, strdup(request.c_str()), 47), 0);
    EXPECT_EQ(enable_heartbeat(&channel), 0);
    EXPECT_TRUE(channel.hbMode == TV_HEARTBEAT_ON && channel.hbTimerId != -1);
    ruvo_stop_timer(channel.hbTimerId);
    EXPECT_EQ(tv_impl_send_rqst(&channel, "", 0), 0); // an empty frame
    EXPECT_EQ(server_remove_channel(&channel), 1);    // no pair, and no server yet
    close(ends[0]);
    EXPECT_EQ(tv_impl_send_rqst(&channel, "", 0), -1); // no callback, and no SIGPIPE
    tv_impl_close_channel(&channel);
    EXPECT_EQ(channel.clientSocket, nullptr);
}

TEST(Misuse, AListWithNullLinksAndAnEntryWithoutARecordHoldNothing)
{
    LogCapture log;
    tv_channel_list list = {nullptr, nullptr};
    for (const std::string entry : {"channel list is null", ""}) {
        EXPECT_EQ(get_channel(&list, 2), nullptr);
        EXPECT_EQ(get_channel_by_ip(&list, "tcp://a:80"), nullptr);
        EXPECT_EQ(remove_channel(&list, 2), 1);
        EXPECT_EQ(log.take(), Texts(entry.empty() ? 0 : 3, entry));
        if (list.next == nullptr) {
            list = {&list, &list};
            add_channel(&list, nullptr);
        }
    }
    clean_channel_repo(&list);
}

TEST(Misuse, ReadersLogWhatTheyDoNotFind)
{
    LogCapture log;
    char url[2] = "x";
    const std::string reply = message(1, "reply", "u", marker);
    EXPECT_EQ(get_heartbeat_count("{sequence:5}"), -1);
    EXPECT_EQ(get_msg_url("1\nno tag", url, sizeof(url)), -1);
    int len = 7;
    EXPECT_EQ(get_msg_payload("1\nno tag", 8, &len), nullptr);
    EXPECT_LOG({"could not find key", "get_url_pos, unexpected tolvane received",
                "get_msg_payload, unexpected tolvane received"});
    EXPECT_EQ(get_msg_url(reply.c_str(), url, 0), -1);
    EXPECT_STREQ(url, "x");
    EXPECT_EQ(get_msg_url(reply.c_str(), url, sizeof(url)), 0);
    EXPECT_LOG({});
}

TEST(Misuse, AQueueIsEmptyOnlyIfBothIndicesSaySo)
{
    rb_item items[2];
    const ring_buffer odd[] = {{items, 2, 0, 2}, {items, 0, 2, 2}};
    for (const ring_buffer &queue : odd)
        EXPECT_EQ(rb_is_empty(&queue), 0);
}
