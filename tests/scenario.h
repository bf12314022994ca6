// scenario.h - scenarios: channels of both kinds in one process, each with a peer, on the system of
// frail_system.h, where nothing has to be waited for.
//
// Whatever can be seen from outside is noted: callbacks, what the peers hear, and operations that
// fail. A scenario is a text of steps, in parts that ";" ends:
//
//     a: login tcp://a:1 & ask ping 100; in resp ask pong 0 & close; gets reply pong
//
// A step is one of the verbs below and two words at most, at the channel that was named last; "&"
// joins several. What follows "in" happens inside the next callback of that name. A "~" is a NUL.
//
// Required of every scenario: a request gets one of a reply and a time-out at most; a callback's
// channel is open; what callbacks are handed can be read; a pair's descriptor is opened and closed
// once; at the end no channel, timer, block or descriptor is left.
#ifndef SCENARIO_H
#define SCENARIO_H

#include "frail_system.h"

#include <deque>
#include <functional>
#include <map>
#include <sstream>

using Text = const std::string &;
using Texts = std::vector<std::string>;

// A channel and its peer, which numbers what it says and what it hears.
struct Link {
    std::string prefix, url; // the prefix is for the notes
    int id = -1, far = -1;   // the channel's, and the peer's end of the connection
    long long said = 0, heard = 0;
    std::string unheard = ""; // the beginning of a frame
};

static std::map<std::string, Link> links;
static Link *current;                // the one that was named last
static std::map<int, Link *> owners; // of channels
static std::map<int, int> pairs;     // by their descriptors
// What the two actors do, a word each: P, H or D to pass, handle or defer, any other for another
// result, and the reply that they hand over, "!" for one of a negative length.
static Texts script;
static Texts notes;
static std::map<std::string, std::deque<std::function<void()>>> inside; // for the next callbacks
static int depth;                                                       // of these
static bool careless;              // a link that is down is left alone
static std::map<int, int> awaited; // the requests that wait for a reply, by channel
static int openPairs;              // between their fd-open and their fd-close
static int server;                 // the id of the one started last
static int firstId, descriptors;   // before the scenario
static int steps;                  // so far
static bool lenient;               // a word that is no verb stands for the next in the alphabet

static void run(Text scenario);

// ---- the peers

static void send_to(const Link &at, Text bytes)
{
    __real_send(at.far, bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

// The channel receives a message. An empty payload stands for none, without its marker.
static void say(Link &at, Text tag, std::string payload)
{
    if (tag == "login")
        at.url = payload.substr(0, payload.find('~'));
    std::replace(payload.begin(), payload.end(), '~', '\0');
    const std::string body = std::to_string(at.said++) + "\nvelun_tolvane_" + tag + "\n" + at.url;
    send_to(at, frame(payload.empty() ? body : body + "\nvelun_tolvane_payload\n" + payload));
}

// Note what has arrived: the tag and the payload of a message that is otherwise as it has to be, or
// else all of it.
static void hear(Link &at)
{
    char bytes[4096];
    ssize_t got = -1;
    while (at.far != -1 && (got = __real_recv(at.far, bytes, sizeof(bytes), 0)) > 0)
        at.unheard.append(bytes, got);
    const bool ended = at.far != -1 && (got == 0 || errno != EAGAIN);
    for (int size; (size = frame_length(at.unheard)) != -1;
         at.unheard.erase(0, headerSize + size)) {
        std::string body = at.unheard.substr(headerSize, size);
        const std::string start = std::to_string(at.heard++) + "\nvelun_tolvane_";
        const std::string middle = "\n" + at.url + "\nvelun_tolvane_payload\n";
        const size_t end = body.find(middle);
        if (body.rfind(start, 0) == 0 && end != std::string::npos)
            body.replace(end, middle.size(), " ").erase(0, start.size());
        notes.push_back(at.prefix + "hears " + body);
    }
    if (ended) {
        notes.push_back(at.prefix + "hears the end");
        __real_close(std::exchange(at.far, -1));
    }
}

static void hang_up(Link &at)
{
    if (at.far != -1)
        REQUIRE(__real_close(std::exchange(at.far, -1)) == 0); // nobody else has closed it
}

static void note(Text text) // what the peers have heard comes before it
{
    for (auto &[name, link] : links)
        hear(link);
    notes.push_back(text);
}

// ---- the application

static void finish(int id)
{
    tv_unregister_polling_fd(tv_get_polling_fd(id));
    tv_close_channel(id);
}

// A link-down callback is shown the record's URL, which a login that is served meanwhile changes;
// anything else stays as it was handed over.
static void called(Text name, int id, const char *text, int len)
{
    const std::string handed = text == nullptr ? "(null)" : std::string(text, len);
    if (name == "fd-open")
        owners[current->id = id] = current;
    openPairs += (name == "fd-open") - (name == "fd-close");
    REQUIRE(name == "disconnected" || name == "fd-close" ||
            get_channel_type(id) != TV_CHANNEL_NONE);
    REQUIRE(name != "resp" || awaited.erase(id) == 1);
    const int request = name == "timeout" ? awaited.at(id) : -1;
    note((owners.count(id) == 0 ? "" : owners[id]->prefix) + name + " " + handed);
    auto &acts = inside[name];
    if (!acts.empty()) {
        const auto act = acts.front();
        acts.pop_front();
        depth++;
        act();
        depth--;
        REQUIRE(name == "linkdown" ? strlen(text) < TV_URL_SIZE
                                   : text == nullptr || handed == std::string(text, len));
    } else if (name == "linkdown" && !careless) {
        finish(id);
    }
    if (request != -1 && awaited.count(id) == 1 && awaited[id] == request)
        awaited.erase(id); // no newer one
}

template <int N> static int act(int id, const char *payload, int len, char **reply, int *size)
{
    const std::string play = script[N];
    called("actor" + std::to_string(N), id, payload, len);
    if (play.size() > 1 && *reply == nullptr) { // another actor's belongs to the library
        *reply = (char *)allocated(__real_malloc(play.size() - 1));
        *size = play[1] == '!' ? -1 : play.copy(*reply, play.size() - 1, 1);
    }
    return std::string("PHD").find(play[0]); // or -1
}

static void on_linkdown(int id, const char *url)
{
    called("linkdown", id, url, strlen(url));
}

static void set_up(int id)
{
    tv_register_actor(id, act<0>);
    tv_register_actor(id, act<1>);
    tv_register_resp_handler(
        id, [](int id, const char *payload, int len) { called("resp", id, payload, len); });
    tv_register_timeout_handler(id, [](int id) { called("timeout", id, "", 0); });
    tv_register_linkdown_callback(id, on_linkdown);
    tv_set_poll_timeout(id, 100);
}

static int start()
{
    const int id = tv_start_server("127.0.0.1", 7);
    tv_register_connected_callback(
        -1, [](int id, const char *url) { called("connected", id, url, strlen(url)); });
    tv_register_disconnected_callback(
        0, [](int id, const char *url) { called("disconnected", id, url, strlen(url)); });
    tv_register_client_fd_open_callback([](int fd) {
        tv_register_polling_fd(fd, tv_pair_fd_handler, 0, 0);
        const tv_channel_list *const newest = tv_service_server.pairList.prev;
        pairs[fd] = ((const tv_channel_node *)newest)->channel->channelId;
        called("fd-open", pairs[fd], "", 0);
    });
    tv_register_client_fd_close_callback([](int fd) {
        tv_unregister_polling_fd(fd);
        called("fd-close", pairs[fd], "", 0);
    });
    if (id == -1)
        return -1;
    set_up(server = id);
    return tv_register_polling_fd(tv_get_server_polling_fd(), tv_server_fd_handler, 0, 0);
}

static void stop()
{
    tv_unregister_polling_fd(tv_get_server_polling_fd());
    tv_stop_server();
}

static void accept_peer(Link &at)
{
    hang_up(at);
    at = {at.prefix, ""};
    at.far = __real_socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
    __real_connect(at.far, (sockaddr *)&listening, sizeof(listening));
    tv_server_fd_handler(tv_get_server_polling_fd(), 0, 0);
}

static void create_client(Link &at)
{
    const tv_client_addr addr = {"127.0.0.1", "link", 80, 7};
    hang_up(at);
    at = {at.prefix, "tcp://link:7"};
    at.id = tv_create_client_channel(&addr);
    owners[at.id] = &at;
    set_up(at.id);
}

static int dial(int id)
{
    tv_unregister_polling_fd(tv_get_polling_fd(id));
    connected = [](int far) {
        hear(*current); // the end of the connection before
        current->unheard.clear();
        hang_up(*current);
        current->far = far;
    };
    const int result = tv_connect_server(id);
    REQUIRE(result != 0 || get_channel_type(id) != TV_CHANNEL_NONE);
    if (result == 0)
        tv_register_polling_fd(tv_get_polling_fd(id), tv_channel_fd_handler, id, 0);
    return result;
}

extern "C" int __real_impl_create_client_socket(const char *, int, int);
extern "C" int __wrap_impl_create_client_socket(const char *ip, int port, int timeout)
{
    note("dials " + std::string(ip) + ":" + std::to_string(port) + " within " +
         std::to_string(timeout));
    return __real_impl_create_client_socket(ip, port, timeout);
}

static int ask(int id, Text payload, int timeout)
{
    const int result = tv_send_rqst(id, payload.data(), payload.size(), timeout);
    REQUIRE(result != 0 || get_channel_type(id) != TV_CHANNEL_NONE); // the link is not down
    static int requests = 0;
    REQUIRE(result != 0 || timeout <= 0 || awaited.emplace(id, ++requests).second);
    return result;
}

static int serve(int id)
{
    const int fd = tv_get_polling_fd(id);
    return get_channel_type(id) == TV_CHANNEL_CLIENT ? tv_channel_fd_handler(fd, id, 0)
                                                     : tv_pair_fd_handler(fd, 0, 0);
}

static const ruvo_timer_cb nothing = [](intptr_t, intptr_t) {};

// As many timers as there is room for, and, if something fails, more.
static void fill_timers()
{
    static int count = 40;
    for (int i = 0; i < count; i++)
        if (__real_ruvo_start_timer(5, nothing, 0, 0) == -1)
            note("no timer " + std::to_string(i));
    if (active != nullptr && count < 200)
        count *= 2;
}

// The library's loop, for so many milliseconds; inside a callback for one pass.
static void run_loop(int ms)
{
    stopAt = now + (depth == 0 ? ms : 0);
    tv_main_loop();
    if (now < stopAt)
        note("the loop has ended");
    now = std::max(now, stopAt);
}

// ---- the steps

struct Step {
    Link &at;
    int id;                           // of its channel
    std::string verb, a = "", b = ""; // and its words
    int m = 0, n = 0;                 // the same as numbers
};

static void tell(const Step &step, int result)
{
    if (result != 0)
        note(step.at.prefix + step.verb + ": " + std::to_string(result));
}

static std::map<std::string, std::function<void(Step)>> verbs = {
    {"start", [](Step s) { tell(s, start()); }},
    {"dial", [](Step s) { tell(s, dial(s.id)); }},
    {"logout", [](Step s) { tell(s, tv_disconnect_server(s.id)); }},
    {"ask", [](Step s) { tell(s, ask(s.id, s.a, s.n)); }},
    {"flood", [](Step s) { tell(s, ask(s.id, std::string(60000, 'x'), s.m)); }},
    {"respond", [](Step s) { tell(s, tv_send_resp(s.id, &s.a[0], s.a == "!" ? -1 : s.a.size())); }},
    {"broadcast", [](Step s) { tell(s, tv_broadcast_rqst_to_client(&s.a[0], s.a.size())); }},
    {"serve", [](Step s) { tell(s, serve(s.id)); }},
    {"accept", [](Step s) { accept_peer(s.at); }},
    {"client", [](Step s) { create_client(s.at); }},
    {"login", [](Step s) { run("accept & gets login " + s.a + "~"); }},
    {"says", [](Step s) { say(s.at, s.a, s.b); }}, // the peer, a tag and a payload
    {"gets", [](Step s) { say(s.at, s.a, s.b), run("serve"); }},
    {"lose", [](Step s) { s.at.said += s.m, s.at.heard += s.n; }}, // so many messages
    {"bytes", [](Step s) { send_to(s.at, s.a), run("serve"); }},
    {"empty", [](Step s) { send_to(s.at, frame("")), run("serve"); }},
    {"end", [](Step s) { hang_up(s.at); }},
    {"close", [](Step s) { finish(s.id); }},
    {"shut", [](Step) { finish(server); }}, // not by a stop
    {"stop", [](Step) { stop(); }},
    {"after", [](Step s) { run_loop(s.m % 10000); }},
    {"timers", [](Step) { fill_timers(); }},
    {"left", [](Step) { note(std::to_string(ruvo_timer_get_expected_interval())); }}, // to wait
    {"supervise", [](Step s) { tv_client_enable_heartbeat(s.id, s.m, s.n, on_linkdown); }},
    {"watch", [](Step s) { tv_service_enable_heartbeat(s.m, s.n, on_linkdown); }},
    {"actors", [](Step s) { script[0] = s.a, script[1] = s.b; }},
    {"within", [](Step s) { tv_set_connect_timeout(s.id, s.m); }},
};

static void run_part(Text part)
{
    std::istringstream words(part);
    for (std::string verb, callback, rest; steps < 300 && words >> verb; steps++) {
        if (verb.back() == ':') {
            current = &links[verb];
            current->prefix = verb + " ";
        } else if (verb == "in") {
            words >> callback;
            std::getline(words, rest, '\0');
            inside[callback].push_back([rest] { run(rest); });
        } else {
            Step step = {*current, current->id, verb};
            std::getline(words, rest, '&');
            std::istringstream(rest) >> step.a >> step.b;
            step.m = atoi(step.a.c_str());
            step.n = atoi(step.b.c_str());
            REQUIRE(lenient || verbs.count(verb) == 1);
            const auto known = verbs.lower_bound(verb);
            (known == verbs.end() ? verbs.begin() : known)->second(step);
        }
    }
}

static void run(Text scenario)
{
    std::istringstream parts(scenario);
    for (std::string part; std::getline(parts, part, ';');)
        run_part(part);
}

static void begin()
{
    [[maybe_unused]] static const int prepared = // the table of timers is kept
        ruvo_stop_timer(ruvo_start_timer(1, nothing, 0, 0));
    links.clear();
    owners.clear();
    current = &links[""];
    script = {"P", "P"};
    notes.clear();
    firstId = tv_get_channel_id();
    descriptors = count_descriptors();
    calls = failed = blocks = steps = 0;
    now = 1000000; // no timer is pending
    armed = true;
    tv_register_polling_fd(idleFd, nullptr, 0, 0);
    run("start");
}

static void end()
{
    inside.clear();
    stop();
    for (int id = tv_get_channel_id(); id > firstId; id--)
        finish(id);
    note("the end");
    for (auto &[name, link] : links)
        hang_up(link);
    awaited.clear();
    armed = false;
    run_loop(INT_MAX); // timers of closed channels
    tv_unregister_polling_fd(idleFd);
    REQUIRE(openPairs == 0);
    REQUIRE(ruvo_timer_get_expected_interval() == -1);
    REQUIRE(blocks == 0);
    REQUIRE(count_descriptors() == descriptors);
}

#endif
