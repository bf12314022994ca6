// fuzz_channels.cpp - a server with its pairs, and clients, driven by a sequence of steps: frames
// and stray bytes from the peers, what an application does, timers firing, and any callback doing
// any of that. Every connection is a pair of sockets whose far end the target plays; no wait takes
// time, and timers are driven by hand.
//
// Required of every sequence, beyond clean memory: a request gets one of a reply and a time-out at
// most; a pair's descriptor is opened and closed once; what callbacks are handed can be read; at
// the end no channel, timer or descriptor is left.

#include "callbacks.h"
#include "hand_timer.h"

#include <fcntl.h>
#include <set>
#include <stdlib.h>
#include <string>
#include <unistd.h>

#define REQUIRE(condition) ((condition) ? (void)0 : abort())

// ---- the network

struct connection { // a connection: the library's end, which may be closed by now, and the peer's
    int near, far;
    int id; // of its channel
    int said;
};

static connection links[6];
static int openFor; // the channel that the next connection is for

// Both ends of a connection, in the first free place. Returns the library's end.
static int open_link()
{
    for (connection &free : links) {
        int ends[2];
        if (free.far != -1 || socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends) != 0)
            continue;
        const int little = 1;
        setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &little, sizeof(little));
        free = {ends[0], ends[1], openFor, 0};
        return ends[0];
    }
    return -1;
}

extern "C" int __real_poll(struct pollfd *fds, nfds_t count, int timeout);

extern "C" int __wrap_poll(struct pollfd *fds, nfds_t count, int)
{
    return __real_poll(fds, count, 0);
}

// A block of the length that a header announces takes long to clear under a sanitizer.
extern "C" void *__real_malloc(size_t size);

extern "C" void *__wrap_malloc(size_t size)
{
    return size > 1 << 20 ? nullptr : __real_malloc(size);
}

extern "C" int __wrap_impl_create_server_socket(const char *, int)
{
    return dup(STDERR_FILENO); // nobody looks at it
}

extern "C" int __wrap_impl_create_client_socket(const char *, int, int)
{
    return open_link();
}

extern "C" int __wrap_tcp_impl_accept_socket(int)
{
    return open_link();
}

// ---- the input

static const uint8_t *next, *end;

static int take()
{
    return next < end ? *next++ : 0;
}

static std::string take_text()
{
    const int len = std::min<long>(take() % 32, end - next);
    next += len;
    return std::string((const char *)next - len, len);
}

// ---- the application

static const char *const callbacks[] = {"resp",         "timeout", "linkdown", "connected",
                                        "disconnected", "fd-open", "fd-close", "actor"};
static std::set<std::string> armed; // those that take a step of their own the next time
static std::set<int> awaited;       // the channels whose request is outstanding
static int openPairs;               // between their fd-open and their fd-close
static int depth;                   // of steps inside callbacks

static void step();

// A link-down callback is shown the record's URL, which a login that is served meanwhile changes;
// anything else stays as it was handed over.
void called(const char *callback, int id, const char *text, int len)
{
    const std::string name = callback, handed(text == nullptr ? "" : text, len);
    REQUIRE(name == "disconnected" || name == "fd-close" || tv_get_channel(id) != nullptr);
    REQUIRE(name != "resp" || awaited.erase(id) == 1);
    REQUIRE(name != "timeout" || awaited.count(id) == 1);
    openPairs += (name == "fd-open") - (name == "fd-close");
    if (armed.erase(name) == 1) {
        depth++;
        step();
        depth--;
        REQUIRE(name == "linkdown" ? strlen(text) < TV_URL_SIZE
                                   : text == nullptr || handed == std::string(text, len));
    }
    if (name == "timeout")
        awaited.erase(id);
}

static int actor(int id, const char *payload, int len, char **reply, int *replyLen)
{
    const int what = take();
    if (what & 4 && *reply == nullptr) { // one that another actor left belongs to the library
        *reply = strdup("reply");
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
    tv_set_poll_timeout(id, 1000);
}

static void start_server()
{
    set_up(tv_start_server("", 0));
    set_server_callbacks();
}

static void connect_client(connection &old)
{
    int id = old.id;
    if (get_channel_type(id) != TV_CHANNEL_CLIENT) {
        const tv_client_addr addr = {"server", "client", 1, 1};
        id = tv_create_client_channel(&addr);
        set_up(id);
    }
    openFor = id;
    tv_connect_server(id);
}

static void serve(connection &at)
{
    const bool client = get_channel_type(at.id) == TV_CHANNEL_CLIENT;
    (client ? tv_channel_fd_handler : tv_pair_fd_handler)(at.near, at.id, 0);
}

static void request(connection &at)
{
    static const char large[TV_MSG_BUF_SIZE] = "";
    const int size = take(), timeout = take() % 4 * 10;
    const int id = at.id; // the place may be another connection's afterwards
    const int sent = tv_send_rqst(id, large, size < 200 ? size : size * 256, timeout);
    REQUIRE(sent != 0 || timeout == 0 || awaited.insert(id).second);
}

static void enable_heartbeats(connection &at)
{
    tv_service_enable_heartbeat(take() % 4 * 10, take() % 3, on_linkdown);
    tv_client_enable_heartbeat(at.id, take() % 4 * 10, take() % 3, on_linkdown);
}

static void start_or_stop_server(connection &)
{
    const tv_channel *server = tv_service_server.serverChannel;
    if (server == nullptr)
        return start_server();
    take() % 2 ? tv_stop_server() : tv_close_channel(server->channelId);
}

// ---- the peers

static void say(connection &at)
{
    static const char *const tags[] = {"login\n", "logout\n",    "request\n",      "reply\n",
                                       "request", "heartbeat\n", "heartbeatack\n", ""};
    const int what = take();
    const std::string number = std::to_string(what & 0x40 ? take() - 9 : at.said++);
    const std::string marker = what & 0x20 ? "" : "\nvelun_tolvane_payload\n";
    const std::string text =
        number + "\nvelun_tolvane_" + tags[what % 8] + "url" + marker + take_text();
    tcp_impl_send_with_timeout(at.far, text.data(), text.size() + (what >> 4 & 1), 1000);
}

static void read_all(connection &at)
{
    char bytes[4096];
    while (recv(at.far, bytes, sizeof(bytes), 0) > 0)
        continue;
}

static void end_link(connection &at)
{
    REQUIRE(at.far == -1 || close(at.far) == 0); // nobody else has closed it
    at = {-1, -1, -1, 0};
}

// ---- one step

static void step()
{
    using At = connection &;
    static const auto acceptPair = [](At) {
        openFor = tv_get_channel_id() + 1;
        tv_server_fd_handler(0, 0, 0);
    };
    static const auto sayAndServe = [](At at) { say(at), serve(at); };
    static void (*const steps[])(connection &) = {
        acceptPair,
        acceptPair,
        connect_client,
        sayAndServe,
        sayAndServe,
        sayAndServe,
        say,
        [](At at) {
            const std::string text = take_text();
            send(at.far, text.data(), text.size(), MSG_NOSIGNAL), serve(at);
        },
        serve,
        end_link,
        read_all,
        request,
        [](At at) { tv_send_resp(at.id, "late", take() % 5); },
        [](At at) { tv_close_channel(at.id); },
        [](At) { hand_timer_advance(depth == 0 ? take() : 0); },
        [](At) { tv_broadcast_rqst_to_client("all", 3); },
        enable_heartbeats,
        start_or_stop_server,
        [](At at) {
            tv_disconnect_server(get_channel_type(at.id) == TV_CHANNEL_CLIENT ? at.id : -1);
            hand_timer_fail_starts(take() % 4 == 0);
        },
        [](At) { armed.insert(callbacks[take() % std::size(callbacks)]); },
    };
    connection &at = links[take() % std::size(links)];
    steps[take() % std::size(steps)](at);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static FILE *const sink = fopen("/dev/null", "w");
    next = data;
    end = data + size;
    tv_set_log_fd(take() % 16 == 0 ? sink : nullptr);
    for (connection &each : links)
        each = {-1, -1, -1, 0};
    hand_timer_reset();
    const int descriptors = count_descriptors(), first = tv_get_channel_id();
    start_server();
    for (int steps = 0; next < end && steps < 200; steps++)
        step();

    armed.clear();
    tv_stop_server();
    for (int id = tv_get_channel_id(); id >= first; id--)
        tv_close_channel(id);
    for (connection &each : links)
        end_link(each);
    awaited.clear();
    REQUIRE(openPairs == 0);
    hand_timer_advance(100000); // requests whose channel is gone
    REQUIRE(hand_timer_pending().empty());
    REQUIRE(count_descriptors() == descriptors);
    return 0;
}
