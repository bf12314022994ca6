// fuzz_layer.cpp - the input side of tolvane.hpp, given any bytes on a link. A server receives them
// after a login, a client after the acknowledgement that establishes its link, while two requests
// are outstanding. The handler of each request sent runs exactly once, the other links go on, and
// the link ends at the end of the stream or at the first bytes that are not a frame.
//
// Input: one byte, then the stream. The byte's upper four bits plus 1 are the number of pieces, its
// lower four are flags. 1: the client reads the stream, not the server. 2: the login before it asks
// for a pipelined link (server only). 4: neither login nor acknowledgement before it. 8: garbage
// follows the stream, instead of its end.

#include "layer_ends.h"

#include <optional>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0 || size > 60000)
        return 0;
    const bool toClient = data[0] & 1;
    text stream(reinterpret_cast<const char *>(data) + 1, size - 1);
    if ((data[0] & 4) == 0)
        stream = (toClient ? acknowledgement : data[0] & 2 ? pipelined_login : login) + stream;
    for (int i = 0; (data[0] & 8) && i < 2000; i++) // enough to complete any frame begun
        stream += text(32, 'x') + "\0\0\0\1x"s;
    const size_t piece = stream.size() / (1 + data[0] / 16) + 1;

    static tolvane::loop loop;
    static echo_server server(loop, {10s}); // no link ends for its silence
    static echo_client healthy(loop, server.port(), {10s});
    static const raw listener(raw::listening());
    REQUIRE(until(loop, [] { return server.peers().size() == 1; }));
    int asked = 0, outcomes = 0, replies = 0;
    const auto ask_twice = [&](auto &end) {
        for (int i = 0; i < 2; i++, asked++)
            end.request("x", 10s, [&](const tolvane::response &response) {
                outcomes++;
                replies += response.payload() == "x";
            });
    };
    server.on_login([&](tolvane::peer peer) { ask_twice(peer); });

    raw hostile(toClient ? -1 : raw::connected(server.port()));
    std::optional<echo_client> client;
    if (toClient) {
        ask_twice(client.emplace(loop, listener.port(), tolvane::options{10s}));
        REQUIRE(until(loop, [&] { return (hostile.fd = listener.next_client()) >= 0; }));
    }
    for (size_t at = 0; at < stream.size(); at += piece, loop.run_once(0ms))
        hostile.send(stream.substr(at, piece));
    if ((data[0] & 8) == 0)
        shutdown(hostile.fd, SHUT_WR);
    REQUIRE(until(loop, [&] { return hostile.ended() && server.peers().size() == 1; }));
    if (client)
        client->disconnect();
    ask_twice(healthy);
    REQUIRE(until(loop, [&] { return outcomes >= asked; }));
    REQUIRE(outcomes == asked && replies >= 2);
    return 0;
}
