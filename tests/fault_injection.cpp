// fault_injection.cpp - every allocation and every system call of the library fails, one after the
// other, in each way that it can: once, and from then on.
//
// A server and its clients run in one process, over sockets that deliver at once and on a clock
// that only waiting moves, so that a scenario is the same in every run. Each fault gets a process
// of its own. Whatever fails, nothing may crash or hang, and no block, descriptor or channel may
// be left; what an application and its log have to see of it stands in the table of faults.

#include "ruvo_timer.h"
#include "tolvane.h"

#include <algorithm>
#include <errno.h>
#include <fcntl.h>
#include <map>
#include <sstream>
#include <stdlib.h>
#include <string.h>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

static const int half = -1, end = -2, refused = -3, leap = -4; // ways to fail beside an errno
enum { SAME, SAME_IF_ONCE, SEEN, EITHER };                     // what the application sees of it

static const struct fault {
    std::string call;
    int way, effect;
    const char *log;
} faults[] = {
    {"malloc", ENOMEM, SEEN, ""},
    {"calloc", ENOMEM, SEEN, "malloc error in function"},
    {"realloc", ENOMEM, SEEN, ""},
    {"socket", EMFILE, SEEN, "failed on create socket"},
    {"setsockopt", ENOBUFS, EITHER, "failed on setsockopt"},
    {"getsockopt", ENOBUFS, SEEN, "getsockopt error:No buffer space"},
    {"getsockopt", refused, SEEN, "connect error:111"},
    {"bind", EADDRINUSE, SEEN, "impl_create_server_socket, failed on bind"},
    {"listen", EADDRINUSE, SEEN, "impl_create_server_socket, failed on listen"},
    {"accept", ECONNABORTED, SAME_IF_ONCE, "tv_server_fd_handler, failed on accept"},
    {"accept", EINTR, SAME_IF_ONCE, "tv_server_fd_handler, failed on accept"},
    {"connect", ECONNREFUSED, SEEN, ""},
    {"connect", EINTR, EITHER, ""},
    {"fcntl", EBADF, SAME, "_set_fd_nonblock,fail to"},
    {"poll", EINTR, SAME_IF_ONCE, ""},
    {"poll", ENOMEM, SEEN, ""},
    {"send", EINTR, SAME_IF_ONCE, "send error: Interrupted system call continue"},
    {"send", EAGAIN, SAME_IF_ONCE, "send error: Resource temporarily unavailable continue"},
    {"send", half, SAME, ""},
    {"send", ECONNRESET, SEEN, "failed send error:Connection reset"},
    {"recv", EINTR, SAME_IF_ONCE, "error Interrupted system call continue"},
    {"recv", EAGAIN, SAME_IF_ONCE, "error Resource temporarily unavailable continue"},
    {"recv", half, SAME, ""},
    {"recv", ECONNRESET, SEEN, "failed receive error:Connection reset"},
    {"recv", end, SEEN, "the remote peer closed"},
    {"close", EIO, SAME, ""},
    {"fopen", EMFILE, SAME, ""},
    {"stat", EACCES, SAME, ""},
    {"clock_gettime", EINVAL, EITHER, ""},
    {"clock_gettime", leap, EITHER, ""},
};

static struct outcome { // of one run, and of all, in shared memory
    char seen[4000];
    int calls[std::size(faults)], injected, blocks, left, wrong;
} * run, *sum, baseline;

// ---- the system

static const fault *active; // or null
static int target;          // the call that it begins with
static bool forever;
static bool armed;              // calls count
static long long now = 1000000; // milliseconds
static int lag;                 // what the faults since the last wait took
static long long stopAt;        // when the loop is to end
static int serving;             // a descriptor's handler runs
static sockaddr_un here;        // where the server listens

static bool fails(const char *call)
{
    int number = 0;
    for (size_t i = 0; armed && i < std::size(faults); i++)
        number = faults[i].call == call ? ++run->calls[i] : number;
    if (active == nullptr || active->call != call || number < target)
        return false;
    if (number > (forever ? target + 300 : target)) // what is retried without a limit goes on
        return false;
    run->injected++;
    now += active->way == leap ? 3600000 : 0;
    lag += active->way != half;
    errno = active->way;
    return true;
}

static void *count(void *block)
{
    run->blocks += block != nullptr;
    return block;
}

#define WRAP(type, name, parameters)                                                               \
    extern "C" type __real_##name parameters;                                                      \
    extern "C" type __wrap_##name parameters
#define FAIL(type, name, parameters, failure, success)                                             \
    WRAP(type, name, parameters)                                                                   \
    {                                                                                              \
        return fails(#name) ? failure : success;                                                   \
    }

FAIL(void *, malloc, (size_t size), nullptr, count(__real_malloc(size)))
FAIL(void *, calloc, (size_t items, size_t size), nullptr, count(__real_calloc(items, size)))
FAIL(void *, realloc, (void *old, size_t size), nullptr, __real_realloc(old, size))
FAIL(int, socket, (int, int type, int), -1, __real_socket(AF_UNIX, type, 0))
FAIL(int, setsockopt, (int, int, int, const void *, socklen_t), -1, 0)
FAIL(int, getsockopt, (int fd, int level, int option, void *value, socklen_t *size),
     (*(int *)value = ECONNREFUSED, active->way == refused ? 0 : -1),
     __real_getsockopt(fd, level, option, value, size))
FAIL(int, bind, (int fd, const sockaddr *, socklen_t), -1,
     __real_bind(fd, (sockaddr *)&here, sizeof(here)))
FAIL(int, listen, (int fd, int backlog), -1, __real_listen(fd, backlog))
FAIL(int, accept, (int fd, sockaddr *peer, socklen_t *size), -1, __real_accept(fd, peer, size))
FAIL(int, fcntl, (int fd, int command, intptr_t flags), -1, __real_fcntl(fd, command, flags))
FAIL(ssize_t, send, (int fd, const void *bytes, size_t size, int flags),
     active->way == half ? __real_send(fd, bytes, (size + 1) / 2, flags) : -1,
     __real_send(fd, bytes, size, flags))
FAIL(ssize_t, recv, (int fd, void *bytes, size_t size, int flags),
     active->way == half  ? __real_recv(fd, bytes, (size + 1) / 2, flags)
     : active->way == end ? 0
                          : -1,
     __real_recv(fd, bytes, size, flags))
FAIL(int, close, (int fd), (__real_close(fd), -1), __real_close(fd))
FAIL(FILE *, fopen, (const char *path, const char *mode), nullptr, __real_fopen(path, mode))
FAIL(int, stat, (const char *path, struct stat *status), -1, __real_stat(path, status))
FAIL(int, clock_gettime, (clockid_t clock, timespec *time), active->way == leap ? 0 : -1,
     (clock == CLOCK_MONOTONIC ? (void)0 : abort(), *time = {now / 1000, now % 1000 * 1000000}, 0))

WRAP(void, free, (void *block))
{
    run->blocks -= block != nullptr;
    __real_free(block);
}

WRAP(void, perror, (const char *))
{
}

// The wall clock changes all the time, by years: only the log may notice.
WRAP(time_t, time, (time_t *))
{
    static time_t time = 0;
    return time = 1500000000 - time;
}

// A connect that is not to block is in progress at first.
WRAP(int, connect, (int fd, const sockaddr *, socklen_t))
{
    if (fails("connect") || __real_connect(fd, (sockaddr *)&here, sizeof(here)) != 0)
        return -1;
    errno = EINPROGRESS;
    return __real_fcntl(fd, F_GETFL, 0) & O_NONBLOCK ? -1 : 0;
}

// Nothing comes later: a wait moves the clock to its end. The loop's own wait ends the loop in time.
WRAP(int, poll, (struct pollfd * fds, nfds_t count, int timeout))
{
    const bool loop = serving == 0 && (count == 0 || fds->events == POLLIN); // timers only send
    const bool failed = fails("poll");
    now += lag;
    lag = 0;
    if (failed)
        return -1;
    const int ready = __real_poll(fds, count, 0);
    if (loop && (now >= stopAt || (ready == 0 && (timeout < 0 || now + timeout > stopAt)))) {
        now = stopAt;
        errno = EBADF;
        return -1;
    }
    now += ready == 0 ? timeout : 0;
    return ready;
}

// ---- the application

static int clients[3];
static std::string closeIn; // the callback that closes its channel

static void note(const std::string &text)
{
    strncat(run->seen, (text + "\n").c_str(), sizeof(run->seen) - strlen(run->seen) - 1);
}

static int serve(int fd, intptr_t handler, intptr_t id)
{
    serving++;
    ((tv_fd_handler)handler)(fd, id, 0);
    serving--;
    return 0;
}

static void finish(int id)
{
    if (get_channel_type(id) == TV_CHANNEL_CLIENT)
        tv_unregister_polling_fd(tv_get_polling_fd(id));
    tv_close_channel(id);
}

static void called(const std::string &callback, int id, const std::string &text)
{
    note(callback + " " + text);
    if (callback == closeIn || callback == "linkdown")
        finish(id);
}

static void on_linkdown(int id, const char *url)
{
    called("linkdown", id, url);
}

static void on_resp(int id, const char *payload, int len)
{
    called("resp", id, std::string(payload, len));
}

static void on_timeout(int id)
{
    called("timeout", id, "");
}

static void on_pair_fd(const char *callback)
{
    called(callback, ((tv_channel_node *)tv_service_server.pairList.prev)->channel->channelId, "");
}

// A request's first letter says how it is served.
static int actor(int id, const char *payload, int, char **reply, int *len)
{
    const ruvo_timer_cb answer = [](intptr_t id, intptr_t) {
        note("late " + std::to_string(tv_send_resp(id, "late", 4)));
    };
    called("actor", id, payload);
    if (*payload == 'd')
        return ruvo_start_timer(atoi(payload + 1), answer, id, 0) == -1 ? TV_ACTOR_PASS
                                                                        : TV_ACTOR_DEFERRED;
    if (*payload == 'g') { // the client goes, which a send from here finds
        finish(clients[0]);
        note("sent " + std::to_string(tv_send_rqst(id, "x", 1, 10)));
    }
    if ((*reply = (char *)malloc(*len = 5)) == nullptr)
        note("no memory");
    else
        memcpy(*reply, "reply", 5);
    return TV_ACTOR_HANDLED;
}

static void start()
{
    const int id = tv_start_service_server(
        "", 7, on_resp, on_timeout, [](int id, const char *url) { called("connected", id, url); });
    note(id == -1 ? "not started" : "started");
    tv_register_disconnected_callback(
        id, [](int id, const char *url) { called("disconnected", id, url); });
    tv_register_client_fd_open_callback([](int fd) {
        tv_register_polling_fd(fd, serve, (intptr_t)tv_pair_fd_handler, 0);
        on_pair_fd("open");
    });
    tv_register_client_fd_close_callback([](int fd) {
        tv_unregister_polling_fd(fd);
        on_pair_fd("close");
    });
    tv_register_actor(id, actor);
    tv_register_linkdown_callback(id, on_linkdown);
    tv_set_poll_timeout(id, 100);
    if (id != -1)
        tv_register_polling_fd(tv_get_server_polling_fd(), serve, (intptr_t)tv_server_fd_handler,
                               0);
}

static void stop()
{
    tv_unregister_polling_fd(tv_get_server_polling_fd());
    tv_stop_server();
}

static void connect(int client, uint16_t name, int connectTimeout)
{
    const tv_client_addr addr = {"", "client", 7, name};
    const int id = clients[client] = tv_create_client_channel(&addr);
    tv_register_actor(id, actor);
    tv_register_resp_handler(id, on_resp);
    tv_register_timeout_handler(id, on_timeout);
    tv_set_poll_timeout(id, 100);
    tv_set_connect_timeout(id, connectTimeout);
    tv_client_enable_heartbeat(id, 400, 1, on_linkdown);
    if (tv_connect_server(id) == 0)
        tv_register_polling_fd(tv_get_polling_fd(id), serve, (intptr_t)tv_channel_fd_handler, id);
    else
        called("linkdown", id, "not connected");
}

static void run_for(int ms)
{
    stopAt = now + ms;
    tv_main_loop();
    if (now < stopAt)
        note("the loop ended");
    now = std::max(now, stopAt);
}

static void start_timers()
{
    for (int i = 0; i < 40; i++)
        note(ruvo_start_timer(
                 5, [](intptr_t, intptr_t) {}, 0, 0) == -1
                 ? "no timer"
                 : "timer");
}

static const std::map<std::string, void (*)()> steps = {
    {"start", start},
    {"stop", stop},
    {"client", [] { connect(0, 1, 100); }},
    {"again", [] { connect(1, 1, 100); }}, // the same name on another connection
    {"second", [] { connect(1, 2, 100); }},
    {"third", [] { connect(2, 3, 0); }}, // a connect that blocks
    {"logout", [] { note("logout " + std::to_string(tv_disconnect_server(clients[0]))); }},
    {"gone", [] { finish(clients[0]); }},
    {"silent", [] { tv_unregister_polling_fd(tv_get_polling_fd(clients[0])); }},
    {"supervise", [] { tv_service_enable_heartbeat(100, 2, on_linkdown); }},
    {"all", [] { tv_broadcast_rqst_to_client("echo", 5); }},
    {"timers", start_timers},
};

static const struct scenario {
    const char *closeIn, *steps;
} scenarios[] = {
    {"", "start client 10 logout 10"},
    {"", "start client 10 >echo 10 <echo 10"},
    {"", "start client 10 >d20 100"},
    {"", "start client 10 >d50 100"}, // the reply is late
    {"", "start supervise client 10 >echo 250 silent 1000"},
    {"", "start client 10 second 10 third 10 gone all 10"},
    {"", "start client 10 again 10"},
    {"", "start client 10 >gone 10"},
    {"", "start start timers 10 stop start client 10"},
    {"actor", "start client 10 >echo 10 <echo 10"},
    {"resp", "start client 10 <echo 10 >echo 10"},
    {"timeout", "start client 10 >d50 100"},
    {"connected", "start client 10 again 10 >echo 10"},
    {"disconnected", "start client 10 again 10 gone client 10 logout 10"},
    {"open", "start client 10 >echo 10"},
    {"close", "start client 10 again 10"},
};

static void take_step(const std::string &step)
{
    const int id = step[0] == '<' ? tv_get_client_channel("client", 1) : clients[0];
    if (isdigit(step[0]))
        run_for(stoi(step));
    else if (steps.count(step) != 0)
        steps.at(step)();
    else
        note("sent " + std::to_string(tv_send_rqst(id, &step[1], step.size(), 30)));
}

// ---- the runs

static int lowest_free_fd()
{
    const int fd = dup(STDERR_FILENO);
    __real_close(fd);
    return fd;
}

// What is left of a scenario that has ended: 0.
static int leftovers(int firstId, int freeFd)
{
    int left = run->blocks + (lowest_free_fd() != freeFd);
    for (int id = tv_get_channel_id(); id >= firstId; id--)
        left += tv_get_channel(id) != nullptr;
    return left;
}

static void play(const scenario &scenario)
{
    const int freeFd = lowest_free_fd(), firstId = tv_get_channel_id();
    std::istringstream steps(scenario.steps);
    *run = {};
    closeIn = scenario.closeIn;
    armed = true;
    for (std::string step; steps >> step;)
        take_step(step);
    closeIn.clear();
    stop();
    for (const int client : clients)
        finish(client);
    armed = false;
    run_for(4000000); // timers of closed channels, also after the leap
    run->left = leftovers(firstId, freeFd);
}

static std::string take_text(int log)
{
    static char text[1 << 16];
    const ssize_t len = pread(log, text, sizeof(text), 0);
    return ftruncate(log, 0) == 0 ? std::string(text, len) : "";
}

// What is wrong with the run that has ended, or null.
static const char *problem(const std::string &log)
{
    const bool same = strcmp(run->seen, baseline.seen) == 0;
    if (run->left != 0)
        return "a block, a descriptor or a channel is left";
    if (active == nullptr)
        return nullptr;
    if (!same && (active->effect == SAME || (active->effect == SAME_IF_ONCE && !forever)))
        return "the application sees it";
    if (same && active->effect == SEEN && strstr(run->seen, "linkdown") == nullptr)
        return "the application does not see it";
    return log.find(active->log) == std::string::npos ? "the log does not tell" : nullptr;
}

// Play a scenario in a process of its own, with each call from first to last failing in turn.
static void check(const scenario &scenario, int first, int last, int log)
{
    const char *const call = active == nullptr ? "nothing" : active->call.c_str();
    fflush(stdout);
    const pid_t child = fork();
    for (target = first; child == 0 && target <= last; target++) {
        alarm(30);
        play(scenario);
        sum->injected += run->injected > 0;
        if (const char *what = problem(take_text(log))) {
            printf("\"%s\", %s %d: %s\n%s", scenario.steps, call, target, what, run->seen);
            sum->wrong++;
        }
    }
    if (child == 0)
        exit(0);
    int status = -1;
    waitpid(child, &status, 0);
    if (status != 0) {
        printf("\"%s\", %s from %d on: ended with %d\n", scenario.steps, call, first, status);
        sum->wrong++;
    }
}

static void check_all_faults(const scenario &scenario, int log)
{
    // A process makes room for its timers only once.
    const int together = strstr(scenario.steps, "timers") == nullptr ? 1000 : 1;
    active = nullptr;
    check(scenario, 0, 0, log);
    baseline = *run;
    for (size_t i = 0; i < std::size(faults); i++) {
        active = &faults[i];
        sum->calls[i] += baseline.calls[i];
        for (const bool lasting : {false, true}) {
            forever = lasting;
            for (int first = 1; first <= baseline.calls[i]; first += together)
                check(scenario, first, std::min(first + together - 1, baseline.calls[i]), log);
        }
    }
}

int main()
{
    run = (outcome *)mmap(nullptr, 2 * sizeof(*run), PROT_READ | PROT_WRITE,
                          MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    sum = run + 1;
    here.sun_family = AF_UNIX; // in the abstract namespace
    snprintf(here.sun_path + 1, sizeof(here.sun_path) - 1, "tolvane fault %d", getpid());
    const int log = memfd_create("log", 0);
    tv_set_log_file(("/proc/self/fd/" + std::to_string(log)).c_str());
    ruvo_stop_timer(ruvo_start_timer(
        1, [](intptr_t, intptr_t) {}, 0, 0)); // keeps its memory
    for (const scenario &each : scenarios)
        check_all_faults(each, log);
    for (size_t i = 0; i < std::size(faults); i++) {
        if (sum->calls[i] == 0)
            sum->wrong += printf("%s is never called\n", faults[i].call.c_str()) > 0;
    }
    printf("%d faults injected, %d wrong\n", sum->injected, sum->wrong);
    return sum->wrong != 0;
}
