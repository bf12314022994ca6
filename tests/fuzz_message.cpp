// fuzz_message.cpp - parses any bytes as a message, and builds messages of all six kinds from them.
// Results are compared with plain searches and with strings assembled from their parts.

#include "require.h"
#include "tolvane.h"
#include "wire.h"

#include <algorithm>
#include <functional>
#include <limits.h>
#include <memory>
#include <stdint.h>

static const size_t nowhere = std::string::npos;

// Only 31 characters of a number are read; a number out of range becomes the nearest int.
static int number_of(const std::string &text)
{
    const long number = strtol(text.substr(0, 31).c_str(), nullptr, 10);
    return (int)std::clamp(number, (long)INT_MIN, (long)INT_MAX);
}

static int heartbeat_value(const std::string &text, const std::string &key)
{
    const size_t at = text.find(key), end = text.find('}', at);
    if (end == nowhere) // no brace, or no key
        return -1;
    const size_t value = at + key.size() + 1; // a brace as the colon: the length wraps
    return number_of(text.substr(value, end - value));
}

// msg holds len bytes and the NUL after them that the transport stores.
static void check_readers(const char *msg, int len)
{
    const std::string text(msg);
    const size_t prefix = text.find("velun_tolvane_"), at = text.find(marker);
    REQUIRE(get_msg_sequence(msg) == (prefix == nowhere ? 0 : number_of(text.substr(0, prefix))));
    REQUIRE(get_heartbeat_sequence(msg) == heartbeat_value(text, "sequence"));
    REQUIRE(get_heartbeat_interval(msg) == heartbeat_value(text, "interval"));
    REQUIRE(get_heartbeat_count(msg) == heartbeat_value(text, "count"));

    for (const int within : {len, len / 2}) { // the marker may reach beyond half the message
        const int left = at == nowhere ? -1 : within - (int)(at + marker.size()); // for the payload
        int payloadLen = -7;
        const char *payload = get_msg_payload(msg, within, &payloadLen);
        REQUIRE(payload == (left < 0 ? nullptr : msg + within - left));
        REQUIRE(payloadLen == std::max(left, 0));
    }

    int type = TV_MSG_LOGIN;
    while (type < TV_MSG_UNKNOWN && text.find(tag(kinds[type])) == nowhere)
        type++;
    REQUIRE(get_msg_type(msg) == type);
    const std::string known = type < TV_MSG_UNKNOWN ? tag(kinds[type]) : "";
    const size_t url = text.find(known) + known.size();
    const bool hasUrl = type < TV_MSG_UNKNOWN && at != nowhere && url <= at;
    for (const int size : {1, 2, TV_URL_SIZE}) {
        char stored[TV_URL_SIZE] = "untouched";
        REQUIRE(get_msg_url(msg, stored, size) == (hasUrl ? 0 : -1));
        REQUIRE(stored == (hasUrl ? text.substr(url, at - url).substr(0, size - 1) : "untouched"));
    }
}

// Every kind, byte for byte, from a channel whose URL, payload and numbers come from the input.
static void check_builders(const char *msg, int len)
{
    tv_channel channel = {};
    const std::string text(msg), url = text.substr(0, TV_URL_SIZE), textWithEnd = text + '\0';
    url.copy(channel.url, TV_URL_SIZE); // perhaps unterminated: waitingResp follows in the record
    channel.waitingResp = 'v';
    const int number = (int)(msg[0] * 0x01010101U);
    channel.hbSequence = number;
    channel.hbInterval = 10;
    channel.hbCount = -3;
    const std::string sequence = "{sequence:" + std::to_string(number) + "}";
    char *const dst = channel.msgBuf;
    // How each kind is built, and its payload.
    const std::pair<std::function<int()>, std::string> builders[] = {
        {[&] { return build_login_msg(&channel, msg); }, textWithEnd},
        {[&] { return build_logout_msg(&channel, msg); }, textWithEnd},
        {[&] { return pack_outgoing_rqst(&channel, msg, len); }, std::string(msg, len)},
        {[&] { return pack_outgoing_resp(&channel, msg, len); }, std::string(msg, len)},
        {[&] { return build_heartbeat_msg(&channel, dst, 512); },
         sequence + ", {interval:10},{count:-3}" + '\0'},
        {[&] { return build_heartbeat_ack_msg(&channel, dst, 512); }, sequence + '\0'},
    };
    for (const int first : {number, INT_MAX}) {
        for (int type = TV_MSG_LOGIN; type < TV_MSG_UNKNOWN; type++) {
            channel.msgSequence = first;
            const auto &[build, payload] = builders[type];
            const std::string built = message(first, kinds[type], url, marker + payload);
            REQUIRE(build() == (int)built.size());
            REQUIRE(memcmp(dst, built.data(), built.size()) == 0);
            REQUIRE(channel.msgSequence == (first < 0 || first == INT_MAX ? 0 : first + 1));
            if (type == TV_MSG_REQUEST) // one kind is enough: reading takes longest
                check_readers(built.c_str(), built.size());
        }
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size > TV_MSG_BUF_SIZE - 200)
        return 0;
    const std::unique_ptr<char[]> msg(new char[size + 1]()); // no larger, so overreads are caught
    memcpy(msg.get(), data, size);
    check_readers(msg.get(), size);
    check_builders(msg.get(), size);
    return 0;
}
