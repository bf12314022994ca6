// fuzz_channels.cpp - a server with its pairs, and clients, driven by a sequence of steps: frames
// and stray bytes from the peers, what an application does, time that passes, and any callback
// doing any of that, while one kind of the library's calls may fail. The target plays the peers.
//
// Required of every sequence, beyond clean memory: a request gets one of a reply and a time-out at
// most; what succeeds has left the channel open; a pair's descriptor is opened and closed once;
// what callbacks are handed can be read; at the end no channel, timer, block or descriptor is left.

#include "callbacks.h"
#include "frail_system.h"
#include "ruvo_timer.h"

#include <map>

// A channel of the library: its descriptor, which may be closed by now, and its peer's.
struct connection {
    int near, far;
    int id;
    int said;
};

static connection links[6];

// ---- the input

static const uint8_t *next, *end;

static int take() // a blank only parts words
{
    next += next < end && *next == ' ';
    return next < end ? *next++ : 0;
}

static std::string take_text()
{
    const uint8_t *const begin = next;
    while (next < end && *next != ' ' && next - begin < 16)
        next++;
    return std::string(begin, next);
}

struct step {
    int number, argument; // in the table; its place, as a rule
};

static step take_step()
{
    const int number = take();
    return {number, take()};
}

static void play(step now);

// ---- the application

static const char *const callbacks[] = {"resp",         "timeout", "linkdown", "connected",
                                        "disconnected", "fd-open", "fd-close", "actor"};
static std::map<std::string, step> inside; // what they do the next time
static bool careless;                      // a link that is down is left alone
static std::set<int> awaited;              // the channels whose request is outstanding
static int openPairs;                      // between their fd-open and their fd-close
static int depth;                          // of steps inside callbacks
static int server;                         // the id of the one started last

static void finish(int id)
{
    tv_unregister_polling_fd(tv_get_polling_fd(id));
    tv_close_channel(id);
}

// A link-down callback is shown the record's URL, which a login that is served meanwhile changes;
// anything else stays as it was handed over.
void called(const char *callback, int id, const char *text, int len)
{
    const std::string name = callback, handed(text == nullptr ? "" : text, len);
    REQUIRE(name == "disconnected" || name == "fd-close" || tv_get_channel(id) != nullptr);
    REQUIRE(name != "resp" || awaited.erase(id) == 1);
    REQUIRE(name != "timeout" || awaited.count(id) == 1);
    openPairs += (name == "fd-open") - (name == "fd-close");
    note(name + " " + handed, len);
    if (name == "fd-open")
        tv_register_polling_fd(tv_get_polling_fd(id), tv_pair_fd_handler, 0, 0);
    if (name == "fd-close")
        tv_unregister_polling_fd(tv_get_polling_fd(id));
    if (inside.count(name) == 1) {
        depth++;
        play(inside.extract(name).mapped());
        depth--;
        REQUIRE(name == "linkdown" ? strlen(text) < TV_URL_SIZE
                                   : text == nullptr || handed == std::string(text, len));
    } else if (name == "linkdown" && !careless) {
        finish(id);
    }
    if (name == "timeout")
        awaited.erase(id);
}

static int actor(int id, const char *payload, int len, char **reply, int *replyLen)
{
    const int what = take();
    if (what & 4 && *reply == nullptr) { // one that another actor left belongs to the library
        *reply = (char *)allocated(strdup("reply"));
        *replyLen = (what & 8) ? -1 : 5;
    }
    called("actor", id, payload, len);
    return what % 4;
}

static void set_up(int id)
{
    set_channel_callbacks(id);
    tv_register_actor(id, actor);
    tv_register_actor(id, actor);
    tv_set_poll_timeout(id, 100);
}

static void start(connection &)
{
    const int id = tv_start_server("", 7);
    note("started", id != -1);
    set_server_callbacks();
    if (id != -1) {
        set_up(server = id);
        tv_register_polling_fd(tv_get_server_polling_fd(), tv_server_fd_handler, 0, 0);
    }
}

static void stop(connection &)
{
    tv_unregister_polling_fd(tv_get_server_polling_fd());
    tv_stop_server();
}

static void note_result(const char *operation, int id, int result)
{
    note(operation, result);
    REQUIRE(result != 0 || tv_get_channel(id) != nullptr); // the link is not down
}

static void request(connection &at)
{
    static const char large[TV_MSG_BUF_SIZE] = "";
    const int size = take(), timeout = take() % 4 * 10;
    const int id = at.id; // the place may be another connection's afterwards
    const int sent = tv_send_rqst(id, large, size < 200 ? size : size * 256, timeout);
    REQUIRE(sent != 0 || timeout == 0 || awaited.insert(id).second);
    note_result("request", id, sent);
}

static void supervise(connection &at)
{
    tv_service_enable_heartbeat(take() % 4 * 100, take() % 3, on_linkdown);
    tv_client_enable_heartbeat(at.id, take() % 4 * 100, take() % 3, on_linkdown);
}

static const ruvo_timer_cb nothing = [](intptr_t, intptr_t) {};

static void fill_timers(connection &)
{
    static int count = 40;
    for (int i = 0; i < count; i++)
        if (ruvo_start_timer(5, nothing, 0, 0) == -1)
            note("no timer", i);
    if (active != nullptr && count < 200)
        count *= 2; // more than there is room for
}

static void serve(connection &at)
{
    const bool client = get_channel_type(at.id) == TV_CHANNEL_CLIENT;
    const int fd = tv_get_polling_fd(at.id);
    at.near = fd == -1 ? at.near : fd;
    (client ? tv_channel_fd_handler : tv_pair_fd_handler)(at.near, at.id, 0);
}

// ---- the peers

static void read_all(connection &at)
{
    char bytes[4096];
    for (ssize_t len; (len = __real_recv(at.far, bytes, sizeof(bytes), 0)) > 0;)
        seen.append(bytes, len);
}

static void end_link(connection &at)
{
    REQUIRE(at.far == -1 || __real_close(at.far) == 0); // nobody else has closed it
    at = {-1, -1, -1, 0};
}

static connection *connecting; // the place of the client that connects

static void keep_far_end(int far)
{
    if (connecting->far != -1)
        __real_close(connecting->far);
    connecting->far = far;
}

static void connect_client(connection &at)
{
    if (get_channel_type(at.id) != TV_CHANNEL_CLIENT) {
        const tv_client_addr addr = {"", "client", 1, 1};
        end_link(at);
        at.id = tv_create_client_channel(&addr);
        set_up(at.id);
    }
    const int id = at.id;
    tv_unregister_polling_fd(tv_get_polling_fd(id));
    tv_set_connect_timeout(id, take() % 2 * 100);
    connecting = &at;
    connected = keep_far_end;
    const int result = tv_connect_server(id);
    if (result == 0)
        tv_register_polling_fd(tv_get_polling_fd(id), tv_channel_fd_handler, id, 0);
    note_result("connect", id, result);
}

static void connect_peer(connection &at)
{
    end_link(at);
    at.id = tv_get_channel_id() + 1;
    at.far = __real_socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
    __real_connect(at.far, (sockaddr *)&listening, sizeof(listening));
    tv_server_fd_handler(tv_get_server_polling_fd(), 0, 0);
}

static void send_to(connection &at, const std::string &bytes)
{
    __real_send(at.far, bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

static int oddity; // of the next message

// One message of a kind, which the library is to receive at once.
template <int kind> static void say(connection &at)
{
    static const char *const tags[] = {"login\n", "logout\n",    "request\n",      "reply\n",
                                       "request", "heartbeat\n", "heartbeatack\n", ""};
    const int odd = std::exchange(oddity, 0);
    const std::string number = std::to_string(odd & 1 ? take() - 9 : at.said++);
    const std::string marker = odd & 2 ? "" : "\nvelun_tolvane_payload\n";
    std::string body = number + "\nvelun_tolvane_" + tags[kind] + "url" + marker + take_text();
    body.append(odd & 4 ? 1 : 0, '\0');
    if (odd & 64)
        body.clear();
    std::string header = "TCP_WATER_MARK";
    header.resize(35);
    send_to(at, header + (char)body.size() + body);
    if (!(odd & 8))
        serve(at);
}

// ---- the steps

static int argument; // of the step

static const std::pair<const char *, void (*)(connection &at)> steps[] = {
    {"accept", connect_peer},
    {"connect", connect_client},
    {"login", say<0>},
    {"logout", say<1>},
    {"ask", say<2>},
    {"reply", say<3>},
    {"unended", say<4>},
    {"beat", say<5>},
    {"ack", say<6>},
    {"untagged", say<7>},
    {"odd", [](connection &) { oddity = take(); }},
    {"bytes", [](connection &at) { send_to(at, take_text()), serve(at); }},
    {"serve", serve},
    {"read", read_all},
    {"end", end_link},
    {"request", request},
    {"respond", [](connection &at) { note("respond", tv_send_resp(at.id, "late", take() % 5)); }},
    {"leave", [](connection &at) { note("leave", tv_disconnect_server(at.id)); }},
    {"close", [](connection &at) { finish(at.id); }},
    {"supervise", supervise},
    {"all", [](connection &) { tv_broadcast_rqst_to_client("all", 3); }},
    {"start", start},
    {"stop", stop},
    {"shut", [](connection &) { finish(server); }},
    {"timers", fill_timers},
    {"run", [](connection &) { run_loop(depth == 0 ? argument % 16 * 40 : 0); }},
    {"in", [](connection &) { inside[callbacks[argument % std::size(callbacks)]] = take_step(); }},
};

static void play(step now)
{
    argument = now.argument;
    steps[now.number % std::size(steps)].second(links[argument % std::size(links)]);
}

static void run_input(const uint8_t *data, size_t size)
{
    [[maybe_unused]] static const int prepared =
        tv_register_polling_fd(idleFd, nullptr, 0, 0) +
        ruvo_stop_timer(ruvo_start_timer(1, nothing, 0, 0));
    const int first = tv_get_channel_id(), descriptors = count_descriptors();
    next = data;
    end = data + size;
    seen.clear();
    calls = failed = blocks = 0;
    for (connection &each : links)
        each = {-1, -1, -1, 0};
    armed = true;
    start(links[0]);
    for (int count = 0; next < end && count < 200; count++)
        play(take_step());

    inside.clear();
    stop(links[0]);
    for (int id = tv_get_channel_id(); id > first; id--)
        finish(id);
    for (connection &each : links) {
        read_all(each);
        end_link(each);
    }
    armed = false;
    awaited.clear();
    run_loop(4000000); // timers of closed channels, also after the leap
    REQUIRE(openPairs == 0);
    REQUIRE(ruvo_timer_get_expected_interval() == -1);
    REQUIRE(blocks == 0);
    REQUIRE(count_descriptors() == descriptors);
}

// The first bytes say which call fails in which way, once or lasting, and from which one on; whether
// there is a log; and whether a link that is down is closed.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 4)
        return 0;
    const unsigned number = data[0] % 64 - 1;
    active = number < std::size(faults) ? &faults[number] : nullptr;
    way = active == nullptr ? 0 : active->ways[data[0] / 64 % active->ways.size()];
    target = data[1];
    lasting = data[2] & 1;
    careless = data[2] & 2;
    tv_set_log_file(data[2] & 4 ? "/dev/null" : "");
    run_input(data + 3, size - 3);
    return 0;
}
