// fuzz_frame.cpp - the receiver of frames, given any bytes in any pieces over a pair of sockets.
// Every frame that it returns, and its last refusal, is compared with a plain reading of the bytes;
// and so are the bytes of the same frame when it is sent.
//
// Input: one byte that says how recv() behaves, then the stream.

#include "tolvane.h"

#include <algorithm>
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <string>
#include <string_view>
#include <unistd.h>

#define REQUIRE(condition) ((condition) ? (void)0 : abort())

static const size_t headerSize = 36;
static const size_t blockLimit = 1 << 20; // larger blocks are refused: reserving them takes long
static int behaviour; // of recv(): the size of its pieces, its interruptions, and the stream's end
static int calls;

extern "C" int __real_poll(struct pollfd *fds, nfds_t count, int timeout);
extern "C" ssize_t __real_recv(int fd, void *bytes, size_t count, int flags);
extern "C" void *__real_malloc(size_t size);

extern "C" void *__wrap_malloc(size_t size)
{
    return size > blockLimit ? nullptr : __real_malloc(size);
}

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
    int ends[2];
    if (size == 0 || size > 60000 || socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0)
        return 0;
    behaviour = data[0];
    std::string_view stream((const char *)data + 1, size - 1);
    REQUIRE(write(ends[1], stream.data(), stream.size()) == (ssize_t)stream.size());
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
    if (behaviour & 0x40)
        shutdown(ends[1], SHUT_WR);
    for (int length = frame_length(stream);; length = frame_length(stream)) {
        int len = -7;
        char *body = tcp_impl_receive_with_timeout(ends[0], &len, 1 << 30);
        REQUIRE((body != nullptr) == (length >= 0));
        if (body == nullptr)
            break;
        REQUIRE(len == length && stream.compare(headerSize, len, body, len) == 0);
        REQUIRE(body[len] == '\0');

        std::string frame(stream.substr(0, headerSize + len)), sent(frame.size() + 1, 'x');
        frame.replace(15, 17, 17, '\0'); // between watermark and length
        REQUIRE(tcp_impl_send_with_timeout(ends[0], body, len, 1 << 30) == len);
        sent.resize(read(ends[1], &sent[0], sent.size()));
        REQUIRE(sent == frame);
        free(body);
        stream.remove_prefix(headerSize + length);
    }
    close(ends[0]);
    close(ends[1]);
    return 0;
}
