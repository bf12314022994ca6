// scenario.h - a small language for test scenarios: what an application does with the library,
// what its peers do at the other end of each connection, and what must happen as a result.
//
// Everything runs in one process on simulated_os.h, whose clock moves only with waiting and with
// simulated delays. Each scenario in tests/scenarios is a test, except those in faults*.txt, which
// fault_injection.cpp plays. This one could be in server.txt; "=>" is followed by everything that
// must happen, in order:
//
//     ## SendsWhatAResponseHandlerAsksFor
//     a: peer_logs_in tcp://a:1      => a: fd_open, a: connected tcp://a:1
//     send_request ping 100          => a: peer_got request ping
//     on response: send_request more 0; close
//     peer_sends reply pong          => a: response pong, a: peer_got request more, a: fd_close,
//                                    => a: peer_got EOF
//
// Peer `a` connects, is accepted as a pair and logs in. The application sends it a request, with a
// timeout of 100 ms. When the reply comes, the response handler sends another request and closes
// the pair.
//
// SYNTAX
//   ## NAME                     begins a scenario
//   VERB WORD WORD; VERB ...    steps, run in order
//   NAME: VERB ...              from here on, steps use the link NAME: a channel and its peer
//   on CALLBACK: VERB ...       runs the rest of the line inside the next CALLBACK of any link; a
//                               second such line for the same CALLBACK runs in the call after that.
//                               These steps, too, use the link chosen last, which need not be the
//                               link of the callback; a link that they choose stays chosen
//   ~                           a 0x00 byte, in steps and in notes
//   # text                      a comment; not allowed after "=>"
//   STEPS => NOTE, NOTE         the steps cause exactly these notes, in this order. A line without
//                               "=>" must cause none; "=> ..." allows any. A line that begins with
//                               "=>" continues the one before
//
// The server channel is also a link, named `server`.
//
// VERBS of the peer. It numbers its messages correctly and requires the same of the channel.
//   peer_connects               a new peer connects; when the loop accepts it, the pair becomes the
//                               channel of the link chosen last
//   accept                      a new peer connects; the server accepts it as a pair channel
//   peer_logs_in URL            accept, then a login
//   peer_sends KIND PAYLOAD     the channel receives a login, logout, request, reply, heartbeat or
//                               heartbeatack; without a PAYLOAD it has no payload marker
//   peer_buffers KIND PAYLOAD   the same, but the message stays in the socket until `serve`
//   peer_announces LENGTH       the channel receives the header of a frame of that length
//   peer_sends_bytes TEXT       the channel receives TEXT, which is not a frame
//   peer_skips N                as if N messages from the peer were lost: skips N numbers (below 0:
//                               repeats them)
//   peer_counts_from N          its next message has this number
//   peer_misses N               as if N messages to the peer were lost
//   peer_closes                 the peer closes its end of the connection
//
// VERBS of the application
//   start_server, stop_server   with all handlers and callbacks registered; every scenario
//                               begins with a running server
//   close_server                closes the server channel by its id
//   create_client               makes the link's channel a new client channel: URL tcp://link:7,
//                               server 127.0.0.1:80, poll timeout 100 ms, no connect timeout
//   set_connect_timeout MS, set_poll_timeout MS
//   connect                     connects the client and logs it in
//   disconnect                  logs the client out
//   send_request TEXT MS        sends a request; the timeout handler runs if no reply comes within
//                               MS milliseconds (0 or less: no reply is expected). TEXT may be
//                               (null), or "!" for a negative length
//   send_large_request MS       the same with 60,000 bytes; the socket has room for two, so the
//                               third blocks until the peer has read one
//   send_reply TEXT             answers the deferred request; "!" passes a negative length
//   broadcast TEXT              a request to all clients
//   find_client IP PORT         notes which link's client is logged in as tcp://IP:PORT
//   serve                       runs the channel's descriptor handler once
//   handle                      the same for a client, but notes a failure
//   watch                       registers the channel's descriptor with the loop once more
//   close                       closes the channel
//   actors FIRST SECOND         what the two actors return from now on: pass, handle, defer, or any
//                               other word for -1, which also means handled; ":TEXT" adds a reply,
//                               with a negative length if TEXT begins with "!"
//   enable_heartbeat MS COUNT   on the link's channel
//   enable_all_heartbeats MS COUNT
//                               on the server and its pairs
//   next_timer                  notes the milliseconds until the next timer
//   elapsed                     notes the simulated time since the previous one
//   be_busy MS                  lets MS simulated milliseconds pass outside the main loop
//   advance MS                  runs the main loop for MS simulated milliseconds. Inside a callback
//                               MS is ignored and no descriptor is served: due timers fire, but
//                               only if no descriptor is ready
//
// VERBS of test_channels.cpp only, so not for faults*.txt
//   logged ENTRY, ENTRY         the previous line logged exactly these entries; * stands for any
//                               text
//   last_logged ENTRY           the previous line logged this entry last
//   remove_handlers             for responses, timeouts and lost links
//   fail CALL ERROR             the library's next 301 calls of this function fail with this ERROR,
//                               EINTR or EAGAIN, and take 1 ms each. Without an ERROR they fail
//                               with ECONNREFUSED, at once. "nothing": no call fails
//   add_actors FIRST LAST       one for each number; LAST defaults to FIRST
//   peer_trickles KIND PAYLOAD  the channel receives a message in six pieces, one every 40 ms
//   peer_buffers_large SIZE     the peer sends a reply of SIZE bytes, which stays in the socket
//   receive                     receives a message without a timeout and notes its size
//   register FIRST LAST, unregister FIRST LAST
//                               descriptors with these numbers; LAST defaults to FIRST
//   list_descriptors SIZE       builds the list for poll() with room for SIZE entries and notes the
//                               descriptors in it from 500 up
//   list_clients ROOM           notes the clients whose descriptors fit an array of that size
//   find_server                 notes whether there is a descriptor to accept from
//   replace_record              removes the channel from the repository and adds another with its
//                               id
//   add_empty_entry             adds an entry without a channel to the list of pairs
//
// NOTES. The first three kinds begin with the name of their link, if it has one.
//   CALLBACK TEXT               a callback ran: fd_open, fd_close, connected, disconnected, actor0,
//                               actor1, response, timeout, link_down
//   peer_got KIND PAYLOAD       the peer received a message, or EOF when the connection has ended
//   VERB: RESULT                a call failed
//   connecting to IP:PORT within MS; client NAME: or no client; next timer MS (-1: none); MS ms;
//   clients NAME: ...; descriptors N ...; server or no server; received SIZE; the loop ended early
//
// With peer_sends and `serve`, a message that the channel discards, such as a late reply, makes no
// note; only `logged` shows it.
//
// Every scenario checks that a request gets at most one reply and one timeout, and both only if the
// reply arrives inside the timeout handler; that callbacks get readable texts and an open channel;
// that each descriptor is opened and closed once; and that no channel, timer, memory or descriptor
// is left at the end.
#ifndef SCENARIO_H
#define SCENARIO_H

#include "simulated_os.h"

#include <deque>
#include <fstream>
#include <map>
#include <sstream>

using Texts = std::vector<std::string>;

// A channel of the library, and its peer.
struct Link {
    std::string label;                // "a: ", in front of its notes
    std::string url = "";             // the client's
    int channelId = -1, peerFd = -1;  // peerFd: the peer's end of the connection
    long long sent = 0, received = 0; // numbers of the peer's next messages
    std::string unread = "";          // the start of an incomplete frame
};

static std::map<std::string, Link> links;
static Link *current;                // the link chosen last
static std::map<int, Link *> owners; // links by channel id
static std::map<int, int> pairIds;   // by descriptor
static int serverId;                 // of the server channel started last
static Texts actorPlans;
static Texts notes;
static std::map<std::string, std::deque<std::string>> planned; // steps for the next callbacks
static int depth;                                              // of callbacks
static bool closesOnLinkDown;      // the application closes a channel whose link is down
static std::map<int, int> awaited; // by channel, the number of the outstanding request
static int openPairs;              // fd_open minus fd_close
static int firstId, descriptors;   // when the scenario began
static long long before;           // the time at the last `elapsed`
static int steps;                  // so far

static void run(std::string scenario);

// ---- the peers

static void send_bytes(const Link &link, Text bytes)
{
    __real_send(link.peerFd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

static std::string next_frame(Link &link, Text kind, Text payload)
{
    if (kind == "login")
        link.url = payload.c_str();
    return frame(message(link.sent++, kind, link.url, payload.empty() ? "" : marker + payload));
}

// Returns a message's kind and payload if its number and URL are right, otherwise all of it.
static std::string summary(Text body, long long number, Text url)
{
    for (Text kind : kinds) {
        const std::string start = message(number, kind, url, marker);
        if (body.rfind(start, 0) == 0)
            return kind + " " + body.substr(start.size());
    }
    return body;
}

// Notes everything that the peer has received.
static void read_messages(Link &link)
{
    char bytes[4096];
    ssize_t got = -1;
    if (link.peerFd == -1)
        return;
    while ((got = __real_recv(link.peerFd, bytes, sizeof(bytes), 0)) > 0)
        link.unread.append(bytes, got);
    const bool ended = got == 0 || errno != EAGAIN;
    for (int length; (length = frame_length(link.unread)) != -1;) {
        const std::string body = link.unread.substr(headerSize, length);
        link.unread.erase(0, headerSize + length);
        notes.push_back(link.label + "peer_got " + summary(body, link.received++, link.url));
    }
    if (ended) {
        notes.push_back(link.label + "peer_got EOF");
        __real_close(std::exchange(link.peerFd, -1));
    }
}

static void close_peer(Link &link)
{
    if (link.peerFd != -1)
        REQUIRE(__real_close(std::exchange(link.peerFd, -1)) == 0); // the library has not closed it
}

// Adds a note, after everything that the peers have received so far.
static void note(Text text)
{
    for (auto &[name, link] : links)
        read_messages(link);
    notes.push_back(text);
}

// ---- the application

// Removes all slots of a descriptor.
static void unwatch(int fd)
{
    while (tv_unregister_polling_fd(fd) == 0)
        continue;
}

static void close_by_id(int id)
{
    unwatch(tv_get_polling_fd(id));
    tv_close_channel(id);
}

// Every callback ends up here: check and note the call, then run the steps planned for it. They
// must not change the text that was passed, except for a link-down callback's URL, which belongs to
// the channel's record.
static void called(Text callback, int id, std::string_view text = "")
{
    const std::string handed(text.data() == nullptr ? "(null)" : text);
    if (callback != "disconnected" && callback != "fd_close")
        REQUIRE(get_channel_type(id) != TV_CHANNEL_NONE);
    if (callback == "response")
        REQUIRE(awaited.erase(id) == 1);
    const int request = callback == "timeout" ? awaited.at(id) : -1;
    note((owners.count(id) == 0 ? "" : owners[id]->label) + callback + " " + handed);
    auto &plans = planned[callback];
    if (!plans.empty()) {
        const std::string plan = plans.front();
        plans.pop_front();
        depth++;
        run(plan);
        depth--;
        REQUIRE(callback == "link_down" ? strlen(text.data()) < TV_URL_SIZE
                                        : text.data() == nullptr || handed == text);
    } else if (callback == "link_down" && closesOnLinkDown) {
        close_by_id(id);
    }
    if (request != -1 && awaited.count(id) == 1 && awaited[id] == request)
        awaited.erase(id); // unless a plan has sent another request
}

static tv_fd_handler handler_of(int id)
{
    const int type = get_channel_type(id);
    if (type == TV_CHANNEL_CLIENT)
        return tv_channel_fd_handler;
    return type == TV_CHANNEL_SERVER ? tv_server_fd_handler : tv_pair_fd_handler;
}

static int watch(int id)
{
    const int fd = tv_get_polling_fd(id);
    return fd == -1 ? -1 : tv_register_polling_fd(fd, handler_of(id), id, 0);
}

static void on_link_down(int id, const char *url)
{
    called("link_down", id, url);
}

static void on_fd_open(int fd)
{
    openPairs++;
    const tv_channel_list *const newest = tv_service_server.pairList.prev;
    const int id = ((const tv_channel_node *)newest)->channel->channelId;
    pairIds[fd] = current->channelId = id;
    owners[id] = current;
    watch(id);
    called("fd_open", id);
}

static void on_fd_close(int fd)
{
    openPairs--;
    unwatch(fd);
    called("fd_close", pairIds[fd]);
}

template <int N> static int actor(int id, const char *payload, int len, char **reply, int *replyLen)
{
    const std::string plan = actorPlans[N], name = plan.substr(0, plan.find(':'));
    called("actor" + std::to_string(N), id, {payload, (size_t)len});
    if (name != plan && *reply == nullptr) { // an earlier actor's reply belongs to the library
        const std::string text = plan.substr(name.size() + 1);
        *reply = (char *)count_block(__real_malloc(text.size()));
        *replyLen = text[0] == '!' ? -1 : text.copy(*reply, text.size());
    }
    if (name == "defer")
        return TV_ACTOR_DEFERRED;
    return name == "pass" ? TV_ACTOR_PASS : name == "handle" ? TV_ACTOR_HANDLED : -1;
}

static void register_handlers(int id)
{
    tv_register_actor(id, nullptr); // ignored
    tv_register_actor(id, actor<0>);
    tv_register_actor(id, actor<1>);
    tv_register_resp_handler(id, [](int id, const char *payload, int len) {
        called("response", id, {payload, (size_t)len});
    });
    tv_register_timeout_handler(id, [](int id) { called("timeout", id); });
    tv_register_linkdown_callback(id, on_link_down);
    tv_set_poll_timeout(id, 100);
}

static int start_server()
{
    const int id = tv_start_server("127.0.0.1", 7);
    tv_register_connected_callback(-1,
                                   [](int id, const char *url) { called("connected", id, url); });
    tv_register_disconnected_callback(
        0, [](int id, const char *url) { called("disconnected", id, url); });
    tv_register_client_fd_open_callback(on_fd_open);
    tv_register_client_fd_close_callback(on_fd_close);
    if (id == -1)
        return -1;
    serverId = links["server:"].channelId = id;
    register_handlers(id);
    return watch(id);
}

static void stop_server()
{
    unwatch(tv_get_server_polling_fd());
    tv_stop_server();
}

static void connect_peer(Link &link)
{
    close_peer(link);
    link = {link.label};
    const int fd = __real_socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
    link.peerFd = __real_fcntl(fd, F_DUPFD, 32); // leave low numbers for the library to reuse
    __real_close(fd);
    __real_connect(link.peerFd, (sockaddr *)&serverAddress, sizeof(serverAddress));
}

static void accept_peer(Link &link)
{
    connect_peer(link);
    tv_server_fd_handler(tv_get_server_polling_fd(), 0, 0);
}

static void create_client(Link &link)
{
    const tv_client_addr address = {"127.0.0.1", "link", 80, 7};
    close_peer(link);
    link = {link.label, "tcp://link:7"};
    link.channelId = tv_create_client_channel(&address);
    owners[link.channelId] = &link;
    register_handlers(link.channelId);
}

static int connect_client(int id)
{
    unwatch(tv_get_polling_fd(id));
    connected = [](int peerFd) {
        read_messages(*current); // of the previous connection
        close_peer(*current);
        current->unread.clear();
        current->peerFd = peerFd;
    };
    const int result = tv_connect_server(id);
    if (result == 0) {
        REQUIRE(get_channel_type(id) == TV_CHANNEL_CLIENT);
        watch(id);
    }
    return result;
}

extern "C" int __real_impl_create_client_socket(const char *, int, int);
extern "C" int __wrap_impl_create_client_socket(const char *ip, int port, int timeout)
{
    note("connecting to " + std::string(ip) + ":" + std::to_string(port) + " within " +
         std::to_string(timeout));
    return __real_impl_create_client_socket(ip, port, timeout);
}

static int send_request(int id, Text payload, int timeout)
{
    static int count = 0;
    const int length = payload == "!" ? -1 : payload.size();
    const int result =
        tv_send_rqst(id, payload == "(null)" ? nullptr : payload.data(), length, timeout);
    if (result == 0)
        REQUIRE(get_channel_type(id) != TV_CHANNEL_NONE); // a lost link would have made it fail
    if (result == 0 && timeout > 0)
        REQUIRE(awaited.emplace(id, ++count).second);
    return result;
}

static void find_client(Text ip, int port)
{
    const int id = tv_get_client_channel(ip.c_str(), port);
    note(id == -1 ? "no client" : "client " + owners[id]->label);
}

static void serve(int id)
{
    if (id != serverId) // accepting would wait for a peer
        handler_of(id)(tv_get_polling_fd(id), id, 0);
}

static int handle(int id)
{
    tv_channel *const channel = tv_get_channel(id);
    return channel == nullptr ? -1 : handle_client_polling_fd(channel);
}

static void serve_bytes(const Link &link, Text bytes)
{
    send_bytes(link, bytes);
    serve(link.channelId);
}

static void advance(int ms)
{
    loopEnd = now + (depth == 0 ? ms : 0);
    tv_main_loop();
    if (now < loopEnd)
        note("the loop ended early");
    now = std::max(now, loopEnd);
}

// ---- the steps

struct Step {
    Link &link;
    int id;                  // of the link's channel
    std::string verb, words; // the words after the verb, unsplit
    std::string a, b;        // the first two words
    int m, n;                // the same two as numbers
};

using Act = std::function<void(const Step &)>;

// Wraps an operation whose failure is noted.
static Act call(const std::function<int(const Step &)> &operation)
{
    return [operation](const Step &s) {
        if (const int result = operation(s); result != 0)
            note(s.link.label + s.verb + ": " + std::to_string(result));
    };
}

static std::map<std::string, Act> verbs = {
    {"peer_connects", [](const Step &s) { connect_peer(s.link); }},
    {"accept", [](const Step &s) { accept_peer(s.link); }},
    {"peer_logs_in", [](const Step &s) { run("accept; peer_sends login " + s.a + "~"); }},
    {"peer_buffers", [](const Step &s) { send_bytes(s.link, next_frame(s.link, s.a, s.b)); }},
    {"peer_sends", [](const Step &s) { run("peer_buffers " + s.words + "; serve"); }},
    {"peer_announces",
     [](const Step &s) { serve_bytes(s.link, header(strtoul(s.a.c_str(), nullptr, 10))); }},
    {"peer_sends_bytes", [](const Step &s) { serve_bytes(s.link, s.a); }},
    {"peer_skips", [](const Step &s) { s.link.sent += s.m; }},
    {"peer_counts_from", [](const Step &s) { s.link.sent = s.m; }},
    {"peer_misses", [](const Step &s) { s.link.received += s.m; }},
    {"peer_closes", [](const Step &s) { close_peer(s.link); }},

    {"start_server", call([](const Step &) { return start_server(); })},
    {"stop_server", [](const Step &) { stop_server(); }},
    {"close_server", [](const Step &) { close_by_id(serverId); }},
    {"create_client", [](const Step &s) { create_client(s.link); }},
    {"set_connect_timeout", [](const Step &s) { tv_set_connect_timeout(s.id, s.m); }},
    {"set_poll_timeout", call([](const Step &s) { return tv_set_poll_timeout(s.id, s.m); })},
    {"connect", call([](const Step &s) { return connect_client(s.id); })},
    {"disconnect", call([](const Step &s) { return tv_disconnect_server(s.id); })},
    {"send_request", call([](const Step &s) { return send_request(s.id, s.a, s.n); })},
    {"send_large_request",
     call([](const Step &s) { return send_request(s.id, std::string(60000, 'x'), s.m); })},
    {"send_reply",
     call([](const Step &s) { return tv_send_resp(s.id, &s.a[0], s.a == "!" ? -1 : s.a.size()); })},
    {"broadcast",
     call([](const Step &s) { return tv_broadcast_rqst_to_client(&s.a[0], s.a.size()); })},
    {"find_client", [](const Step &s) { find_client(s.a, s.n); }},
    {"serve", [](const Step &s) { serve(s.id); }},
    {"handle", call([](const Step &s) { return handle(s.id); })},
    {"watch", call([](const Step &s) { return watch(s.id); })},
    {"close", [](const Step &s) { close_by_id(s.id); }},
    {"actors",
     [](const Step &s) {
         actorPlans.assign({s.a, s.b});
     }},
    {"enable_heartbeat",
     [](const Step &s) { tv_client_enable_heartbeat(s.id, s.m, s.n, on_link_down); }},
    {"enable_all_heartbeats",
     [](const Step &s) { tv_service_enable_heartbeat(s.m, s.n, on_link_down); }},
    {"next_timer",
     [](const Step &) {
         note("next timer " + std::to_string(ruvo_timer_get_expected_interval()));
     }},
    {"elapsed",
     [](const Step &) { note(std::to_string(now - std::exchange(before, now)) + " ms"); }},
    {"be_busy", [](const Step &s) { now += std::clamp(s.m, 0, 10000); }},
    {"advance", [](const Step &s) { advance(std::clamp(s.m, 0, 10000)); }},
};

static bool anyVerb; // a word that is not a verb means the next verb in the alphabet

// The rest of a stream without leading blanks.
static std::string rest_of(std::istringstream &stream)
{
    return std::string(std::istreambuf_iterator<char>(stream >> std::ws), {});
}

static void run_step(Text word, std::istringstream &stream)
{
    const auto found = verbs.lower_bound(word), verb = found == verbs.end() ? verbs.begin() : found;
    if (!anyVerb && verb->first != word)
        fprintf(stderr, "no verb '%s'\n", word.c_str());
    REQUIRE(anyVerb || verb->first == word);
    Step step = {*current, current->channelId, verb->first, rest_of(stream), "", "", 0, 0};
    std::istringstream(step.words) >> step.a >> step.b;
    step.m = atoi(step.a.c_str());
    step.n = atoi(step.b.c_str());
    verb->second(step);
}

// Stops after 300 steps, because a callback may plan itself again.
static void run_line(Text line)
{
    std::istringstream rest(line.substr(0, line.find('#')));
    for (std::string step, word; steps < 300 && std::getline(rest, step, ';'); steps++) {
        std::istringstream words(step);
        while (words >> word && word.back() == ':') {
            current = &links[word];
            current->label = word + " ";
        }
        if (words.fail())
            continue;
        if (word != "on") {
            run_step(word, words);
            continue;
        }
        words >> word; // the callback, and a colon
        word.pop_back();
        planned[word].push_back(rest_of(words) + ";" + rest_of(rest));
    }
}

static void run(std::string scenario)
{
    std::replace(scenario.begin(), scenario.end(), '~', '\0');
    std::istringstream lines(scenario);
    for (std::string line; std::getline(lines, line);)
        run_line(line);
}

using Scenario = std::pair<std::string, std::string>; // its name and its steps

// The scenarios of a text file.
inline std::vector<Scenario> read_scenarios(Text file)
{
    std::ifstream lines(SCENARIOS "/" + file);
    std::vector<Scenario> scenarios;
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("## ", 0) == 0)
            scenarios.emplace_back(line.substr(3), "");
        else if (!scenarios.empty())
            scenarios.back().second += line + "\n";
    }
    REQUIRE(!scenarios.empty());
    return scenarios;
}

// Before and after a scenario.
static void begin()
{
    const auto doNothing = [](intptr_t, intptr_t) {};
    ruvo_stop_timer(ruvo_start_timer(1, doNothing, 0, 0)); // allocates a table that is never freed
    links.clear();
    owners.clear();
    current = &links[""];
    actorPlans = {"pass", "pass"};
    notes.clear();
    firstId = tv_get_channel_id();
    descriptors = count_descriptors();
    injection.calls = injection.failed = blocks = steps = 0;
    before = now = 1000000; // no timer is pending
    injecting = true;
    tv_register_polling_fd(loopFd, nullptr, 0, 0);
    run("start_server");
}

static void end()
{
    planned.clear();
    stop_server();
    for (int id = tv_get_channel_id(); id > firstId; id--)
        close_by_id(id);
    note("the end");
    for (auto &[name, link] : links)
        close_peer(link);
    // entries without a channel, which stop_server leaves in the list
    clean_channel_repo(&tv_service_server.pairList);
    awaited.clear();
    injecting = false;
    struct pollfd list[2];
    while (build_polling_fd_list(list, 2) == 2) // loopFd, and a descriptor closed while registered
        unwatch(list[1].fd);
    advance(INT_MAX); // timers of closed channels
    tv_unregister_polling_fd(loopFd);
    REQUIRE(openPairs == 0);
    REQUIRE(ruvo_timer_get_expected_interval() == -1);
    REQUIRE(blocks == 0);
    REQUIRE(count_descriptors() == descriptors);
}

#endif
