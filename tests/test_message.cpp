// test_message.cpp - the six kinds of message, built to the byte. What is read of any message is
// compared with a model by fuzz_message.cpp.

#include "log_capture.h"

#include <functional>
#include <limits.h>

struct Message : testing::Test {
    Message()
    {
        init_channel(&channel, 1);
        strcpy(channel.url, "tcp://192.0.2.10:6000");
        channel.hbSequence = 5;
        channel.hbInterval = 10;
        channel.hbCount = 3;
    }

    tv_channel channel;
    LogCapture log;
};

TEST_F(Message, EachKindToTheByte)
{
    char *const dst = channel.msgBuf;
    const struct {
        std::function<int()> build;
        const char *tag, *payload; // which ends with its NUL
    } kinds[] = {
        {[&] { return build_login_msg(&channel, "ping"); }, "login", "ping"},
        {[&] { return build_logout_msg(&channel, "ping"); }, "logout", "ping"},
        {[&] { return pack_outgoing_rqst(&channel, "ping", 5); }, "request", "ping"},
        {[&] { return pack_outgoing_resp(&channel, "ping", 5); }, "reply", "ping"},
        {[&] { return build_heartbeat_msg(&channel, dst, 512); }, "heartbeat",
         "{sequence:5}, {interval:10},{count:3}"},
        {[&] { return build_heartbeat_ack_msg(&channel, dst, 512); }, "heartbeatack",
         "{sequence:5}"},
    };
    unsigned number = INT_MAX - 1; // counts on through all kinds, and begins again after one
    channel.msgSequence = number;
    for (const auto &kind : kinds) {
        const int len = kind.build();
        EXPECT_EQ(std::string(dst, len), std::to_string(number++ & INT_MAX) + "\nvelun_tolvane_" +
                                             kind.tag + "\n" + channel.url +
                                             "\nvelun_tolvane_payload\n" + kind.payload + '\0');
    }
}

TEST_F(Message, WhatDoesNotFitIsNotBuilt)
{
    const int headerLen = 70, len = headerLen + 38;
    for (int size = 0; size <= len; size++) {
        std::vector<char> dst(size);
        EXPECT_EQ(build_heartbeat_msg(&channel, dst.data(), size), size == len ? len : -1);
        if (size < len)
            log.expect({size <= headerLen ? "snprintf error:70"
                                          : "pack_msg_to_buf, msg[len:38] is too long"});
    }
    EXPECT_EQ(channel.msgSequence, 1); // used up by the one that fitted
    const std::string big(TV_MSG_BUF_SIZE, 'x');
    const int refused[][2] = {{65469, -1}, {INT_MAX, -1}, {-1, -1}, {INT_MIN, -1}, {65468, 65536}};
    for (const auto &attempt : refused)
        EXPECT_EQ(pack_outgoing_rqst(&channel, big.data(), attempt[0]), attempt[1]);
    EXPECT_EQ(pack_outgoing_rqst(&channel, nullptr, 5), 0);
    EXPECT_EQ(pack_outgoing_resp(&channel, nullptr, 5), 0);
    EXPECT_EQ(channel.msgSequence, 2);
    const int more = TV_URL_SIZE - (int)strlen(channel.url),
              bare = pack_outgoing_rqst(&channel, "", 0);
    memset(channel.url, 'u', TV_URL_SIZE); // without an end
    channel.waitingResp = 'v';             // is behind it
    EXPECT_EQ(pack_outgoing_rqst(&channel, "", 0), bare + more);
}
