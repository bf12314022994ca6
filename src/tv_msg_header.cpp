// tv_msg_header.cpp - the text in front of every payload: building it, and reading it back.
//
// Callers  tv_channel.cpp, tv_client.cpp, tv_server_api.cpp and tolvane.hpp. It does no I/O.
// Format   "<sequence>\n<tag>\n<URL>\nvelun_tolvane_payload\n", then the payload's bytes.
// Method   readers treat a message as text up to its first 0x00. The transport appends a 0x00 to
//          everything it receives, so no scan here runs past the end.
// Failure  a message that does not fit is not built and does not use up a sequence number.
// State    none but the channel's sequence number.

#include "tv_internal.h"
#include "tv_log.h"

#include <stdlib.h>
#include <string.h>
#include <string_view>

#define PREFIX         "velun_tolvane_"
#define PAYLOAD_MARKER "\n" PREFIX "payload\n"

static const int prefixLen = sizeof(PREFIX) - 1;
static const int markerLen = sizeof(PAYLOAD_MARKER) - 1;

// What follows the prefix in each tag, indexed by type code. In a message with several tags the
// lowest type wins.
static constexpr std::string_view tagNames[TV_MSG_UNKNOWN] = {
    "login\n", "logout\n", "request\n", "reply\n", "heartbeat\n", "heartbeatack\n",
};

// The length of the longest number, "-2147483648".
static const int maxIntLen = 11;

// Enough for any header: sequence, line end, the longest tag (27), URL, marker and terminator.
static const int maxHeaderSize = maxIntLen + 1 + 27 + TV_URL_SIZE + sizeof(PAYLOAD_MARKER);

// Only this many characters of a sequence number or heartbeat value are converted.
static const size_t maxNumberLen = 31;

// Room for the key-value text of a heartbeat, 66 characters at most.
static const size_t heartbeatTextSize = 128;

// ---- building

static char *append(char *end, std::string_view text)
{
    memcpy(end, text.data(), text.size());
    return end + text.size();
}

static char *append_number(char *end, unsigned number)
{
    if (number >= 10)
        end = append_number(end, number / 10);
    *end = (char)('0' + number % 10);
    return end + 1;
}

// Write the header into a buffer of maxHeaderSize bytes and return its length. This avoids
// snprintf(), which would take a third of the instructions spent on a small message.
static int print_header(const tv_channel *channel, int type, char *header)
{
    const int sequence = channel->msgSequence;
    char *end = append(header, sequence < 0 ? "-" : "");
    end = append_number(end, sequence < 0 ? -(unsigned)sequence : sequence);
    end = append(end, "\n" PREFIX);
    end = append(end, tagNames[type]);
    end = append(end, {channel->url, strnlen(channel->url, TV_URL_SIZE)});
    end = append(end, PAYLOAD_MARKER);
    *end = '\0';
    return (int)(end - header);
}

static int pack_msg_to_buf(tv_channel *channel, const char *payload, int len, int type, char *dst,
                           int size)
{
    if (len < 0) {
        TV_LOG("pack_msg_to_buf, negative length[%d]", len);
        return -1;
    }
    char header[maxHeaderSize];
    const int headerLen = print_header(channel, type, header);
    if (headerLen >= size) {
        snprintf(dst, size > 0 ? size : 0, "%s", header); // as much as fits
        TV_LOG("snprintf error:%d", headerLen);
        return -1;
    }
    memcpy(dst, header, headerLen + 1);
    if (len > size - headerLen) {
        TV_LOG("pack_msg_to_buf, msg[len:%d] is too long", len);
        return -1;
    }
    memcpy(dst + headerLen, payload, len);
    channel->msgSequence = next_sequence(channel->msgSequence);
    return headerLen + len;
}

static int pack_into_channel(tv_channel *channel, const char *payload, int len, int type)
{
    if (payload == nullptr || channel == nullptr)
        return 0;
    return pack_msg_to_buf(channel, payload, len, type, channel->msgBuf, TV_MSG_BUF_SIZE);
}

int pack_outgoing_rqst(tv_channel *channel, const char *payload, int len)
{
    return pack_into_channel(channel, payload, len, TV_MSG_REQUEST);
}

int pack_outgoing_resp(tv_channel *channel, const char *payload, int len)
{
    return pack_into_channel(channel, payload, len, TV_MSG_REPLY);
}

int build_login_msg(tv_channel *channel, const char *text)
{
    return pack_into_channel(channel, text, strlen(text) + 1, TV_MSG_LOGIN);
}

int build_logout_msg(tv_channel *channel, const char *text)
{
    return pack_into_channel(channel, text, strlen(text) + 1, TV_MSG_LOGOUT);
}

int build_heartbeat_msg(tv_channel *channel, char *dst, int size)
{
    char text[heartbeatTextSize];
    snprintf(text, sizeof(text), "{%s:%d}, {%s:%d},{%s:%d}", "sequence", channel->hbSequence,
             "interval", channel->hbInterval, "count", channel->hbCount);
    return pack_msg_to_buf(channel, text, strlen(text) + 1, TV_MSG_HEARTBEAT, dst, size);
}

int build_heartbeat_ack_msg(tv_channel *channel, char *dst, int size)
{
    char text[heartbeatTextSize];
    snprintf(text, sizeof(text), "{%s:%d}", "sequence", channel->hbSequence);
    return pack_msg_to_buf(channel, text, strlen(text) + 1, TV_MSG_HEARTBEAT_ACK, dst, size);
}

// ---- reading

// Return the lowest type below limit whose tag name starts at name, or limit if there is none.
static int type_of_name(const char *name, int limit)
{
    for (int type = TV_MSG_LOGIN; type < limit; type++) {
        const std::string_view wanted = tagNames[type];
        if (*name == *wanted.data() && strncmp(name, wanted.data(), wanted.size()) == 0)
            return type;
    }
    return limit;
}

// Maps each two adjacent characters of the prefix to their distance from its end.
struct bigram_table {
    struct {
        char bigram[2];
        uint8_t distance;
    } slots[64] = {}; // no two bigrams of the prefix share one

    static constexpr int slot_of(char first, char second) { return (first * 4 + second) & 63; }
    constexpr bigram_table()
    {
        for (int i = 1; i < prefixLen; i++) {
            const char first = PREFIX[i - 1];
            const char second = PREFIX[i];
            slots[slot_of(first, second)] = {{first, second}, (uint8_t)(prefixLen - 1 - i)};
        }
    }
    // How far a search window whose last character is *last can advance; 0: it may hold the prefix.
    int skip(const char *last) const
    {
        const auto &slot = slots[slot_of(last[-1], last[0])];
        const bool known = slot.bigram[0] == last[-1] && slot.bigram[1] == last[0];
        return known ? slot.distance : prefixLen - 1;
    }
};
static constexpr bigram_table prefixBigrams;

// Return the first prefix between text and end, or null. A window of the prefix's length slides
// over the text. The prefix ends with an underscore, and most payloads have few, so memchr() moves
// the window to the first underscore of each block. A peer may send megabytes full of underscores,
// which would stop memchr() at each of them. For the rest of the block, the window therefore
// advances as far as its last two characters allow. strstr() does the same, but would rebuild its
// table after each prefix.
static const char *find_prefix(const char *text, const char *end)
{
    const long blockSize = 256;
    const char *last = text + prefixLen - 1; // of the window
    while (last < end) {
        const char *blockEnd = last + (end - last < blockSize ? end - last : blockSize);
        const void *underscore = memchr(last, '_', blockEnd - last);
        last = underscore != nullptr ? (const char *)underscore : blockEnd;
        while (last < blockEnd) {
            const int skip = prefixBigrams.skip(last);
            if (skip == 0 && memcmp(last - (prefixLen - 1), PREFIX, prefixLen) == 0)
                return last - (prefixLen - 1);
            last += skip > 0 ? skip : 1;
        }
    }
    return nullptr;
}

// Find the lowest type whose tag occurs in the text, and the URL after its first occurrence. One
// pass over the prefixes is enough because they cannot overlap.
static int find_tag(const char *msg, const char **url)
{
    const char *end = msg + strlen(msg);
    int lowest = TV_MSG_UNKNOWN;
    const char *prefix = find_prefix(msg, end);
    while (prefix != nullptr && lowest > TV_MSG_LOGIN) {
        const char *name = prefix + prefixLen;
        const int type = type_of_name(name, lowest);
        if (type < lowest) {
            lowest = type;
            *url = name + tagNames[type].size();
        }
        prefix = find_prefix(name, end);
    }
    return lowest;
}

// Convert at most count characters to an int. Values out of range are clamped.
static int to_int(const char *text, size_t count)
{
    char number[maxNumberLen + 1] = "";
    strncpy(number, text, count < maxNumberLen ? count : maxNumberLen);
    const long value = strtol(number, nullptr, 10);
    if (value > INT_MAX)
        return INT_MAX;
    return value < INT_MIN ? INT_MIN : (int)value;
}

int get_msg_type(const char *msg)
{
    const char *url = nullptr;
    const int type = find_tag(msg, &url);
    if (type == TV_MSG_UNKNOWN)
        TV_LOG("get_msg_type, unexpected tolvane received");
    return type;
}

int get_msg_sequence(const char *msg)
{
    const char *prefix = strstr(msg, PREFIX);
    return prefix == nullptr ? 0 : to_int(msg, prefix - msg);
}

int get_msg_url(const char *msg, char *dst, int size)
{
    const char *url = nullptr;
    if (find_tag(msg, &url) == TV_MSG_UNKNOWN) {
        TV_LOG_AT("get_url_pos", __LINE__, "get_url_pos, unexpected tolvane received");
        return -1;
    }
    const char *marker = strstr(msg, PAYLOAD_MARKER);
    if (marker == nullptr || marker < url || size < 1)
        return -1;

    const long len = marker - url < size ? marker - url : size - 1;
    memcpy(dst, url, len);
    dst[len] = '\0';
    return 0;
}

const char *get_msg_payload(const char *msg, int len, int *payloadLen)
{
    const char *marker = strstr(msg, PAYLOAD_MARKER);
    if (marker == nullptr || marker - msg + markerLen > len) {
        TV_LOG("get_msg_payload, unexpected tolvane received");
        *payloadLen = 0;
        return nullptr;
    }
    const char *payload = marker + markerLen;
    *payloadLen = len - (int)(payload - msg);
    return payload;
}

static int get_heartbeat_value(const char *text, const char *key)
{
    const char *found = strstr(text, key);
    if (found == nullptr) {
        TV_LOG("could not find key");
        return -1;
    }
    const char *end = strchr(found, '}');
    if (end == nullptr)
        return -1;

    // The character after the key should be a colon and is skipped unchecked. If it is the brace
    // itself, the count below wraps to a huge number and the text after the brace is converted.
    const char *value = found + strlen(key) + 1;
    return to_int(value, (size_t)(end - value));
}

int get_heartbeat_sequence(const char *text)
{
    return get_heartbeat_value(text, "sequence");
}

int get_heartbeat_interval(const char *text)
{
    return get_heartbeat_value(text, "interval");
}

int get_heartbeat_count(const char *text)
{
    return get_heartbeat_value(text, "count");
}
