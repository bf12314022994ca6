// fuzz_frame.cpp - the receiver of frames, given any bytes in any pieces. Every frame that it
// returns, and its last refusal, is compared with a plain reading of the bytes.
//
// Input: one byte that says how recv() behaves, then the stream.

#include "tolvane.h"

#include <algorithm>
#include <arpa/inet.h>
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <string_view>

#define REQUIRE(condition) ((condition) ? (void)0 : abort())

static const size_t headerSize = 36;
static const size_t blockLimit = 1 << 20; // larger blocks are refused: reserving them takes long
static std::string_view stream;           // what is still to be received
static int behaviour; // of recv(): the size of its pieces, its interruptions, and the stream's end
static int calls;

extern "C" void *__real_malloc(size_t size);

extern "C" void *__wrap_malloc(size_t size)
{
    return size > blockLimit ? nullptr : __real_malloc(size);
}

// At its end the stream is closed, or nothing more comes: a wait ends at once.
extern "C" int __wrap_poll(struct pollfd *, nfds_t, int)
{
    return !stream.empty() || behaviour & 0x40;
}

extern "C" ssize_t __wrap_recv(int, void *bytes, size_t count, int)
{
    errno = behaviour & 0x10 ? EINTR : EAGAIN;
    if (behaviour & 0x20 && ++calls % 3 == 0)
        return -1;
    count = stream.copy((char *)bytes, std::min(count, (size_t)1 << (behaviour & 0xf)));
    stream.remove_prefix(count);
    return count;
}

// The length of the frame that the bytes begin with, or -1.
static int frame_length(std::string_view bytes)
{
    uint32_t length;
    if (bytes.size() < headerSize || memcmp(bytes.data(), "TCP_WATER_MARK", 15) != 0)
        return -1;
    bytes.copy((char *)&length, sizeof(length), headerSize - sizeof(length));
    return ntohl(length) > bytes.size() - headerSize ? -1 : (int)ntohl(length);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    behaviour = data[0];
    stream = {(const char *)data + 1, size - 1};
    for (int length = 0; length >= 0;) {
        const std::string_view bytes = stream;
        length = frame_length(bytes);
        int len = -7;
        char *body = tcp_impl_receive_with_timeout(0, &len, 1 << 30);
        REQUIRE((body != nullptr) == (length >= 0));
        REQUIRE(length < 0 || (len == length && memcmp(body, &bytes[headerSize], len) == 0));
        REQUIRE(length < 0 || body[len] == '\0');
        free(body);
    }
    return 0;
}
