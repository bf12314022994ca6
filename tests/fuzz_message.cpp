// fuzz_message.cpp - the readers of a message's text, given anything; and what the builders make
// of anything, read back. What they return is compared with plain searches in the same text.

#include "tolvane.h"

#include <algorithm>
#include <limits.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <string>

#define REQUIRE(condition) ((condition) ? (void)0 : abort())

static const std::string marker = "\nvelun_tolvane_payload\n";
static const std::string tags[] = {"velun_tolvane_login\n",     "velun_tolvane_logout\n",
                                   "velun_tolvane_request\n",   "velun_tolvane_reply\n",
                                   "velun_tolvane_heartbeat\n", "velun_tolvane_heartbeatack\n"};

// A stranger's number: 31 characters of it are read, and one that is out of range is the nearest.
static int number_of(const std::string &text)
{
    const long number = strtol(text.substr(0, 31).c_str(), nullptr, 10);
    return (int)std::clamp(number, (long)INT_MIN, (long)INT_MAX);
}

static int heartbeat_value(const std::string &text, const std::string &key)
{
    const size_t at = text.find(key), end = text.find('}', at);
    if (end == std::string::npos) // as it also is behind no key
        return -1;
    const size_t value = at + key.size() + 1; // behind a colon, or behind the brace in its place:
    return number_of(text.substr(value, end - value)); // then it is what follows, to the end
}

// msg holds len bytes and the NUL behind them that the transport stores.
static void check_readers(const char *msg, int len)
{
    const std::string text(msg);
    int type = TV_MSG_LOGIN;
    while (type < TV_MSG_UNKNOWN && text.find(tags[type]) == std::string::npos)
        type++;
    REQUIRE(get_msg_type(msg) == type);

    const size_t at = text.find(marker);
    const bool found = at != std::string::npos;
    for (const int within : {len, len / 2}) { // the marker may reach beyond half the message
        const int left = found ? within - (int)(at + marker.size()) : -1; // for the payload
        int payloadLen = -7;
        const char *payload = get_msg_payload(msg, within, &payloadLen);
        REQUIRE(payload == (left < 0 ? nullptr : msg + within - left));
        REQUIRE(payloadLen == (left < 0 ? 0 : left));
    }

    const size_t url =
        type == TV_MSG_UNKNOWN ? std::string::npos : text.find(tags[type]) + tags[type].size();
    const bool hasUrl = found && url <= at; // which no npos is
    for (const int size : {1, 2, TV_URL_SIZE}) {
        char stored[TV_URL_SIZE] = "untouched";
        REQUIRE(get_msg_url(msg, stored, size) == (hasUrl ? 0 : -1));
        REQUIRE(stored == (hasUrl ? text.substr(url, at - url).substr(0, size - 1) : "untouched"));
    }

    const size_t prefix = text.find("velun_tolvane_");
    REQUIRE(get_msg_sequence(msg) ==
            (prefix == std::string::npos ? 0 : number_of(text.substr(0, prefix))));
    REQUIRE(get_heartbeat_sequence(msg) == heartbeat_value(text, "sequence"));
    REQUIRE(get_heartbeat_interval(msg) == heartbeat_value(text, "interval"));
    REQUIRE(get_heartbeat_count(msg) == heartbeat_value(text, "count"));
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static tv_channel channel;
    if (size > TV_MSG_BUF_SIZE - 200)
        return 0;
    char *const msg = (char *)calloc(size + 1, 1); // of the exact size: nothing behind it is read
    memcpy(msg, data, size);
    check_readers(msg, size);

    init_channel(&channel, 0);
    snprintf(channel.url, sizeof(channel.url), "%s", msg);
    const int sequence = channel.msgSequence = (int)(msg[0] * 0x01010101u);
    const int len = pack_outgoing_rqst(&channel, msg, size);
    REQUIRE(len > (int)size && len <= TV_MSG_BUF_SIZE);
    REQUIRE(channel.msgSequence == (sequence < 0 ? 0 : sequence + 1));
    const std::string built(channel.msgBuf, len);
    check_readers(built.c_str(), len);
    REQUIRE(get_msg_sequence(built.c_str()) == sequence);
    REQUIRE(built.compare(len - size, size, msg, size) == 0);
    free(msg);
    return 0;
}
