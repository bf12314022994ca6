// layer_ends.h - the peers in the tests of tolvane.hpp: raw sockets, and a client and a server of
// tolvane.hpp that echo. All of them live in one process, on one loop and on loopback.
#ifndef LAYER_ENDS_H
#define LAYER_ENDS_H

#include "require.h"
#include "tolvane.h" // before tolvane.hpp, which would hide its socket functions

#include "tolvane.hpp"

#include <fcntl.h>

using namespace std::literals;
using text = std::string;
using tolvane::milliseconds;

// Runs the loop until the condition holds, for 20 seconds at most. Returns whether it holds.
template <class Condition> bool until(tolvane::loop &loop, Condition holds)
{
    const auto end = std::chrono::steady_clock::now() + 20s;
    bool held = holds();
    for (; !held && std::chrono::steady_clock::now() < end; held = holds())
        loop.run_once(10ms);
    return held;
}

// ---- a raw socket

// A message of a client whose URL is tcp://raw:1.
inline text message(const text &tag, const text &payload)
{
    const text body =
        "0\nvelun_tolvane_" + tag + "\ntcp://raw:1\nvelun_tolvane_payload\n" + payload;
    const uint32_t size = htonl(static_cast<uint32_t>(body.size()));
    const text length(reinterpret_cast<const char *>(&size), sizeof(size));
    return "TCP_WATER_MARK" + text(18, '\0') + length + body;
}

inline const text login = message("login", "tcp://raw:1\0"s);
inline const text pipelined_login = message("login", "tcp://raw:1\0pipelined\0"s);
inline const text acknowledgement = message("heartbeatack", "{sequence:0}\0"s);

struct raw {
    int fd;

    static int listening()
    {
        const int fd = impl_create_server_socket("127.0.0.1", 0);
        fcntl(fd, F_SETFL, O_NONBLOCK);
        return fd;
    }
    static int connected(int port) { return impl_create_client_socket("127.0.0.1", port, 10000); }

    explicit raw(int fd) : fd(fd) {}
    ~raw() { close(fd); } // resets the connection if something is unread
    uint16_t port() const
    {
        sockaddr_in address = {};
        socklen_t size = sizeof(address);
        getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size);
        return ntohs(address.sin_port);
    }
    int next_client() const { return tcp_impl_accept_socket(fd); } // negative: there is none
    void send(const text &bytes) const { ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL); }
    bool ended() const
    {
        char bytes[65536];
        ssize_t got = 1;
        while (got > 0)
            got = recv(fd, bytes, sizeof(bytes), 0);
        return got == 0 || errno != EAGAIN;
    }
};

// ---- a client and a server that answer each request with its own payload

inline void echo(tolvane::request request)
{
    const std::string_view payload = request.payload();
    REQUIRE(payload.data()[payload.size()] == '\0');
    (void)request.reply(payload);
}

struct echo_server : tolvane::server {
    explicit echo_server(tolvane::loop &loop, const tolvane::options &options = {})
        : server(loop, options)
    {
        on_request(echo);
        REQUIRE(bool(listen("127.0.0.1", 0)));
    }
};

struct echo_client : tolvane::client {
    echo_client(tolvane::loop &loop, uint16_t port, const tolvane::options &options = {})
        : client(loop, {"127.0.0.1", port}, {"client", 1}, options)
    {
        on_request(echo);
        REQUIRE(bool(connect()));
    }
};

#endif
