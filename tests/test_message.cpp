// test_message.cpp - the six kinds of message: built to the byte, read back, read from strangers.

#include "log_capture.h"

#include <functional>
#include <limits.h>

static const std::string tags[] = {"velun_tolvane_login\n",     "velun_tolvane_logout\n",
                                   "velun_tolvane_request\n",   "velun_tolvane_reply\n",
                                   "velun_tolvane_heartbeat\n", "velun_tolvane_heartbeatack\n"};
static const std::string marker = "\nvelun_tolvane_payload\n", url = "tcp://192.0.2.10:6000";

// A text as the transport hands it over: its bytes, one 0x00, and not a byte more.
static std::vector<char> received(const std::string &text)
{
    return std::vector<char>(text.c_str(), text.c_str() + text.size() + 1);
}

// All that is found in a message: "type sequence URL payload", with - for what is missing.
static std::string read(const std::string &text)
{
    const std::vector<char> msg = received(text);
    char foundUrl[TV_URL_SIZE] = "-";
    const bool hasUrl = get_msg_url(msg.data(), foundUrl, sizeof(foundUrl)) == 0;
    EXPECT_EQ(hasUrl, strcmp(foundUrl, "-") != 0); // untouched when there is none
    int len = 77;
    const char *payload = get_msg_payload(msg.data(), (int)text.size(), &len);
    EXPECT_TRUE(payload != nullptr || len == 0);
    return std::to_string(get_msg_type(msg.data())) + " " +
           std::to_string(get_msg_sequence(msg.data())) + " " + foundUrl + " " +
           (payload == nullptr ? "-" : std::string(payload, len));
}

static std::string heartbeat_values(const std::string &text)
{
    const std::vector<char> msg = received(text);
    return std::to_string(get_heartbeat_sequence(msg.data())) + " " +
           std::to_string(get_heartbeat_interval(msg.data())) + " " +
           std::to_string(get_heartbeat_count(msg.data()));
}

struct Message : testing::Test {
    Message()
    {
        init_channel(&channel, 1);
        strcpy(channel.url, url.c_str());
        channel.hbSequence = 5;
        channel.hbInterval = 10;
        channel.hbCount = 3;
    }

    tv_channel channel;
    LogCapture log;
};

TEST_F(Message, EachKindToTheByteAndBack)
{
    const std::string ping("ping\0", 5), beat("{sequence:5}, {interval:10},{count:3}\0", 38),
        ack("{sequence:5}\0", 13), payloads[] = {ping, ping, ping, ping, beat, ack};
    char dst[512];
    const std::function<int()> builders[] = {
        [&] { return build_login_msg(&channel, "ping"); },
        [&] { return build_logout_msg(&channel, "ping"); },
        [&] { return pack_outgoing_rqst(&channel, "ping", 5); },
        [&] { return pack_outgoing_resp(&channel, "ping", 5); },
        [&] { return build_heartbeat_msg(&channel, dst, 512); },
        [&] { return build_heartbeat_ack_msg(&channel, dst, 512); }};
    // Numbers count on through all kinds, and begin again after the largest.
    const int numbers[] = {INT_MAX - 1, INT_MAX, 0, 1, 2, 3};
    channel.msgSequence = numbers[0];
    for (int type = TV_MSG_LOGIN; type < TV_MSG_UNKNOWN; type++) {
        const int len = builders[type]();
        const std::string text(type < TV_MSG_HEARTBEAT ? channel.msgBuf : dst, len),
            number = std::to_string(numbers[type]);
        EXPECT_EQ(text, number + "\n" + tags[type] + url + marker + payloads[type]);
        EXPECT_EQ(read(text),
                  std::to_string(type) + " " + number + " " + url + " " + payloads[type]);
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
    EXPECT_EQ(pack_outgoing_resp(nullptr, "ping", 5), 0);
    EXPECT_EQ(channel.msgSequence, 2);
}

TEST_F(Message, EveryTruncationIsReadWithinItsBytes)
{
    const std::string header = "7\n" + tags[TV_MSG_HEARTBEAT] + url + marker,
                      whole = header + "payload";
    for (size_t len = 0; len <= whole.size(); len++) {
        const std::string text = whole.substr(0, len), start = len < 16 ? "6 0 " : "6 7 ";
        if (len < header.size())
            EXPECT_EQ(read(text), (len < 26 ? start : "4 7 ") + "- -");
        else
            EXPECT_EQ(read(text), "4 7 " + url + " " + text.substr(header.size()));
    }
}

TEST_F(Message, HostileTexts)
{
    const std::string login = tags[0], request = tags[2], reply = tags[3], ack = tags[5];
    const std::string blanks(30, ' '); // of a number 31 characters are read
    const std::string messages[][2] = {
        {"", "6 0 - -"},
        {"9\nvelun_tolvane_", "6 9 - -"},
        {"9\n" + request + "u" + marker + login, "0 9 - " + login},
        {"9\n" + ack + reply + "u" + marker, "3 9 u "},
        {"9\n" + reply + request + reply + "u" + marker, "2 9 " + reply + "u "},
        {"9" + marker + request + "u" + marker, "2 9 - " + request + "u" + marker},
        {"9\n" + request + marker.substr(1), "2 9 - "}, // one line end for tag and marker
        {"9\n" + request + marker, "2 9  "},
        {"velun_tolvane_" + login + marker + "p", "0 0  p"},
        {"2147483648\n" + reply, "3 2147483647 - -"},
        {"-99999999999999999999\n" + reply, "3 -2147483648 - -"},
        {" \t+12x3\n" + reply, "3 12 - -"},
        {blanks + "12\n" + reply, "3 1 - -"},
        {"9\n" + request + std::string(99, 'u') + marker, "2 9 " + std::string(63, 'u') + " "},
    };
    for (const auto &row : messages)
        EXPECT_EQ(read(row[0]), row[1]);
    int len = 77;
    EXPECT_EQ(get_msg_payload(marker.c_str(), (int)marker.size() - 1, &len), nullptr);

    const std::string heartbeats[][2] = {
        {"{sequence=5}, {interval:10},{count:3}", "5 10 3"},
        {"}{sequence:5}", "5 -1 -1"},
        {"{sequence:5", "-1 -1 -1"},
        {"sequence interval}", "0 0 -1"},
        {"{sequence}42{count}", "42 -1 0"}, // the brace takes the colon's place
        {"{interval:-7},{count:99999999999}", "-1 -7 2147483647"},
        {"{count:" + blanks + "12}", "-1 -1 1"},
        {"{count}" + blanks + "12", "-1 -1 1"},
    };
    for (const auto &row : heartbeats)
        EXPECT_EQ(heartbeat_values(row[0]), row[1]) << row[0];
}
