// test_message.cpp - the six kinds of message: built to the byte, read back, read from strangers.

#include "log_capture.h"

#include <limits.h>
#include <memory>
#include <random>
#include <string.h>

static const char *const tags[] = {"velun_tolvane_login\n",     "velun_tolvane_logout\n",
                                   "velun_tolvane_request\n",   "velun_tolvane_reply\n",
                                   "velun_tolvane_heartbeat\n", "velun_tolvane_heartbeatack\n"};
static const std::string marker = "\nvelun_tolvane_payload\n";

// A text as the transport hands it over: its bytes, one 0x00, and not a byte more.
struct Received {
    explicit Received(const std::string &text) : bytes(new char[text.size() + 1])
    {
        memcpy(bytes.get(), text.c_str(), text.size() + 1);
    }
    operator const char *() const
    {
        return bytes.get();
    }
    std::unique_ptr<char[]> bytes;
};

struct Message : testing::Test {
    Message()
    {
        init_channel(&channel, 1);
        strcpy(channel.url, "tcp://192.0.2.10:6000");
        channel.hbSequence = 5;
        channel.hbInterval = 10;
        channel.hbCount = 3;
    }

    std::string build(int type)
    {
        char small[512];
        const int len = type == TV_MSG_LOGIN       ? build_login_msg(&channel, "ping")
                        : type == TV_MSG_LOGOUT    ? build_logout_msg(&channel, "ping")
                        : type == TV_MSG_REQUEST   ? pack_outgoing_rqst(&channel, "ping", 5)
                        : type == TV_MSG_REPLY     ? pack_outgoing_resp(&channel, "ping", 5)
                        : type == TV_MSG_HEARTBEAT ? build_heartbeat_msg(&channel, small, 512)
                                                   : build_heartbeat_ack_msg(&channel, small, 512);
        return std::string(type < TV_MSG_HEARTBEAT ? channel.msgBuf : small, len > 0 ? len : 0);
    }

    // The URL in a message, or "-" when there is none, which leaves the destination alone.
    static std::string url(const char *msg, int size = TV_URL_SIZE)
    {
        char dst[TV_URL_SIZE] = "-";
        const int result = get_msg_url(msg, dst, size);
        EXPECT_EQ(result, strcmp(dst, "-") == 0 ? -1 : 0);
        return dst;
    }

    // The payload of a message, or "-" when there is none.
    static std::string payload(const char *msg, int len)
    {
        int payloadLen = 77;
        const char *start = get_msg_payload(msg, len, &payloadLen);
        EXPECT_TRUE(start != nullptr || payloadLen == 0);
        return start == nullptr ? "-" : std::string(start, payloadLen);
    }

    tv_channel channel;
    LogCapture log;
};

TEST_F(Message, EachKindToTheByteAndBack)
{
    const std::string ping("ping\0", 5), beat("{sequence:5}, {interval:10},{count:3}\0", 38),
        ack("{sequence:5}\0", 13), payloads[] = {ping, ping, ping, ping, beat, ack};
    channel.msgSequence = 7; // counts on through all kinds
    for (int type = TV_MSG_LOGIN; type < TV_MSG_UNKNOWN; type++) {
        const std::string text = build(type);
        EXPECT_EQ(text, std::to_string(7 + type) + "\n" + tags[type] + channel.url + marker +
                            payloads[type]);
        const Received msg(text);
        EXPECT_EQ(get_msg_type(msg), type);
        EXPECT_EQ(get_msg_sequence(msg), 7 + type);
        EXPECT_EQ(url(msg), channel.url);
        EXPECT_EQ(url(msg, 8), "tcp://1");
        EXPECT_EQ(payload(msg, text.size()), payloads[type]);
        EXPECT_EQ(payload(msg, text.size() - payloads[type].size()), "");
        log.expect({});
    }
}

TEST_F(Message, NumbersBeginAgainAfterTheLargest)
{
    const int steps[][2] = {{0, 1}, {INT_MAX - 1, INT_MAX}, {INT_MAX, 0}, {-1, 0}, {INT_MIN, 0}};
    for (const auto &step : steps) {
        channel.msgSequence = step[0];
        EXPECT_EQ(get_msg_sequence(build(TV_MSG_REPLY).c_str()), step[0]);
        EXPECT_EQ(channel.msgSequence, step[1]);
    }
}

TEST_F(Message, WhatDoesNotFitIsNotBuilt)
{
    const int headerLen = 70, beatLen = 38;
    for (int size = 0; size < headerLen + beatLen; size++) {
        const std::unique_ptr<char[]> dst(new char[size]);
        EXPECT_EQ(build_heartbeat_msg(&channel, dst.get(), size), -1);
        log.expect(
            {size <= headerLen ? "snprintf error:70" : "pack_msg_to_buf, msg[len:38] is too long"});
    }
    const std::unique_ptr<char[]> exact(new char[headerLen + beatLen]);
    EXPECT_EQ(channel.msgSequence, 0);
    EXPECT_EQ(build_heartbeat_msg(&channel, exact.get(), headerLen + beatLen), headerLen + beatLen);

    channel.msgSequence = 0;
    const std::string big(TV_MSG_BUF_SIZE, 'x');
    EXPECT_EQ(pack_outgoing_rqst(&channel, big.data(), 65469), -1);
    EXPECT_EQ(pack_outgoing_rqst(&channel, big.data(), INT_MAX), -1);
    EXPECT_EQ(pack_outgoing_rqst(&channel, big.data(), -1), -1);
    EXPECT_EQ(pack_outgoing_rqst(&channel, nullptr, 5), 0);
    EXPECT_EQ(pack_outgoing_resp(nullptr, "ping", 5), 0);
    log.expect({"pack_msg_to_buf, msg[len:65469] is too long",
                "pack_msg_to_buf, msg[len:2147483647] is too long",
                "pack_msg_to_buf, negative length[-1]"});
    EXPECT_EQ(channel.msgSequence, 0);
    EXPECT_EQ(pack_outgoing_rqst(&channel, big.data(), 65468), TV_MSG_BUF_SIZE);
}

TEST_F(Message, EveryTruncationIsReadWithinItsBytes)
{
    const std::string whole = build(TV_MSG_HEARTBEAT);
    const size_t tagEnd = 2 + strlen(tags[TV_MSG_HEARTBEAT]), header = 70;
    for (size_t len = 0; len <= whole.size(); len++) {
        SCOPED_TRACE(len);
        const Received msg(whole.substr(0, len));
        EXPECT_EQ(get_msg_type(msg), len < tagEnd ? TV_MSG_UNKNOWN : TV_MSG_HEARTBEAT);
        EXPECT_EQ(get_msg_sequence(msg), 0);
        EXPECT_EQ(url(msg), len < header ? "-" : channel.url);
        EXPECT_EQ(payload(msg, len), len < header ? "-" : whole.substr(header, len - header));
        EXPECT_EQ(get_heartbeat_sequence(msg), len < header + 12 ? -1 : 5);
        EXPECT_EQ(get_heartbeat_interval(msg), len < header + 27 ? -1 : 10);
        EXPECT_EQ(get_heartbeat_count(msg), len < header + 37 ? -1 : 3);
    }
}

TEST_F(Message, HostileTexts)
{
    const std::string login = tags[0], request = tags[2], reply = tags[3], ack = tags[5];
    const std::string blanks(30, ' ');
    const struct {
        std::string text;
        int type, sequence;
        const char *url, *payload;
    } rows[] = {
        {"", TV_MSG_UNKNOWN, 0, "-", "-"},
        {"9", TV_MSG_UNKNOWN, 0, "-", "-"},
        {"9\nvelun_tolvane_", TV_MSG_UNKNOWN, 9, "-", "-"},
        {"9\n" + request + "u", TV_MSG_REQUEST, 9, "-", "-"},
        {"9\n" + request + "u" + marker + login, TV_MSG_LOGIN, 9, "-", "velun_tolvane_login\n"},
        {"9\n" + ack + reply + "u" + marker, TV_MSG_REPLY, 9, "u", ""},
        {"9\n" + reply + request + reply + "u" + marker, TV_MSG_REQUEST, 9,
         "velun_tolvane_reply\nu", ""},
        {"9" + marker + request + "u", TV_MSG_REQUEST, 9, "-", "velun_tolvane_request\nu"},
        {"9" + marker + request + marker, TV_MSG_REQUEST, 9, "-",
         "velun_tolvane_request\n\nvelun_tolvane_payload\n"},
        {"9\n" + request + marker.substr(1), TV_MSG_REQUEST, 9, "-", ""}, // one line end for both
        {"9\n" + request + marker, TV_MSG_REQUEST, 9, "", ""},
        {"velun_tolvane_" + login + marker + "p", TV_MSG_LOGIN, 0, "", "p"},
        {"2147483648\n" + reply, TV_MSG_REPLY, INT_MAX, "-", "-"},
        {"-99999999999999999999\n" + reply, TV_MSG_REPLY, INT_MIN, "-", "-"},
        {" \t+12x3\n" + reply, TV_MSG_REPLY, 12, "-", "-"},
        {blanks + "12\n" + reply, TV_MSG_REPLY, 1, "-", "-"}, // 31 characters are converted
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.text);
        const Received msg(row.text);
        EXPECT_EQ(get_msg_type(msg), row.type);
        EXPECT_EQ(get_msg_sequence(msg), row.sequence);
        EXPECT_EQ(url(msg), row.url);
        EXPECT_EQ(payload(msg, row.text.size()), row.payload);
    }
    EXPECT_EQ(payload(marker.c_str(), marker.size() - 1), "-"); // ends inside the marker
}

TEST_F(Message, HeartbeatValues)
{
    const std::string blanks(30, ' ');
    const struct {
        std::string text;
        int sequence, interval, count;
    } rows[] = {
        {"{sequence=5}", 5, -1, -1},
        {"}{sequence:5}", 5, -1, -1},
        {"{sequence:5", -1, -1, -1},
        {"{sequence}42{count}", 42, -1, 0}, // the brace takes the colon's place
        {"sequence interval}", 0, 0, -1},
        {"{interval:-7},{count:99999999999}", -1, -7, INT_MAX},
        {"{count:" + blanks + "12}", -1, -1, 1},
        {"{count}" + blanks + "12", -1, -1, 1},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.text);
        const Received text(row.text);
        EXPECT_EQ(get_heartbeat_sequence(text), row.sequence);
        EXPECT_EQ(get_heartbeat_interval(text), row.interval);
        EXPECT_EQ(get_heartbeat_count(text), row.count);
    }
}

TEST_F(Message, OneSearchFindsWhatASearchForEachTagFinds)
{
    const char *const pieces[] = {"velun_tolvane_", "velun_",  "login\n", "heartbeat", "ack\n",
                                  tags[0],          tags[1],   tags[2],   tags[3],     tags[4],
                                  tags[5],          "\nvelun", "_",       "7",         "logout"};
    std::mt19937 random(20240607);
    for (int i = 0; i < 500; i++) {
        std::string text;
        for (int n = random() % 8; n > 0; n--)
            text += pieces[random() % std::size(pieces)];
        SCOPED_TRACE(text += marker);
        int type = TV_MSG_LOGIN;
        while (type < TV_MSG_UNKNOWN && text.find(tags[type]) == std::string::npos)
            type++;
        EXPECT_EQ(get_msg_type(Received(text)), type);
        if (type < TV_MSG_UNKNOWN) {
            const size_t start = text.find(tags[type]) + strlen(tags[type]);
            const size_t end = text.find(marker);
            EXPECT_EQ(url(Received(text), TV_URL_SIZE),
                      end < start ? "-" : text.substr(start, end - start).substr(0, 63));
        }
    }
}
