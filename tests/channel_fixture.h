// channel_fixture.h - channels of both kinds in one process, each with a peer that the test plays.
//
// A server runs on a port that the system chose. A Link is one channel and its peer: a pair of the
// server that a plain socket has logged in on, or a client channel connected to a plain socket.
// Timers are driven by hand, and descriptors are served by calling their handlers. Every callback
// is noted as a line of text and can be made to do something:
//
//     Link pair = makeLink(TV_CHANNEL_PAIR);
//     inside["resp"] = [&] { tv_close_channel(pair.id); };
//     request(pair, "ping", 100);
//     pair.expect("request", "ping");
//     receive(pair, "reply", "pong");
//     EXPECT_EQ(happened(), Events({"resp link pong", "fd-close link"}));
#ifndef CHANNEL_FIXTURE_H
#define CHANNEL_FIXTURE_H

#include "callbacks.h"
#include "hand_timer.h"
#include "log_capture.h"
#include "tolvane.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <functional>
#include <map>
#include <unistd.h>
#include <utility>

using Events = std::vector<std::string>;
using Act = std::function<void()>;

const int patience = 5000; // milliseconds, for what is on its way already

inline bool wait_for(int fd, short events, int timeout = patience)
{
    pollfd entry = {fd, events, 0};
    return poll(&entry, 1, timeout) == 1;
}

inline int port_of(int fd)
{
    sockaddr_in address;
    socklen_t size = sizeof(address);
    getsockname(fd, (sockaddr *)&address, &size);
    return ntohs(address.sin_port);
}

inline std::string message(int number, const std::string &tag, const std::string &url,
                           const std::string &payload)
{
    return std::to_string(number) + "\nvelun_tolvane_" + tag + "\n" + url +
           "\nvelun_tolvane_payload\n" + payload;
}

// A channel, and the far end of its connection, which numbers what it says and what it hears.
struct Link {
    int id;
    int fd; // the far one
    std::string url;
    int said = 0, heard = 0;

    void send(const std::string &body) // as one frame
    {
        tcp_impl_send_with_timeout(fd, body.data(), body.size(), patience);
    }
    void say(const std::string &tag, const std::string &payload)
    {
        send(message(said++, tag, url, payload));
    }
    std::string hear() // the next frame's body, or "closed"
    {
        int len = 0;
        char *body = tcp_impl_receive_with_timeout(fd, &len, patience);
        const std::string heard = body == nullptr ? "closed" : std::string(body, len);
        free(body);
        return heard;
    }
    void expect(const std::string &tag, const std::string &payload)
    {
        EXPECT_EQ(hear(), message(heard++, tag, url, payload));
    }
    void expectSilence()
    {
        EXPECT_FALSE(wait_for(fd, POLLIN, 0)) << hear();
    }
};

struct ChannelTest : testing::Test {
    static inline ChannelTest *test; // the one that runs
    int server, hub;                 // the server's id; what client channels connect to
    // What the two actors do, a word each: P, H or D to pass, handle or defer, X for another
    // result, and the reply that they hand over.
    std::vector<std::string> script = {"P", "P"};
    Events events;
    std::map<std::string, Act> inside; // a callback: what to do there the next time
    std::map<int, std::string> names;  // of channels, for the notes
    int newestPair = -1;
    std::vector<int> peerFds;
    int descriptors; // open before the test
    LogCapture log;

    void SetUp() override
    {
        test = this;
        descriptors = count_descriptors();
        hand_timer_reset();
        hub = impl_create_server_socket("127.0.0.1", 0);
        peerFds.assign(1, hub);
        startServer();
        log.take();
    }
    void TearDown() override
    {
        inside.clear();
        tv_stop_server();
        for (const auto &[id, name] : std::exchange(names, {}))
            tv_close_channel(id);
        for (const int fd : std::exchange(peerFds, {}))
            close(fd);
        hand_timer_advance(100000); // what is pending afterwards never ends
        EXPECT_EQ(hand_timer_pending(), std::vector<int>());
        EXPECT_EQ(count_descriptors(), descriptors);
    }

    // ---- callbacks

    Events happened() // since the last call
    {
        return std::exchange(events, {});
    }
    void note(const std::string &callback, int id, const char *text, int len)
    {
        const bool closed = callback == "disconnected" || callback == "fd-close"; // or is soon
        EXPECT_TRUE(closed || tv_get_channel(id) != nullptr) << callback;
        if (callback == "fd-open")
            names[newestPair = id] = "pair" + std::to_string(id - server);
        const std::string handed = text == nullptr ? "(null)" : std::string(text, len);
        events.push_back(callback + " " + names[id] + (handed.empty() ? "" : " " + handed));
        if (const Act act = std::exchange(inside[callback], nullptr))
            act();
        const std::string left = text == nullptr ? "(null)" : std::string(text, len);
        EXPECT_EQ(left, handed) << callback; // still readable, whatever was closed
    }
    template <int N> static int act(int id, const char *payload, int len, char **reply, int *size)
    {
        const std::string play = test->script[N];
        test->note("actor" + std::to_string(N), id, payload, len);
        if (play.size() > 1) {
            *reply = strdup(&play[1]);
            *size = play.size() - 1;
        }
        return std::string("PHD").find(play[0]); // or -1
    }

    // ---- channels

    void giveHandlers(int id)
    {
        tv_register_actor(id, act<0>);
        tv_register_actor(id, act<1>);
        set_channel_callbacks(id);
    }
    void startServer()
    {
        server = tv_start_server("127.0.0.1", 0);
        giveHandlers(server);
        set_server_callbacks();
    }
    Link connect(const std::string &url) // to the server, without a login
    {
        const int listening = tv_get_server_polling_fd();
        peerFds.push_back(impl_create_client_socket("127.0.0.1", port_of(listening), 0));
        EXPECT_TRUE(wait_for(listening, POLLIN));
        tv_server_fd_handler(listening, 0, 0);
        return {newestPair, peerFds.back(), url};
    }
    Link login(const std::string &url)
    {
        Link pair = connect(url);
        receive(pair, "login", url + '\0');
        return pair;
    }
    int newClient()
    {
        const tv_client_addr addr = {"127.0.0.1", "client", (uint16_t)port_of(hub), 7};
        const int id = tv_create_client_channel(&addr);
        names[id] = "link";
        giveHandlers(id);
        return id;
    }
    Link dial(int client) // connect it to the hub
    {
        EXPECT_EQ(tv_connect_server(client), 0);
        EXPECT_TRUE(wait_for(hub, POLLIN));
        peerFds.push_back(tcp_impl_accept_socket(hub));
        return {client, peerFds.back(), tv_get_channel(client)->url};
    }
    Link makeLink(int type) // logged in, with nothing noted or logged yet
    {
        Link link = type == TV_CHANNEL_PAIR ? login("tcp://pair:7") : dial(newClient());
        if (type == TV_CHANNEL_CLIENT)
            link.expect("login", link.url + '\0');
        names[link.id] = "link";
        happened();
        log.take();
        return link;
    }

    // ---- traffic

    void serve(const Link &link) // as soon as there is something to receive
    {
        const int fd = tv_get_polling_fd(link.id);
        ASSERT_TRUE(wait_for(fd, POLLIN));
        const bool pair = get_channel_type(link.id) == TV_CHANNEL_PAIR;
        EXPECT_EQ((pair ? tv_pair_fd_handler : tv_channel_fd_handler)(fd, link.id, 0), 0);
    }
    void receive(Link &link, const std::string &tag, const std::string &payload)
    {
        link.say(tag, payload);
        serve(link);
    }
    int request(const Link &link, const std::string &payload, int timeout)
    {
        return tv_send_rqst(link.id, payload.data(), payload.size(), timeout);
    }
    int respond(const Link &link, const std::string &payload)
    {
        return tv_send_resp(link.id, payload.data(), payload.size());
    }
};

// For what is the same on both kinds of channels.
struct LinkTest : ChannelTest, testing::WithParamInterface<int> {
    void SetUp() override
    {
        ChannelTest::SetUp();
        link = makeLink(GetParam());
    }
    Link link;
};

inline const auto bothKinds = testing::Values(TV_CHANNEL_CLIENT, TV_CHANNEL_PAIR);

void called(const char *callback, int id, const char *text, int len)
{
    ChannelTest::test->note(callback, id, text, len);
}

#endif
