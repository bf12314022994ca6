// wire.h - messages and frames as docs/protocol.md describes them, to compare the library with.
#ifndef WIRE_H
#define WIRE_H

#include <arpa/inet.h>
#include <string.h>
#include <string>
#include <string_view>

using Text = const std::string &;

static const std::string marker = "\nvelun_tolvane_payload\n";
static const std::string kinds[] = {"login", "logout",    "request",
                                    "reply", "heartbeat", "heartbeatack"};

inline std::string tag(Text kind)
{
    return "velun_tolvane_" + kind + "\n";
}

// A message; its payload is optional and includes the marker.
inline std::string message(long long number, Text kind, Text url, Text payload = "")
{
    return std::to_string(number) + "\n" + tag(kind) + url + payload;
}

// A frame: a watermark, zeros, the length of the body in 4 bytes, the body.
static const size_t headerSize = 36;

inline std::string header(uint32_t length)
{
    length = htonl(length);
    const std::string bytes((const char *)&length, sizeof(length));
    return "TCP_WATER_MARK" + std::string(18, '\0') + bytes;
}

inline std::string frame(Text body)
{
    return header(body.size()) + body;
}

// The length of the body if the bytes begin with a whole frame, or -1.
inline int frame_length(std::string_view bytes)
{
    uint32_t length;
    if (bytes.size() < headerSize || memcmp(bytes.data(), "TCP_WATER_MARK", 15) != 0)
        return -1;
    memcpy(&length, &bytes[headerSize - sizeof(length)], sizeof(length));
    return ntohl(length) > bytes.size() - headerSize ? -1 : (int)ntohl(length);
}

#endif
