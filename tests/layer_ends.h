// layer_ends.h - who talks to tolvane.hpp in its tests: raw connections, byte by byte, and servers
// and clients of the layer that write down in `notes` what they hear and answer "x" with "<who>:x".
// All of them live in one process, on one loop and on loopback.
#ifndef LAYER_ENDS_H
#define LAYER_ENDS_H

#include "tolvane.h" // all of it: the tests use its sockets

#include "tolvane.hpp"

#include <algorithm>
#include <fcntl.h>

#define REQUIRE(condition)                                                                         \
    ((condition) ? (void)0                                                                         \
                 : (fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #condition), abort()))

using namespace std::chrono_literals;
using text = std::string;
using tolvane::milliseconds;

inline std::vector<text> notes;

inline long noted(const text &note)
{
    return std::count(notes.begin(), notes.end(), note);
}

// Run the loop until something holds, for 20 seconds at most; false if it does not hold then.
template <class Condition> bool until(tolvane::loop &loop, Condition holds)
{
    const auto end = std::chrono::steady_clock::now() + 20s;
    while (std::chrono::steady_clock::now() < end) {
        if (holds())
            return true;
        loop.run_once(10ms);
    }
    return false;
}

// ---- a connection, byte by byte

inline text frame(const text &body)
{
    const uint32_t size = htonl(static_cast<uint32_t>(body.size()));
    text header("TCP_WATER_MARK");
    header.resize(32);
    return header.append(reinterpret_cast<const char *>(&size), sizeof(size)) + body;
}

// A message of the client raw; ~ stands for 0x00.
inline text message(int number, const text &tag, text payload)
{
    std::replace(payload.begin(), payload.end(), '~', '\0');
    return frame(std::to_string(number) + "\nvelun_tolvane_" + tag +
                 "\ntcp://raw:1\nvelun_tolvane_payload\n" + payload);
}

inline const text login = message(0, "login", "tcp://raw:1~");
inline const text pipelined_login = message(0, "login", "tcp://raw:1~pipelined~");
inline const text acknowledgement = message(0, "heartbeatack", "{sequence:0}~");

struct raw {
    int fd;
    text heard = {};

    explicit raw(int fd) : fd(fd) {}
    ~raw() // with something unread it is a reset
    {
        close(fd);
    }
    bool send(const text &bytes) // false if the other end does not take all of it now
    {
        return ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == ssize_t(bytes.size());
    }
    bool ended()
    {
        char bytes[65536];
        ssize_t got;
        while ((got = recv(fd, bytes, sizeof(bytes), 0)) > 0)
            heard.append(bytes, static_cast<size_t>(got));
        return got == 0 || errno != EAGAIN;
    }
    bool hears(const text &bytes) { return (ended(), heard.find(bytes) != text::npos); }
};

inline int connect_to(int port)
{
    return impl_create_client_socket("127.0.0.1", port, 10000);
}

// A server of raw connections; tcp_impl_accept_socket() returns the next one, or a negative number.
inline int listen_here()
{
    const int fd = impl_create_server_socket("127.0.0.1", 0);
    fcntl(fd, F_SETFL, O_NONBLOCK);
    return fd;
}

inline uint16_t port_of(int fd)
{
    sockaddr_in address = {};
    socklen_t size = sizeof(address);
    getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size);
    return ntohs(address.sin_port);
}

// ---- ends of the layer

inline void note(const tolvane::response &response)
{
    static const char *const outcomes[] = {"replied ", "timed out", "lost", "declined", "refused"};
    notes.push_back(outcomes[static_cast<int>(response.outcome())] + text(response.payload()));
}

inline auto answering(const text &who)
{
    return [who](tolvane::request request) {
        notes.push_back(who + " hears " + text(request.payload()));
        REQUIRE(request.payload().data()[request.payload().size()] == '\0');
        if (request.wants_reply())
            (void)request.reply(who + ":" + text(request.payload()));
    };
}

inline tolvane::options quick(bool pipelined = true)
{
    tolvane::options options{200ms};
    options.pipelined = pipelined;
    return options;
}

struct noting_server : tolvane::server {
    explicit noting_server(tolvane::loop &loop, tolvane::options options = quick())
        : server(loop, options)
    {
        on_request(answering("server"));
        on_login([](tolvane::peer peer) { notes.push_back(peer.url()); });
        REQUIRE(listen("127.0.0.1", 0));
    }
};

struct noting_client : tolvane::client {
    noting_client(tolvane::loop &loop, uint16_t port, const text &name,
                  tolvane::options options = quick())
        : client(loop, {"127.0.0.1", port}, {name, 1}, options)
    {
        on_request(answering(name));
        on_connected([name] { notes.push_back(name + " connected"); });
        on_lost([name](std::string_view) { notes.push_back(name + " lost"); });
        REQUIRE(connect());
    }
};

#endif
