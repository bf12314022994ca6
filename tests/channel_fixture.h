// channel_fixture.h - scenarios: channels of both kinds in one process, each with a peer.
//
// Every connection is a pair of local sockets, timers are driven by hand, and descriptors are served
// by calling their handlers, so nothing has to be waited for. Whatever can be seen from outside is
// noted: callbacks, what the peers hear, and operations that fail. A scenario is a text of steps,
// each with what it brings about:
//
//     play(R"(
//         a: login tcp://a:1  => a: fd-open, a: connected tcp://a:1;
//         ask ping 100        => a: hears request ping;
//         in resp ask pong 0 & close;
//         gets reply pong     => a: resp pong, a: hears request pong, a: fd-close, a: hears the end)");
//
// A step is one of the verbs below and two words at most, at the channel that was named last; "&"
// joins several. What follows "in" happens inside the next callback of that name. A "~" is a NUL.
#ifndef CHANNEL_FIXTURE_H
#define CHANNEL_FIXTURE_H

#include "callbacks.h"
#include "hand_timer.h"
#include "log_capture.h"

#include <algorithm>
#include <arpa/inet.h>
#include <deque>
#include <functional>
#include <map>
#include <sstream>
#include <unistd.h>
#include <utility>

using namespace std::string_literals;

using Text = const std::string &;
using Texts = std::vector<std::string>;

// The same words in one line, a NUL as "~".
inline std::string squeeze(std::string text)
{
    std::replace(text.begin(), text.end(), '\0', '~');
    std::istringstream words(text);
    std::string line;
    for (std::string word; words >> word;)
        line += (line.empty() ? "" : " ") + word;
    return line;
}

// A channel and its peer, which numbers what it says and what it hears.
struct Link {
    std::string prefix, url; // the prefix is for the notes
    int id = -1, fd = -1;    // the channel's, and the peer's end of the connection
    int said = 0, heard = 0;

    // The channel receives a message. An empty payload stands for none, without its marker.
    void say(Text tag, std::string payload)
    {
        if (tag == "login")
            url = payload.substr(0, payload.find('~'));
        std::replace(payload.begin(), payload.end(), '~', '\0');
        std::string body = std::to_string(said++) + "\nvelun_tolvane_" + tag + "\n" + url;
        if (!payload.empty())
            body += "\nvelun_tolvane_payload\n" + payload;
        tcp_impl_send_with_timeout(fd, body.data(), body.size(), 1000);
    }
    // Note what has arrived: the tag and the payload of a message that is otherwise as it has to
    // be, or else all of it.
    void hear(Texts &notes)
    {
        uint32_t header[9]; // a mark, and the length of what follows
        ssize_t got;
        while ((got = recv(fd, header, sizeof(header), 0)) > 0) {
            std::string body(ntohl(header[8]), ' ');
            recv(fd, &body[0], body.size(), 0);
            const std::string start = std::to_string(heard++) + "\nvelun_tolvane_";
            const std::string middle = "\n" + url + "\nvelun_tolvane_payload\n";
            const size_t end = body.find(middle);
            if (body.rfind(start, 0) == 0 && end != std::string::npos)
                body.replace(end, middle.size(), " ").erase(0, start.size());
            notes.push_back(prefix + "hears " + body);
        }
        if (fd != -1 && (got == 0 || errno != EAGAIN)) {
            notes.push_back(prefix + "hears the end");
            close(std::exchange(fd, -1));
        }
    }
};

struct ChannelTest : testing::Test {
    static inline ChannelTest *test; // the one that runs
    int server;                      // its id
    // What the two actors do, a word each: P, H or D to pass, handle or defer, X for another
    // result, and the reply that they hand over.
    Texts script = {"P", "P"};
    std::map<std::string, std::deque<std::function<void()>>> inside; // for the next callbacks
    std::map<std::string, Link> links;
    Link *current = &links[""];          // the one that was named last
    std::map<int, std::string> prefixes; // of channels
    bool fails = false;                  // connecting, accepting, starting a request's timer
    Texts notes;
    const int descriptors = count_descriptors(); // open before the test
    LogCapture log;
    Texts logged; // by the step before

    ChannelTest()
    {
        test = this;
        startServer();
        log.take();
    }
    ~ChannelTest() override
    {
        EXPECT_EQ(happened(), "");
        inside.clear();
        tv_stop_server();
        for (const auto &[name, link] : links)
            tv_close_channel(link.id);
        happened();
        advance(100000); // what is pending afterwards never ends
        EXPECT_EQ(ruvo_timer_get_expected_interval(), -1);
        EXPECT_EQ(count_descriptors(), descriptors);
    }

    // ---- what is to be seen

    void note(Text text) // what the peers have heard comes before it
    {
        for (auto &[name, link] : links)
            link.hear(notes);
        notes.push_back(text);
    }
    std::string happened() // since the last call
    {
        note("");
        notes.pop_back();
        std::string all;
        for (Text each : std::exchange(notes, {}))
            all += (all.empty() ? "" : ", ") + squeeze(each);
        return all;
    }
    template <int N> static int act(int id, const char *payload, int len, char **reply, int *size)
    {
        const std::string play = test->script[N];
        called(N == 0 ? "actor0" : "actor1", id, payload, len);
        if (play.size() > 1) {
            *reply = strdup(&play[1]);
            *size = play.size() - 1;
        }
        return std::string("PHD").find(play[0]); // or -1
    }

    // ---- set-up

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
    int openConnection() // returns the library's end of it
    {
        int ends[2];
        if (fails || socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends) != 0)
            return -1;
        if (current->fd != -1) // of a pair that has no name any more
            close(current->fd);
        current->fd = ends[1];
        return ends[0];
    }

    // ---- scenarios

    // Move the clock on and fire each timer at its own time.
    static void advance(int ms)
    {
        const long long end = hand_timer_now + ms * nsPerMs;
        while (heapCount > 0 && entry_of(heap[0])->due <= end) {
            hand_timer_now = std::max<long long>(hand_timer_now, entry_of(heap[0])->due);
            ruvo_fire_timer();
        }
        hand_timer_now = end;
    }
    void createClient(Link &at)
    {
        const tv_client_addr addr = {"127.0.0.1", "link", 80, 7};
        at.url = "tcp://link:7";
        at.id = tv_create_client_channel(&addr);
        giveHandlers(at.id);
    }
    static int serve(int id)
    {
        return get_channel_type(id) == TV_CHANNEL_PAIR
                   ? tv_pair_fd_handler(tv_get_polling_fd(id), 0, 0)
                   : tv_channel_fd_handler(0, id, 0);
    }
    void noteTimers() // what time each has left
    {
        for (uint32_t i = 0; i < heapCount; i++)
            note(std::to_string((entry_of(heap[i])->due - hand_timer_now) / nsPerMs));
    }

    struct Step {
        Link &at;
        int id;           // of its channel
        std::string a, b; // its words
        int m, n;         // the same as numbers
    };
    // A result other than 0 is noted.
    const std::map<std::string, std::function<int(Step)>> operations = {
        {"accept", [](Step) { return tv_server_fd_handler(tv_get_server_polling_fd(), 0, 0); }},
        {"dial", [](Step s) { return tv_connect_server(s.id); }},
        {"logout", [](Step s) { return tv_disconnect_server(s.id); }},
        {"ask", [](Step s) { return tv_send_rqst(s.id, &s.a[0], s.a.size(), s.n); }},
        {"respond", [](Step s) { return tv_send_resp(s.id, &s.a[0], s.a.size()); }},
        {"broadcast", [](Step s) { return tv_broadcast_rqst_to_client(&s.a[0], s.a.size()); }},
        {"serve", [](Step s) { return serve(s.id); }},
    };
    const std::map<std::string, std::function<void(Step)>> others = {
        {"client", [this](Step s) { createClient(s.at); }},
        {"login", [this](Step s) { run("accept & gets login " + s.a + "~"); }},
        {"says", [](Step s) { s.at.say(s.a, s.b); }}, // the peer, a tag and a payload
        {"gets", [this](Step s) { s.at.say(s.a, s.b), run("serve"); }},
        {"lose", [](Step s) { s.at.said += s.m, s.at.heard += s.n; }}, // so many messages
        {"close", [](Step s) { tv_close_channel(s.id); }},
        {"stop", [](Step) { tv_stop_server(); }},
        {"start", [this](Step) { startServer(); }},
        {"after", [](Step s) { advance(s.m); }},
        {"timers", [this](Step) { noteTimers(); }},
        {"supervise", [](Step s) { tv_client_enable_heartbeat(s.id, s.m, s.n, on_linkdown); }},
        {"system", [this](Step s) { fails = s.a == "fails"; }},
        {"actors", [this](Step s) { script[0] = s.a, script[1] = s.b; }},
        {"patience", [](Step s) { tv_get_channel(s.id)->pollTimeout = s.m; }}, // 0: nothing is sent
        {"log", [this](Step) { notes.insert(notes.end(), logged.begin(), logged.end()); }},
    };
    void run(Text steps)
    {
        std::istringstream words(steps);
        for (std::string verb; words >> verb;) {
            std::string callback, rest, first, second;
            if (verb.back() == ':') {
                current = &links[verb];
                current->prefix = verb + " ";
                continue;
            }
            if (verb == "in") {
                words >> callback;
                std::getline(words, rest, '\0');
                inside[callback].push_back([this, rest] { run(rest); });
                return;
            }
            std::getline(words, rest, '&');
            std::istringstream(rest) >> first >> second;
            const Step step = {*current, current->id,         first,
                               second,   atoi(first.c_str()), atoi(second.c_str())};
            if (operations.count(verb) == 0) {
                others.at(verb)(step);
                continue;
            }
            const int result = operations.at(verb)(step);
            if (result != 0)
                note(step.at.prefix + verb + ": " + std::to_string(result));
        }
    }
    void prepare(Text steps) // what they bring about is left unseen
    {
        run(steps);
        happened();
        log.take();
    }
    void play(Text scenario)
    {
        std::istringstream steps(scenario);
        for (std::string step; std::getline(steps, step, ';');) {
            const size_t arrow = std::min(step.find("=>"), step.size());
            run(step.substr(0, arrow));
            logged = log.take();
            const std::string wanted = arrow == step.size() ? "" : step.substr(arrow + 2);
            EXPECT_EQ(happened(), squeeze(wanted)) << step;
        }
    }
};

void called(const char *callback, int id, const char *text, int len)
{
    ChannelTest &test = *ChannelTest::test;
    if (callback == "fd-open"s)
        test.prefixes[test.current->id = id] = test.current->prefix;
    const bool closed = callback == "disconnected"s || callback == "fd-close"s; // or is soon
    EXPECT_TRUE(closed || tv_get_channel(id) != nullptr) << callback;
    const std::string handed = text == nullptr ? "(null)" : std::string(text, len);
    test.note(test.prefixes[id] + callback + " " + handed);
    auto &acts = test.inside[callback];
    if (!acts.empty()) {
        const auto act = acts.front();
        acts.pop_front();
        act();
    }
    // It can still be read, whatever was closed.
    EXPECT_TRUE(text == nullptr || handed == std::string(text, len)) << callback;
}

extern "C" int __wrap_tcp_impl_accept_socket(int)
{
    return ChannelTest::test->openConnection();
}

extern "C" int __wrap_impl_create_client_socket(const char *ip, int port, int timeout)
{
    ChannelTest::test->note("dials "s + ip + ":" + std::to_string(port) + " within " +
                            std::to_string(timeout));
    return ChannelTest::test->openConnection();
}

extern "C" int __real_ruvo_start_timer(int, ruvo_timer_cb, intptr_t, intptr_t);

extern "C" int __wrap_ruvo_start_timer(int ms, ruvo_timer_cb callback, intptr_t id, intptr_t none)
{
    return ChannelTest::test->fails ? -1 : __real_ruvo_start_timer(ms, callback, id, none);
}

#endif
