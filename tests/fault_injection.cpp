// fault_injection.cpp - every allocation and every system call of the library fails, one after the
// other, in each way that it can: once, and from then on.
//
// A server and its clients run in one process, on a system in which each run is the same. Whatever
// fails, nothing may crash or hang, and no block or descriptor may be left; what the application
// and the log have to see stands in the table.

#include "frail_system.h"

#include "ruvo_timer.h"

#include <map>
#include <sstream>
#include <vector>

static const std::vector<fault> faults = {
    {" malloc realloc ", {ENOMEM}, SEEN, ""},
    {" calloc ", {ENOMEM}, SEEN, "malloc error in function"},
    {" reallocarray ", {ENOMEM}, SAME, ""},
    {" socket ", {EMFILE}, SEEN, "failed on create socket"},
    {" setsockopt ", {ENOBUFS}, EITHER, "failed on setsockopt"},
    {" getsockopt ", {ENOBUFS}, SEEN, "getsockopt error:No buffer space"},
    {" getsockopt ", {REFUSED}, SEEN, "connect error:111"},
    {" bind ", {EADDRINUSE}, SEEN, "impl_create_server_socket, failed on bind"},
    {" listen ", {EADDRINUSE}, SEEN, "impl_create_server_socket, failed on listen"},
    {" accept4 ", {EINTR, ECONNABORTED}, SAME_IF_ONCE, "tv_server_fd_handler, failed on accept"},
    {" connect ", {ECONNREFUSED}, SEEN, "create client or connect server fail"},
    {" connect ", {EINTR, EALREADY}, SAME, ""},
    {" fcntl ", {EBADF}, SAME, "_set_fd_nonblock,fail to"},
    {" poll ", {EINTR}, SAME_IF_ONCE, ""},
    {" poll ", {ENOMEM}, SEEN, ""},
    {" send ", {EINTR, EAGAIN}, SAME_IF_ONCE, "continue"},
    {" recv ", {EINTR, EAGAIN}, SAME_IF_ONCE, "continue"},
    {" send recv ", {HALF}, SAME, ""},
    {" send ", {ECONNRESET}, DOWN, "failed send error:Connection reset"},
    {" recv ", {ECONNRESET}, DOWN, "failed receive error:Connection reset"},
    {" recv ", {END}, DOWN, "the remote peer closed"},
    {" close fopen stat ", {EIO}, SAME, ""},
    {" clock_gettime ", {EINVAL, LEAP}, EITHER, ""},
};

// ---- the application

static std::string closeIn; // the callback that closes its channel
static int clients[3];
static const ruvo_timer_cb nothing = [](intptr_t, intptr_t) {};

static void finish(int id)
{
    tv_unregister_polling_fd(tv_get_polling_fd(id));
    tv_close_channel(id);
}

void called(const char *callback, int id, const char *text, int len)
{
    const std::string name = callback;
    note(name + " " + std::string(text, len), len);
    if (name == "fd-open")
        tv_register_polling_fd(tv_get_polling_fd(id), tv_pair_fd_handler, 0, 0);
    if (name == "fd-close")
        tv_unregister_polling_fd(tv_get_polling_fd(id));
    if (name == "linkdown" || name == closeIn)
        finish(id);
}

static void ask(int id, const std::string &payload)
{
    note_result("ask", id, tv_send_rqst(id, payload.data(), payload.size(), 30));
}

// A request is answered at once, or so many milliseconds later, or when its sender has gone.
static int actor(int id, const char *payload, int len, char **reply, int *replyLen)
{
    const ruvo_timer_cb answer = [](intptr_t id, intptr_t) {
        note("answered", tv_send_resp(id, "late", 4));
    };
    called("actor", id, payload, len);
    if (isdigit(*payload) && ruvo_start_timer(atoi(payload), answer, id, 0) != -1)
        return TV_ACTOR_DEFERRED;
    if (*payload == 'v') {
        finish(clients[0]);
        ask(id, "x");
    }
    *reply = (char *)malloc(sizeof("reply"));
    if (*reply != nullptr)
        *replyLen = (int)strlen(strcpy(*reply, "reply"));
    return TV_ACTOR_HANDLED;
}

static void set_up(int id)
{
    set_channel_callbacks(id);
    tv_register_actor(id, actor);
    tv_set_poll_timeout(id, 100);
}

static void start()
{
    const int id = tv_start_server("", 7);
    note("started", id != -1);
    set_up(id);
    set_server_callbacks();
    if (id != -1)
        tv_register_polling_fd(tv_get_server_polling_fd(), tv_server_fd_handler, 0, 0);
}

static void stop()
{
    tv_unregister_polling_fd(tv_get_server_polling_fd());
    tv_stop_server();
}

static void connect(int client, int name, int connectTimeout)
{
    const tv_client_addr addr = {"", "client", 7, (uint16_t)name};
    const int id = clients[client] = tv_create_client_channel(&addr);
    set_up(id);
    tv_set_connect_timeout(id, connectTimeout);
    tv_client_enable_heartbeat(id, 400, 1, on_linkdown);
    if (note_result("connect", id, tv_connect_server(id)) == 0)
        tv_register_polling_fd(tv_get_polling_fd(id), tv_channel_fd_handler, id, 0);
}

static void fill_timers()
{
    for (int i = 0; i < (active == nullptr ? 40 : 80); i++) // the undisturbed run has made room
        if (ruvo_start_timer(5, nothing, 0, 0) == -1)
            note("no timer", i);
}

// ---- the scenarios

static const std::map<std::string, void (*)()> steps = {
    {"start", start},
    {"stop", stop},
    {"client", [] { connect(0, 1, 100); }},
    {"again", [] { connect(1, 1, 100); }}, // in the other's place
    {"second", [] { connect(1, 2, 100); }},
    {"third", [] { connect(2, 3, 0); }}, // a connect that blocks
    {"logout", [] { note_result("logout", clients[0], tv_disconnect_server(clients[0])); }},
    {"gone", [] { finish(clients[0]); }},
    {"silent", [] { tv_unregister_polling_fd(tv_get_polling_fd(clients[0])); }},
    {"supervise", [] { tv_service_enable_heartbeat(100, 2, on_linkdown); }},
    {"all", [] { tv_broadcast_rqst_to_client("echo", 4); }},
    {"timers", fill_timers},
};

// A word is a step, a request to the server (>) or from it (<), or so many milliseconds of waiting.
static const struct scenario {
    std::string closeIn, steps;
} scenarios[] = {
    {"", "start client 10 >echo 10 <echo 10 logout 10"},
    {"", "start client 10 >20 100 >50 100"}, // the second reply is late
    {"", "start supervise client 10 >echo 250 silent 1000"},
    {"", "start client 10 second 10 third 10 gone all 10"},
    {"", "start client 10 again 10"},
    {"", "start client 10 >vanish 10"},
    {"", "start start timers 10 stop start client 10"},
    {"actor", "start client 10 >echo 10 <echo 10"},
    {"resp", "start client 10 <echo 10 >echo 10"},
    {"timeout", "start client 10 >50 100"},
    {"connected", "start client 10 again 10 >echo 10"},
    {"disconnected", "start client 10 again 10 gone client 10 logout 10"},
    {"fd-open", "start client 10 >echo 10"},
    {"fd-close", "start client 10 again 10"},
};

static void play(const scenario &scenario)
{
    std::istringstream words(scenario.steps);
    closeIn = scenario.closeIn;
    for (std::string word; words >> word;) {
        if (isdigit(word[0]))
            run_loop(stoi(word));
        else if (steps.count(word) != 0)
            steps.at(word)();
        else
            ask(word[0] == '<' ? tv_get_client_channel("client", 1) : clients[0], &word[1]);
    }
    closeIn.clear();
    stop();
    for (const int client : clients)
        finish(client);
}

int main()
{
    snprintf(address.sun_path + 1, sizeof(address.sun_path) - 1, "tolvane fault %d", getpid());
    tv_register_polling_fd(idleFd, nullptr, 0, 0);
    ruvo_stop_timer(ruvo_start_timer(1, nothing, 0, 0)); // its memory is kept
    for (const scenario &each : scenarios)
        inject_all(faults, [&] { play(each); });
    for (const std::string &call : unreached)
        complain(call + " is never called");
    printf("%d faults injected, %d wrong\n", sum->injected, sum->wrong);
    return sum->wrong != 0;
}
