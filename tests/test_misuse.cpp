// test_misuse.cpp - records that are null or have no socket, and channels outside the repository.

#include "log_capture.h"

#include <memory>
#include <unistd.h>

TEST(Misuse, ANullRecordIsRefused)
{
    int len = 7;
    EXPECT_EQ(tv_impl_get_polling_fd(nullptr), -1);
    EXPECT_EQ(get_polling_fd(nullptr), -1);
    EXPECT_EQ(tv_impl_send_rqst(nullptr, "", 0), -1);
    EXPECT_EQ(tv_impl_recv(nullptr, &len), nullptr);
    EXPECT_EQ(len, 0);
    tv_impl_close_channel(nullptr);
    EXPECT_EQ(process_channel_rqst(nullptr, strdup("released"), 8), -1);
    EXPECT_EQ(process_channel_resp(nullptr, strdup("released"), 8), -1);
    EXPECT_EQ(enable_heartbeat(nullptr), -1);
    send_heartbeat(nullptr);
    EXPECT_EQ(tv_msg_received(nullptr, 0), -1);
    EXPECT_EQ(register_actor(nullptr, nullptr), -1);
    EXPECT_EQ(create_server_channel(nullptr, 0, "", 0), -1);
    EXPECT_EQ(server_remove_channel(nullptr), 0);
    EXPECT_EQ(pack_outgoing_rqst(nullptr, "", 0), 0);
    EXPECT_EQ(pack_outgoing_resp(nullptr, "", 0), 0);
}

TEST(Misuse, ARecordOutsideTheRepositoryUsesItsOwnSocket)
{
    LogCapture log;
    int ends[2], len = 7;
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends), 0);
    const auto channel = std::make_unique<tv_channel>();
    init_channel(channel.get(), -2);
    EXPECT_EQ(connect_server(channel.get()), -1);
    EXPECT_EQ(tv_impl_send_rqst(channel.get(), "", 0), -1);
    EXPECT_EQ(tv_impl_recv(channel.get(), &len), nullptr);
    const std::string miss = "could not get channel with id[-2] in tv_get_channel",
                      invalid = "tv_impl_get_polling_fd, channel is invalid";
    log.expect({miss, invalid, miss, invalid});

    channel->clientSocket = (tv_socket *)malloc(sizeof(tv_socket));
    channel->clientSocket->fd = ends[0];
    channel->pollTimeout = 1000;
    EXPECT_EQ(tv_impl_send_rqst(channel.get(), "", -1), -1);
    EXPECT_EQ(tv_impl_send_resp(channel.get(), "ping", 4), 0);
    char *msg = tcp_impl_receive(ends[1], &len);
    EXPECT_EQ(std::string(msg, len), "ping");
    tcp_impl_send_with_timeout(ends[1], msg, len, 1000);
    tv_impl_free_msg(msg);
    msg = tv_impl_recv(channel.get(), &len);
    EXPECT_EQ(std::string(msg, len), "ping");
    tv_impl_free_msg(msg);
    close(ends[1]);
    EXPECT_EQ(tv_impl_send_rqst(channel.get(), "", 0), -1); // nobody to be told
    tv_impl_close_channel(channel.get());
    EXPECT_EQ(channel->clientSocket, nullptr);
}

TEST(Misuse, WhatIsKeptForOldProgramsDoesNothing)
{
    LogCapture log;
    EXPECT_EQ(tv_impl_set_retransmit_interval(5), 0);
    tv_set_polling_interval(5);
    disable_polling_timer();
    log.expect({"tv_set_polling_interval, interval is 5", "disable_polling_timer"});
}
