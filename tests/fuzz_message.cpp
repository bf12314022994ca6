// fuzz_message.cpp - the readers of a message's text, given anything; and what the builders make
// of anything, read back. What they return is compared with plain searches in the same text.

#include "tolvane.h"

#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <string>

#define REQUIRE(condition) ((condition) ? (void)0 : abort())

static const std::string marker = "\nvelun_tolvane_payload\n";
static const char *const tags[] = {"login", "logout",    "request",
                                   "reply", "heartbeat", "heartbeatack"};

// msg holds len bytes and the NUL behind them that the transport stores.
static void check_readers(const char *msg, int len)
{
    const std::string text(msg);
    int type = TV_MSG_LOGIN;
    size_t tag = std::string::npos;
    for (; type < TV_MSG_UNKNOWN && tag == std::string::npos; type += tag == std::string::npos)
        tag = text.find(std::string("velun_tolvane_") + tags[type] + "\n");
    REQUIRE(get_msg_type(msg) == type);

    const size_t at = text.find(marker);
    const bool found = at != std::string::npos;
    for (const int within : {len, len / 2}) { // the marker may reach beyond half the message
        const bool fits = found && at + marker.size() <= (size_t)within;
        const int begin = (int)(at + marker.size());
        int payloadLen = -7;
        const char *payload = get_msg_payload(msg, within, &payloadLen);
        REQUIRE(payload == (fits ? msg + begin : nullptr));
        REQUIRE(payloadLen == (fits ? within - begin : 0));
    }

    const size_t url = tag == std::string::npos ? tag : text.find('\n', tag) + 1;
    const bool hasUrl = found && url != std::string::npos && url <= at;
    for (const int size : {1, 2, TV_URL_SIZE}) {
        char stored[TV_URL_SIZE] = "untouched";
        REQUIRE(get_msg_url(msg, stored, size) == (hasUrl ? 0 : -1));
        REQUIRE(stored == (hasUrl ? text.substr(url, at - url).substr(0, size - 1) : "untouched"));
    }
    REQUIRE(text.find("velun_tolvane_") != std::string::npos || get_msg_sequence(msg) == 0);
    get_heartbeat_sequence(msg);
    get_heartbeat_interval(msg);
    get_heartbeat_count(msg);
}

static void check_builders(tv_channel &channel, const char *payload, int len)
{
    const int sequence = channel.msgSequence;
    const int msgLen = pack_outgoing_rqst(&channel, payload, len);
    REQUIRE(msgLen > len && msgLen <= TV_MSG_BUF_SIZE);
    REQUIRE(channel.msgSequence == (sequence < 0 ? 0 : sequence + 1));
    const std::string msg(channel.msgBuf, msgLen);
    check_readers(msg.c_str(), msgLen);
    REQUIRE(get_msg_sequence(msg.c_str()) == sequence);
    REQUIRE(msg.compare(msgLen - len, len, payload, len) == 0);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    char *msg = (char *)malloc(size + 1); // of the exact size, so that nothing behind it is read
    memcpy(msg, data, size);
    msg[size] = '\0';
    check_readers(msg, size);

    static tv_channel channel;
    init_channel(&channel, 0);
    snprintf(channel.url, sizeof(channel.url), "%s", msg);
    channel.msgSequence = size > 0 ? (int)(data[0] * 0x01010101u) : 0;
    if (size < TV_MSG_BUF_SIZE - 200)
        check_builders(channel, msg, size);
    free(msg);
    return 0;
}
