// fuzz_frame.cpp - the receiver of frames, given any bytes in any pieces over a pair of sockets.
// Every frame that it returns, and its last refusal, is compared with a plain reading of the bytes.
//
// Input: one byte that says how recv() behaves, then the stream.

#include "tolvane.h"

#include <algorithm>
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>

#define REQUIRE(condition) ((condition) ? (void)0 : abort())

static const size_t headerSize = 36;
static const size_t blockLimit = 1 << 20; // larger blocks are refused: clearing them takes long
static int behaviour; // of recv(): the size of its pieces, and its interruptions
static int calls;

extern "C" int __real_poll(struct pollfd *fds, nfds_t count, int timeout);
extern "C" ssize_t __real_recv(int fd, void *bytes, size_t count, int flags);
extern "C" void *__real_malloc(size_t size);

// What is not there yet never comes: a wait ends at once.
extern "C" int __wrap_poll(struct pollfd *fds, nfds_t count, int)
{
    return __real_poll(fds, count, 0);
}

extern "C" ssize_t __wrap_recv(int fd, void *bytes, size_t count, int flags)
{
    errno = behaviour & 0x10 ? EINTR : EAGAIN;
    if (behaviour & 0x20 && ++calls % 3 == 0)
        return -1;
    return __real_recv(fd, bytes, std::min(count, (size_t)1 << (behaviour & 0xf)), flags);
}

extern "C" void *__wrap_malloc(size_t size)
{
    return size > blockLimit ? nullptr : __real_malloc(size);
}

// The length of the frame that the bytes begin with, or -1.
static int frame_length(const uint8_t *bytes, size_t size)
{
    uint32_t length;
    if (size < headerSize || memcmp(bytes, "TCP_WATER_MARK", 15) != 0)
        return -1;
    memcpy(&length, bytes + headerSize - sizeof(length), sizeof(length));
    return ntohl(length) > size - headerSize ? -1 : (int)ntohl(length);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static int ends[2];
    static const int opened = socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends);
    REQUIRE(opened == 0);
    if (size == 0 || size > 60000)
        return 0;
    behaviour = *data++;
    size--;
    REQUIRE(size == 0 || send(ends[1], data, size, 0) == (ssize_t)size);
    for (int length = 0; length >= 0;) {
        length = frame_length(data, size);
        int len = -7;
        char *body = tcp_impl_receive_with_timeout(ends[0], &len, 1000);
        REQUIRE((body != nullptr) == (length >= 0));
        if (body == nullptr)
            break;
        REQUIRE(len == length && memcmp(body, data + headerSize, len) == 0 && body[len] == '\0');
        free(body);
        data += headerSize + length;
        size -= headerSize + length;
    }
    char rest[60000];
    while (__real_recv(ends[0], rest, sizeof(rest), 0) > 0)
        continue;
    return 0;
}
