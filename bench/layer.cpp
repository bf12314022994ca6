// layer.cpp - the C++ layer as a contender, and a crowd of other clients, some of which misbehave.

#include "contender.h"

#include <tolvane.h> // before tolvane.hpp, which would hide what join_crowd() uses

#include <tolvane.hpp>

#include <poll.h>

using namespace std::chrono_literals;

static bool asksBack;

static tolvane::options settings()
{
    tolvane::options options;
    options.heartbeat = 0ms;
    options.max_clients = 20000;
    return options;
}

void layer_serve(int port)
{
    tolvane::loop loop;
    tolvane::server server(loop, settings());
    server.on_request([](tolvane::request request) {
        if (theTask.oneWay)
            return message_received();
        if (asksBack)
            request.from().request(request.payload(), 10s,
                                   [](tolvane::response reply) { check(bool(reply), "reply"); });
        check(bool(request.reply(request.payload())), "reply");
    });
    check(bool(server.listen("127.0.0.1", std::uint16_t(port))), "listen");
    tolvane::timer beat;
    if (theTask.broadcasts)
        beat = tolvane::timer::every(50ms, [&] { server.broadcast(std::string(60000, 'x')); });
    server_is_ready();
    loop.run();
}

link_end open_layer(int port, bool serving)
{
    if (serving)
        layer_serve(port);
    static tolvane::loop loop;
    static std::uint16_t number = 0; // names the client
    const tolvane::endpoint server = {"127.0.0.1", std::uint16_t(port)}, own = {"layer", ++number};
    auto *client = new tolvane::client(loop, server, own, settings());
    client->on_request([](tolvane::request request) {
        if (request.wants_reply()) // broadcasts do not
            check(bool(request.reply(request.payload())), "reply");
    });
    check(bool(client->connect()), "connect");
    while (!*client)
        loop.run_once(1s);
    auto *replies = new int(0);
    const auto send = [=](const char *payload) {
        const std::string_view text(payload, std::size_t(theTask.len));
        if (!theTask.oneWay) {
            return client->request(text, 10s, [=](tolvane::response reply) {
                check(bool(reply), "reply");
                ++*replies;
            });
        }
        while (!client->tell(text)) // the queue is full
            loop.run_once(1s);
    };
    const auto receive = [=]() -> const char * {
        while (*replies == 0)
            loop.run_once(1s);
        --*replies;
        return nullptr; // the driver does not read replies
    };
    return {send, receive, {}, [] { loop.run_once(0ms); }};
}

link_end open_layer_both_ask(int port, bool serving)
{
    asksBack = true; // matters in the server's process only
    return open_layer(port, serving);
}

void join_crowd(int port, const crowd &who)
{
    std::vector<pollfd> readers;
    for (int i = 0; i < who.readers + who.stopped + who.halves; i++) {
        const std::string url = "tcp://crowd:" + std::to_string(i);
        const std::string login =
            "0\nvelun_tolvane_login\n" + url + "\nvelun_tolvane_payload\n" + url;
        const int fd = impl_create_client_socket("127.0.0.1", port, 10000);
        const bool half = i >= who.readers + who.stopped;
        check(half ? write(fd, "TCP_WATER_MARK", 15) == 15
                   : tcp_impl_send_with_timeout(fd, login.data(), int(login.size()), 10000) > 0,
              "send");
        if (i < who.readers)
            readers.push_back({fd, POLLIN, 0});
    }
    server_is_ready();
    static char taken[1 << 16];
    while (poll(readers.data(), readers.size(), -1) > 0) {
        for (const pollfd &reader : readers)
            check(reader.revents == 0 || read(reader.fd, taken, sizeof(taken)) > 0, "read");
    }
}
