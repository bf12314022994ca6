// fuzz_frame.cpp - receives any bytes, in any pieces, as frames over a socket pair.
// Every frame returned, and the final failure, is compared with a simple parser's result. Each body
// is also sent, and the bytes on the wire are compared.
//
// Input: one byte that says how recv() and the end of the stream behave, then the stream.

#include "simulated_os.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    int ends[2];
    if (size == 0 || size > 60000 || socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0)
        return 0;
    static const Fault halting = {{"recv"}, {HALF, EINTR, EAGAIN}, SAME, ""};
    injection = {&halting, halting.ways[data[0] % 3], data[0] / 4 % 8, (data[0] & 0x20) != 0};
    injecting = true;
    now = 1000000; // or the clock overflows after some thousand inputs
    std::string_view stream((const char *)data + 1, size - 1);
    REQUIRE(write(ends[1], stream.data(), stream.size()) == (ssize_t)stream.size());
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
    if (data[0] & 0x40)
        shutdown(ends[1], SHUT_WR);
    for (int length = frame_length(stream);; length = frame_length(stream)) {
        int len = -7;
        char *body = tcp_impl_receive_with_timeout(ends[0], &len, 1 << 30);
        REQUIRE((body != nullptr) == (length >= 0));
        if (body == nullptr)
            break;
        REQUIRE(len == length && stream.compare(headerSize, len, body, len) == 0);
        REQUIRE(body[len] == '\0');

        std::string sent(headerSize + len + 1, 'x');
        if (body[0] != 'T') { // send_now() could take such a body for a header
            REQUIRE(tcp_impl_send_with_timeout(ends[0], body, len, 1 << 30) == len);
            sent.resize(read(ends[1], &sent[0], sent.size()));
            REQUIRE(sent == frame({body, (size_t)len}));
        }
        free(body);
        stream.remove_prefix(headerSize + length);
    }
    injecting = false;
    close(ends[0]);
    close(ends[1]);
    return 0;
}
