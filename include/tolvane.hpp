// tolvane.hpp - clients and servers that never block: the C++17 layer over tolvane.h.
//
// A program needs one loop, and one or more clients or one server on it. Callbacks are lambdas;
// objects end with their destructors. Header-only and optional; links with libtolvane.so and
// libruvo_timer.so, and talks to programs on the C interface as well as to programs on this one.
//
//   loop      waits for descriptors, timers and posted work, and runs every callback
//   timer     runs a callback once or periodically
//   link      (internal) one connection: buffers, frames, heartbeats, requests under way
//   peer      a server's handle of one client
//   request   one received request, answered now or later
//   client    a link that connects, logs in and reconnects
//   server    a listening socket and a link per client
//
// Each part is built on those before it. Wire format, channel records, sequence numbers and timers
// are the library's; sockets are read and written here, so that no call waits for a peer.
//
// CONVENTIONS, true of every entry below unless it says otherwise
//
// Callbacks  run inside run() and run_once() only, never inside another call. A callback may call
//            anything, and may destroy or close any object, also the one that called it. An
//            exception that leaves a callback ends the program.
// Results    operations that can be refused return a status. Nothing throws but std::bad_alloc.
// Blocking   nothing blocks but run() and run_once(). What the system does not take at once waits
//            in the link's queue, at most options::max_queued bytes.
// Time       milliseconds on the monotonic clock. A time below 1 ms counts as 1 ms, one above
//            24 days as 24 days.
// Threads    one thread makes all calls, but loop::post, which any thread may call.
// Links      two ends of this layer agree on a pipelined link: any number of requests may be under
//            way, in both directions. With any other peer the link is plain: one request at a time
//            awaits its reply in each direction, and further ones queue.
#ifndef TOLVANE_HPP
#define TOLVANE_HPP

#ifndef TOLVANE_H
#define TOLVANE_APPLICATION_ONLY // no get_channel, log_file ... in the program's namespace
#endif
#include "ruvo_timer.h"
#include "tolvane.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <random>
#include <string>
#include <string_view>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <system_error>
#include <type_traits>
#include <unistd.h>
#include <unordered_map>
#include <utility>
#include <vector>

namespace tolvane
{

using std::chrono::milliseconds;

/* The longest request or reply in bytes. It fits one message whatever the link and the URL. */
constexpr std::size_t max_payload = 65398;

/* A callable of any kind, move-only ones included; move-only itself. An empty one does nothing.
 * A callback that is destroyed or replaced while it runs lives on until it returns. */
template <class Signature> class callback;
template <class... Args> class callback<void(Args...)>
{
public:
    callback() = default;
    callback(std::nullptr_t)
    {
    }
    template <class F, class = std::enable_if_t<!std::is_same_v<std::decay_t<F>, callback> &&
                                                std::is_invocable_v<std::decay_t<F> &, Args...>>>
    callback(F &&function)
        : target(std::make_shared<std::decay_t<F>>(std::forward<F>(function))),
          invoke([](void *object, Args... args) {
              (*static_cast<std::decay_t<F> *>(object))(std::forward<Args>(args)...);
          })
    {
    }
    callback(callback &&) = default;
    callback &operator=(callback &&) = default;

    explicit operator bool() const
    {
        return target != nullptr;
    }
    void operator()(Args... args) const noexcept
    {
        if (const auto running = target)
            invoke(running.get(), std::forward<Args>(args)...);
    }

private:
    std::shared_ptr<void> target;
    void (*invoke)(void *, Args...) = nullptr;
};

/* How an operation went: true, or a code and a text that say why it was refused. A refused
 * operation has changed nothing. full() tells a queue that has no room now (try again after
 * on_drained) from what will never succeed. what() is valid for ever. */
class [[nodiscard]] status
{
public:
    status() = default;
    status(std::errc error, const char *what) : code(error), text(what)
    {
    }
    explicit operator bool() const
    {
        return code == std::errc();
    }
    bool full() const
    {
        return code == std::errc::no_buffer_space;
    }
    std::errc error() const
    {
        return code;
    }
    const char *what() const
    {
        return text;
    }

private:
    std::errc code{};
    const char *text = "success";
};

/* An address and a port. A server's host is a dotted IPv4 text; names are not resolved. A client's
 * own endpoint is a name: it need not be a real address, but its URL, "tcp://host:port", has at
 * most 63 characters and no control characters, and tells the client from all others. */
struct endpoint {
    std::string host;
    std::uint16_t port = 0;

    std::string url() const
    {
        return "tcp://" + host + ":" + std::to_string(port);
    }
};

/* Settings of a client, or of a server and all its clients' links. */
struct options {
    milliseconds heartbeat{5000};       // silence after which a heartbeat is sent; 0: none is
    milliseconds connect_timeout{5000}; // for connecting with login, and for saying goodbye
    milliseconds late_reply{1000};      // on a plain link, how long a reply may be overdue
    int missed_heartbeats = 2;          // unanswered ones before a link counts as lost
    bool pipelined = true;              // offer, or accept, a pipelined link
    bool reconnect = true;              // a client only: after a lost link, 100 ms to 5 s later
    std::size_t max_queued = 8 << 20;   // unsent bytes of a link that make it full
    std::size_t max_clients = 1000;     // a server only: further clients wait in the backlog
};

/* What became of a request: the other end replied, or it did not in time, the link was lost or
 * closed meanwhile, the other end declined to reply (pipelined links only), or the request was
 * refused here and not sent. */
enum class outcome { replied, timed_out, lost, declined, refused };

/* Why a client has gone: it logged out, a newer login took its name, its link was lost, or the
 * server closed it. */
enum class reason { logged_out, replaced, lost, closed };

class request;

namespace detail
{

// The library's lower functions that the layer is built on. They are declared here because
// tolvane.h hides them from application programs; a second declaration does no harm.
namespace c
{
extern "C" {
int pack_outgoing_rqst(tv_channel *channel, const char *payload, int len);
int pack_outgoing_resp(tv_channel *channel, const char *payload, int len);
int build_login_msg(tv_channel *channel, const char *text);
int build_logout_msg(tv_channel *channel, const char *text);
int build_heartbeat_msg(tv_channel *channel, char *dst, int size);
int build_heartbeat_ack_msg(tv_channel *channel, char *dst, int size);
int get_msg_type(const char *msg);
int get_msg_sequence(const char *msg);
const char *get_msg_payload(const char *msg, int len, int *payloadLen);
int tv_msg_received(tv_channel *channel, int seq);
int create_pair_channel(int fd);
int login_msg_received(tv_channel *channel, char *msg);
tv_channel *get_channel_by_ip(tv_channel_list *head, const char *url);
}
}

using clock = std::chrono::steady_clock;

constexpr int served_per_turn = 64;       // messages, or accepted clients, before others' turn
constexpr std::size_t flush_size = 65536; // unsent bytes that are sent without waiting for more
constexpr std::size_t frame_header = 36;  // watermark and length
constexpr std::string_view watermark{"TCP_WATER_MARK\0", 15};
constexpr std::string_view reserved_text = "velun_tolvane_";
constexpr std::string_view pipelined_offer{"pipelined\0", 10};

inline std::string error_text(int error)
{
    return std::generic_category().message(error);
}

inline bool try_later(int error)
{
    return error == EAGAIN || error == EINTR || error == ENOBUFS || error == ENOMEM;
}

inline int to_ms(milliseconds time)
{
    return static_cast<int>(std::clamp<milliseconds::rep>(time.count(), 1, INT_MAX));
}

// ---- loop ----------------------------------------------------------------------------------

// What the loop serves. The loop shares ownership of what it watches.
struct watcher {
    virtual ~watcher() = default;
    virtual void ready(unsigned events) = 0;
    virtual void flush()
    {
    }
};

struct descriptor_watcher final : watcher {
    explicit descriptor_watcher(callback<void()> readable) : handler(std::move(readable))
    {
    }
    void ready(unsigned) override
    {
        handler();
    }
    callback<void()> handler;
};

// Reads what an eventfd or a timerfd counts, so that it is no longer ready.
struct counter_watcher final : watcher {
    explicit counter_watcher(int counter) : fd(counter)
    {
    }
    void ready(unsigned) override
    {
        std::uint64_t count;
        if (read(fd, &count, sizeof(count)) < 0)
            return; // another thread's wake-up has been read already
    }
    int fd;
};

struct loop_state {
    struct entry {
        unsigned generation;
        std::shared_ptr<watcher> target;
    };

    loop_state();
    ~loop_state()
    {
        close();
    }
    void close();
    status watch(int fd, std::shared_ptr<watcher> target, unsigned events = EPOLLIN);
    void change(int fd, unsigned events);
    void unwatch(int fd);
    void post(callback<void()> task);
    bool run_once(int limit);
    void nest();
    void work_added();

    int epoll = -1, wakeup = -1, alarm = -1;
    bool stopped = false, nested = false; // nested: another loop waits for this one's descriptor
    unsigned depth = 0, round = 0, generation = 0;
    clock::time_point now = clock::now();
    std::unordered_map<int, entry> watched;
    std::vector<epoll_event> always; // descriptors that epoll refuses and poll() calls ready
    std::deque<std::shared_ptr<watcher>> unsent, unread; // to flush, and to serve from a buffer
    std::mutex guard;                                    // of posted
    std::deque<callback<void()>> posted;
    char scratch[flush_size]; // what recv() has just read

private:
    bool busy();
    void wake();
    void serve(const epoll_event &event);
    void flush_all();
    void serve_buffered();
    void run_posted();
    int wait_time(int limit);
};

// The process's loop. A second one finds it taken and stays closed.
inline loop_state *the_loop = nullptr;

inline loop_state::loop_state()
{
    if (the_loop != nullptr)
        return;
    the_loop = this;
    epoll = epoll_create1(EPOLL_CLOEXEC);
    wakeup = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    alarm = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
    if (!watch(wakeup, std::make_shared<counter_watcher>(wakeup)) ||
        !watch(alarm, std::make_shared<counter_watcher>(alarm)))
        close();
}

inline void loop_state::close()
{
    if (the_loop == this)
        the_loop = nullptr;
    for (int *fd : {&epoll, &wakeup, &alarm})
        ::close(std::exchange(*fd, -1));
    stopped = true;
    round++;
    const auto released = std::move(watched); // destructors may call back into the loop
    watched.clear();
    always.clear();
    unsent.clear();
    unread.clear();
    const auto dropped = std::move(posted);
}

inline status loop_state::watch(int fd, std::shared_ptr<watcher> target, unsigned events)
{
    if (epoll < 0)
        return {std::errc::bad_file_descriptor, "the loop is closed, or not the process's first"};
    if (watched.count(fd) != 0)
        return {std::errc::file_exists, "the descriptor is watched already"};
    epoll_event event{};
    event.events = events;
    event.data.u64 = std::uint64_t(++generation) << 32 | std::uint32_t(fd);
    if (epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event) != 0) {
        if (errno != EPERM)
            return {std::errc(errno), "the descriptor cannot be watched"};
        always.push_back(event);
        work_added();
    }
    watched[fd] = {generation, std::move(target)};
    return {};
}

inline void loop_state::change(int fd, unsigned events)
{
    const auto found = watched.find(fd);
    if (found == watched.end())
        return;
    epoll_event event{};
    event.events = events;
    event.data.u64 = std::uint64_t(found->second.generation) << 32 | std::uint32_t(fd);
    epoll_ctl(epoll, EPOLL_CTL_MOD, fd, &event);
}

inline void loop_state::unwatch(int fd)
{
    const auto found = watched.find(fd);
    if (found == watched.end() || fd == wakeup || fd == alarm)
        return;
    const auto released = std::move(found->second.target);
    watched.erase(found);
    epoll_ctl(epoll, EPOLL_CTL_DEL, fd, nullptr);
    always.erase(std::remove_if(always.begin(), always.end(),
                                [fd](auto &event) { return int(event.data.u64) == fd; }),
                 always.end());
}

inline void loop_state::wake()
{
    const std::uint64_t one = 1;
    if (write(wakeup, &one, sizeof(one)) < 0)
        return; // the counter is full: it is ready as it is
}

inline void loop_state::post(callback<void()> task)
{
    const std::lock_guard<std::mutex> lock(guard);
    posted.push_back(std::move(task));
    if (posted.size() == 1)
        wake();
}

// Something became due outside run_once(): a loop around this one has to call it.
inline void loop_state::work_added()
{
    if (nested && depth == 0)
        wake();
}

inline bool loop_state::busy()
{
    const std::lock_guard<std::mutex> lock(guard);
    return !posted.empty() || !unread.empty() || !always.empty();
}

inline int loop_state::wait_time(int limit)
{
    if (busy())
        return 0;
    const int timer = ruvo_timer_get_expected_interval();
    if (timer < 0 || limit < 0)
        return std::max(timer, limit);
    return std::min(timer, limit);
}

// A descriptor whose registration has ended since its event was reported is not found, also when
// its number is in use again.
inline void loop_state::serve(const epoll_event &event)
{
    const auto found = watched.find(int(event.data.u64));
    if (found == watched.end() || found->second.generation != event.data.u64 >> 32)
        return;
    const auto target = found->second.target;
    target->ready(event.events);
}

inline void loop_state::flush_all()
{
    while (!unsent.empty()) {
        const auto target = std::move(unsent.front());
        unsent.pop_front();
        target->flush();
    }
}

inline void loop_state::serve_buffered()
{
    for (std::size_t left = unread.size(); left > 0 && !unread.empty(); left--) {
        const auto target = std::move(unread.front());
        unread.pop_front();
        target->ready(0);
    }
}

inline void loop_state::run_posted()
{
    std::unique_lock<std::mutex> lock(guard);
    for (std::size_t left = posted.size(); left > 0 && !posted.empty(); left--) {
        const auto task = std::move(posted.front());
        posted.pop_front();
        lock.unlock();
        task();
        lock.lock();
    }
}

// One round. A callback may run a round of its own; what was reported to the outer one may be
// served then, so the outer one drops the rest: whatever is still ready is reported again.
inline bool loop_state::run_once(int limit)
{
    epoll_event events[64];
    depth++;
    flush_all();
    const int count = epoll_wait(epoll, events, 64, wait_time(limit));
    if (count < 0 && errno != EINTR) {
        depth--;
        return false;
    }
    const unsigned mine = ++round;
    now = clock::now();
    for (int i = 0; i < count && round == mine; i++)
        serve(events[i]);
    const auto steady = always;
    for (std::size_t i = 0; i < steady.size() && round == mine; i++)
        serve(steady[i]);
    serve_buffered();
    run_posted();
    ruvo_fire_timer();
    flush_all();
    if (--depth == 0 && nested)
        nest();
    return true;
}

// Make the epoll descriptor ready when run_once(0) has work, or will have.
inline void loop_state::nest()
{
    nested = true;
    const int timer = ruvo_timer_get_expected_interval();
    itimerspec when{};
    if (timer >= 0) {
        when.it_value.tv_sec = timer / 1000;
        when.it_value.tv_nsec = std::max(timer % 1000 * 1000000L, 1L);
    }
    timerfd_settime(alarm, 0, &when, nullptr);
    if (busy() || !unsent.empty())
        wake();
}

}

/* The event loop: one per process. Runs the callbacks of all timers, clients and servers. */
class loop
{
public:
    /* Open the loop. While another one exists, or when the system has no descriptors left, it
     * stays closed: run() returns false at once, and watch() says why. */
    loop() : state(std::make_shared<detail::loop_state>())
    {
    }
    /* Clients, servers, timers and requests may outlive the loop; without one they do nothing. */
    ~loop()
    {
        state->close();
    }
    loop(const loop &) = delete;
    loop &operator=(const loop &) = delete;

    /* Serve until stop(). Returns true, or false when the loop is closed or waiting failed. */
    bool run()
    {
        const auto keep = state;
        while (!keep->stopped && keep->epoll >= 0) {
            if (!keep->run_once(-1))
                return false;
        }
        keep->stopped = false;
        return keep->epoll >= 0;
    }
    /* Make run() return once the round in progress is complete; a run() inside a callback of
     * another one returns alone. Without a run() in progress, the next one returns at once. */
    void stop()
    {
        state->stopped = true;
    }
    /* Wait for at most limit for work, 0: not at all, below 0: until there is some, and do it: read
     * what has arrived, run posted work, fire timers, send. May be called inside a callback.
     * Returns false when the loop is closed or waiting failed. */
    bool run_once(milliseconds limit)
    {
        const auto keep = state;
        return keep->run_once(limit.count() < 1
                                  ? int(std::max<milliseconds::rep>(limit.count(), -1))
                                  : detail::to_ms(limit));
    }
    /* Run a callback whenever a descriptor of the program's is readable, until unwatch(). The
     * descriptor stays the program's. A file, which is always readable, is called in every round.
     * Refused: a descriptor that is watched already, or is none. */
    status watch(int fd, callback<void()> readable)
    {
        return state->watch(fd, std::make_shared<detail::descriptor_watcher>(std::move(readable)));
    }
    /* Stop watching a descriptor, effective immediately; before it is closed. Does nothing when it
     * is not watched. */
    void unwatch(int fd)
    {
        state->unwatch(fd);
    }
    /* Run a callback in the loop's next round. Any thread may call this while the loop exists. */
    void post(callback<void()> task)
    {
        state->post(std::move(task));
    }
    /* Return a descriptor that is readable when run_once(0) has work, for nesting this loop in
     * another one: watch it there, and call run_once(0) when it is readable. It stays the loop's.
     * -1: the loop is closed. */
    int fd() const
    {
        if (state->epoll >= 0 && !state->nested)
            state->nest();
        return state->epoll;
    }

private:
    friend class client;
    friend class server;
    std::shared_ptr<detail::loop_state> state;
};

// ---- timer ---------------------------------------------------------------------------------

namespace detail
{

inline int start_timer(milliseconds time, ruvo_timer_cb fire, void *object, std::uint32_t id = 0,
                       bool periodic = false)
{
    const auto start = periodic ? ruvo_start_periodic_timer : ruvo_start_timer;
    const int timer = start(to_ms(time), fire, reinterpret_cast<std::intptr_t>(object),
                            static_cast<std::intptr_t>(id));
    if (the_loop != nullptr)
        the_loop->work_added();
    return timer;
}

inline void stop_timer(int &timer)
{
    if (timer != -1)
        ruvo_stop_timer(std::exchange(timer, -1));
}

struct timer_state {
    ~timer_state()
    {
        stop_timer(id);
    }
    static void fire(std::intptr_t self, std::intptr_t)
    {
        auto *state = reinterpret_cast<timer_state *>(self);
        if (!state->periodic)
            state->id = -1;
        state->task(); // may destroy the timer
    }
    callback<void()> task;
    bool periodic;
    int id;
};

}

/* Runs a callback later; move-only. The destructor stops it, so keep it as long as it shall run. */
class timer
{
public:
    /* A timer that is not pending. */
    timer() = default;
    /* Run a callback once, after a time. */
    static timer once(milliseconds after, callback<void()> task)
    {
        return timer(after, std::move(task), false);
    }
    /* Run a callback after every period. One that is late by several periods runs once, and then
     * at the next multiple of the period. */
    static timer every(milliseconds period, callback<void()> task)
    {
        return timer(period, std::move(task), true);
    }
    /* Not to run any more. Does nothing when it is not pending. */
    void stop()
    {
        state.reset();
    }
    /* True while it is pending: false after stop(), after its only run has begun, and when the
     * timer library had no memory for it. */
    explicit operator bool() const
    {
        return state != nullptr && state->id != -1;
    }

private:
    timer(milliseconds time, callback<void()> task, bool periodic)
        : state(new detail::timer_state{std::move(task), periodic, -1})
    {
        state->id = detail::start_timer(time, detail::timer_state::fire, state.get(), 0, periodic);
    }
    std::unique_ptr<detail::timer_state> state;
};

// ---- link ----------------------------------------------------------------------------------

/* What a request's handler receives. True when there is a reply. */
class response
{
public:
    response(tolvane::outcome what, tolvane::status why, std::string message = {},
             std::size_t offset = 0)
        : result(what), cause(why), body(std::move(message)), start(offset)
    {
    }
    tolvane::outcome outcome() const
    {
        return result;
    }
    /* Success after a reply; else why there is none, above all why a request was refused. */
    tolvane::status status() const
    {
        return cause;
    }
    /* The reply, or nothing; never null, followed by a 0x00, valid as long as the response. */
    std::string_view payload() const
    {
        return {body.data() + start, body.size() - start};
    }
    explicit operator bool() const
    {
        return result == tolvane::outcome::replied;
    }

private:
    tolvane::outcome result;
    tolvane::status cause;
    std::string body; // the message as received, for the payload at its end
    std::size_t start;
};

namespace detail
{

// Bytes in order. An empty buffer holds no memory, so an idle link costs little.
struct buffer {
    std::size_t size() const
    {
        return bytes.size() - start;
    }
    char *data()
    {
        return bytes.data() + start;
    }
    void append(const char *from, std::size_t count)
    {
        bytes.append(from, count);
    }
    void consume(std::size_t count)
    {
        start += count;
        if (start == bytes.size())
            clear();
        else if (start > bytes.size() / 2)
            bytes.erase(0, std::exchange(start, 0));
    }
    void clear()
    {
        bytes = std::string();
        start = 0;
    }
    std::string bytes;
    std::size_t start = 0;
};

// What begins a one-way request on a pipelined link: a kind, a correlation ID in hexadecimal, 0x00.
struct mark {
    static constexpr std::size_t size = 10;
    static constexpr const char *kinds = "?=!-"; // request, reply, one-way, declined

    bool read(std::string_view payload)
    {
        if (payload.size() < size || std::strchr(kinds, payload[0]) == nullptr || payload[9] != 0)
            return false;
        kind = payload[0];
        const char *end = payload.data() + size - 1;
        return std::from_chars(payload.data() + 1, end, id, 16).ptr == end;
    }
    void write(char *to) const
    {
        to[0] = kind;
        for (std::uint32_t digit = 1, rest = id; digit <= 8; digit++, rest <<= 4)
            to[digit] = "0123456789abcdef"[rest >> 28];
        to[9] = '\0';
    }
    char kind = '!';
    std::uint32_t id = 0;
};

// Sends what a closed link still had queued, waits for the other end to close, and closes the
// descriptor. Closing it at once would reset the connection if anything arrived meanwhile, and the
// other end could lose what it has not read.
struct farewell final : watcher {
    farewell(std::shared_ptr<loop_state> owner, int descriptor, buffer unsent, milliseconds limit);
    ~farewell() override;
    void ready(unsigned) override;
    std::shared_ptr<loop_state> loop;
    int fd, timer;
    buffer out;
};

inline farewell::farewell(std::shared_ptr<loop_state> owner, int descriptor, buffer unsent,
                          milliseconds limit)
    : loop(std::move(owner)), fd(descriptor), out(std::move(unsent))
{
    const auto give_up = [](std::intptr_t self, std::intptr_t) {
        auto *object = reinterpret_cast<farewell *>(self);
        object->loop->unwatch(object->fd); // releases the object
    };
    timer = start_timer(limit, give_up, this);
}

inline farewell::~farewell()
{
    stop_timer(timer);
    while (recv(fd, loop->scratch, sizeof(loop->scratch), MSG_DONTWAIT) > 0) {
    }
    ::close(fd);
}

inline void farewell::ready(unsigned)
{
    const auto sent = send(fd, out.data(), out.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent > 0)
        out.consume(std::size_t(sent));
    else if (sent < 0 && !try_later(errno))
        out.clear();
    if (out.size() == 0) {
        shutdown(fd, SHUT_WR);
        loop->change(fd, EPOLLIN);
    }
    const auto got = recv(fd, loop->scratch, sizeof(loop->scratch), MSG_DONTWAIT);
    if (got == 0 || (got < 0 && !try_later(errno)))
        loop->unwatch(fd);
}

// One connection, and the requests under way on it. A client's outlives its connections.
//
// A plain link has one request under way, plain_id, and serves one received request at a time. If
// the request times out, plain_id stays: the next one is not sent before the late reply has come,
// so that this reply is not taken for the next one's. A pipelined link has no such limits.
struct link : watcher, std::enable_shared_from_this<link> {
    struct call {
        callback<void(response)> handler;
        int timer;
    };
    struct unsent_request {
        std::uint32_t id; // 0: one-way
        std::string text;
    };

    link(std::shared_ptr<loop_state> owner, const options &settings, std::shared_ptr<bool> exists)
        : loop(std::move(owner)), opts(settings), alive(std::move(exists))
    {
    }
    ~link() override
    {
        stop_timers();
        for (auto &entry : calls)
            stop_timer(entry.second.timer);
    }

    // What clients and servers do differently.
    virtual void end(reason why, const std::string &text, bool now) = 0;
    virtual void arrived(request received) = 0;
    virtual void drained() = 0;
    virtual void acknowledged()
    {
    }
    virtual void accepted()
    {
    }
    virtual void offered()
    {
    }
    virtual void login(std::string &)
    {
    }
    virtual void logout()
    {
    }

    void ready(unsigned events) override;
    void flush() override;

    std::size_t queued() const
    {
        return out.size() + waiting_size;
    }
    void ask(std::string_view text, milliseconds timeout, callback<void(response)> handler);
    status tell(std::string_view text);
    status reply(int connection, const mark &to, std::string_view text);
    void decline(int connection, const mark &to);

    // The connection.
    void open(tv_channel *record, int descriptor);
    void shut();
    void leave();
    void start_heartbeat(milliseconds wait);
    static void heartbeat_due(std::intptr_t self, std::intptr_t);
    void stop_timers();
    std::vector<callback<void(response)>> take_calls(bool keep_unsent);
    void lose(std::vector<callback<void(response)>> handlers, bool now);
    template <class Task> void settle(bool now, Task task);

    // Output.
    status check(std::string_view text, bool plain);
    void append(std::string_view head, std::string_view text, const mark *to = nullptr);
    void append_request(std::string_view text, const mark *to = nullptr);
    void append_heartbeat(int (*build)(tv_channel *, char *, int));
    void write_out();
    void fail(std::string why);
    void touch();
    bool may_send(std::uint32_t id) const;
    void transmit(std::uint32_t id, std::string_view text);
    void submit(std::uint32_t id, std::string_view text);
    void pump();

    // Input.
    long next_frame();
    bool pending();
    void receive();
    bool serve_one();
    void handle(std::string body);
    void request_received(std::string body, std::size_t start);
    void plain_request(std::string body, std::size_t start);
    void serve_plain(std::string body, std::size_t start);
    void reply_received(std::string body, std::size_t start);
    void finish(std::uint32_t id, outcome what, status why, std::string body = {},
                std::size_t start = 0);
    static void call_expired(std::intptr_t self, std::intptr_t id);
    void timed_out(std::uint32_t id);

    const std::shared_ptr<loop_state> loop;
    const options opts;
    const std::shared_ptr<bool> alive; // the client or server object still exists
    tv_channel *channel = nullptr;
    int id = -1; // the channel's id, which no other connection has; -1: closed
    int fd = -1;
    bool established = false, pipelined = false, marks = false; // marks: received ones count
    bool dirty = false, unread = false, writing = false, stalled = false;
    buffer in, out;
    std::string failure; // why the connection has ended; what was received before is served first
    std::map<std::uint32_t, call> calls;
    std::list<unsent_request> waiting;
    std::size_t waiting_size = 0;
    std::uint32_t last_id = 0, plain_id = 0;
    std::list<std::pair<std::string, std::size_t>> backlog; // plain requests behind the one served
    std::size_t backlog_size = 0;
    bool serving_plain = false;
    int heartbeat_timer = -1, late_timer = -1, missed = 0;
    clock::time_point heard;
};

// ---- link: the connection

inline void link::open(tv_channel *record, int descriptor)
{
    channel = record;
    id = record->channelId;
    fd = descriptor;
    heard = clock::now();
}

inline void link::stop_timers()
{
    stop_timer(heartbeat_timer);
    stop_timer(late_timer);
}

// Close the connection at once. Requests under way are the caller's to finish.
inline void link::shut()
{
    stop_timers();
    loop->unwatch(fd);
    tv_close_channel(std::exchange(id, -1));
    channel = nullptr;
    fd = -1;
    established = pipelined = marks = writing = serving_plain = false;
    in.clear();
    out.clear();
    failure.clear();
    backlog.clear();
    backlog_size = plain_id = 0;
}

// Close the connection and let what is queued go out first.
inline void link::leave()
{
    const int copy = fcntl(fd, F_DUPFD_CLOEXEC, 0); // the channel closes its own
    write_out();
    auto last = std::make_shared<farewell>(loop, copy, std::move(out), opts.connect_timeout);
    shut();
    if (copy >= 0 && !loop->watch(copy, last, EPOLLIN | EPOLLOUT))
        return; // the loop is gone, and nothing can be sent later
}

// Requests that are lost with the connection, in their order; those not sent yet may stay.
inline std::vector<callback<void(response)>> link::take_calls(bool keep_unsent)
{
    std::map<std::uint32_t, call> kept;
    for (const auto &unsent : waiting) {
        if (keep_unsent && unsent.id != 0)
            kept.insert(calls.extract(unsent.id));
    }
    std::vector<callback<void(response)>> lost;
    for (auto &entry : calls) {
        stop_timer(entry.second.timer);
        lost.push_back(std::move(entry.second.handler));
    }
    calls = std::move(kept);
    if (!keep_unsent) {
        waiting.clear();
        waiting_size = 0;
    }
    return lost;
}

// Run a task now, inside the loop, or in its next round, when the application is the caller.
template <class Task> void link::settle(bool now, Task task)
{
    if (now)
        task();
    else
        loop->post(std::move(task));
}

inline void link::lose(std::vector<callback<void(response)>> handlers, bool now)
{
    for (auto &handler : handlers) {
        settle(now, [owner = alive, handler = std::move(handler)] {
            if (*owner)
                handler({outcome::lost, {std::errc::connection_reset, "the link was lost"}});
        });
    }
}

inline void link::start_heartbeat(milliseconds wait)
{
    if (opts.heartbeat.count() > 0)
        heartbeat_timer = start_timer(wait, heartbeat_due, this);
}

inline void link::heartbeat_due(std::intptr_t self, std::intptr_t)
{
    const auto keep = reinterpret_cast<link *>(self)->shared_from_this();
    keep->heartbeat_timer = -1;
    const auto due = keep->heard + keep->opts.heartbeat * (keep->missed + 1);
    const auto early = std::chrono::ceil<milliseconds>(due - clock::now());
    if (early.count() > 0) {
        keep->start_heartbeat(early); // something has been received meanwhile
    } else if (++keep->missed > keep->opts.missed_heartbeats) {
        keep->end(reason::lost, "heartbeats were not answered", true);
    } else {
        keep->channel->hbSequence++;
        keep->append_heartbeat(c::build_heartbeat_msg);
        keep->start_heartbeat(keep->opts.heartbeat);
    }
}

// ---- link: output

inline status link::check(std::string_view text, bool plain)
{
    if (text.size() > max_payload)
        return {std::errc::message_size, "the payload is too long"};
    if (plain && text.find(reserved_text) != std::string_view::npos)
        return {std::errc::invalid_argument, "the payload contains \"velun_tolvane_\", which "
                                             "only a pipelined link can carry"};
    if (queued() < opts.max_queued)
        return {};
    stalled = true;
    touch();
    return {std::errc::no_buffer_space, "the queue is full, try again later"};
}

// Have the loop flush this link before it waits.
inline void link::touch()
{
    if (std::exchange(dirty, true))
        return;
    loop->unsent.push_back(shared_from_this());
    loop->work_added();
}

// Queue one frame: the message's head, a mark, and the payload.
inline void link::append(std::string_view head, std::string_view text, const mark *to)
{
    const std::size_t mark_size = to != nullptr ? mark::size : 0;
    const auto length = htonl(std::uint32_t(head.size() + mark_size + text.size()));
    char start[frame_header] = "TCP_WATER_MARK";
    std::memcpy(start + frame_header - sizeof(length), &length, sizeof(length));
    char marked[mark::size];
    if (to != nullptr)
        to->write(marked);
    if (out.bytes.empty())
        out.bytes.reserve(256 + text.size());
    out.append(start, sizeof(start));
    out.append(head.data(), head.size());
    out.append(marked, mark_size);
    out.append(text.data(), text.size());
    if (out.size() >= flush_size)
        write_out();
    touch();
}

inline void link::append_request(std::string_view text, const mark *to)
{
    const int length = c::pack_outgoing_rqst(channel, "", 0); // only the head
    append({channel->msgBuf, std::size_t(length)}, text, to);
}

inline void link::append_heartbeat(int (*build)(tv_channel *, char *, int))
{
    char message[512];
    if (queued() < opts.max_queued) // else the other end does not read, and would not see it
        append({message, std::size_t(build(channel, message, sizeof(message)))}, {});
}

inline void link::write_out()
{
    if (out.size() == 0 || !failure.empty())
        return;
    const auto sent = send(fd, out.data(), out.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent > 0)
        out.consume(std::size_t(sent));
    else if (sent < 0 && !try_later(errno))
        fail(error_text(errno));
}

// The link ends in the loop's next turn, not inside the call that found it broken.
inline void link::fail(std::string why)
{
    failure = std::move(why);
    out.clear();
    if (!std::exchange(unread, true))
        loop->unread.push_back(shared_from_this());
    loop->work_added();
}

inline void link::flush()
{
    dirty = false;
    if (id != -1) {
        write_out();
        const bool blocked = out.size() > 0;
        if (blocked != writing)
            loop->change(fd, blocked ? EPOLLIN | EPOLLOUT : EPOLLIN);
        writing = blocked;
        stalled = stalled || blocked;
    }
    if (stalled && queued() == 0) {
        stalled = false;
        drained();
    }
}

inline bool link::may_send(std::uint32_t request_id) const
{
    return established && (pipelined || request_id == 0 || plain_id == 0);
}

inline void link::transmit(std::uint32_t request_id, std::string_view text)
{
    const mark to{request_id != 0 ? '?' : '!', request_id};
    append_request(text, pipelined ? &to : nullptr);
    if (!pipelined && request_id != 0)
        plain_id = request_id;
}

inline void link::submit(std::uint32_t request_id, std::string_view text)
{
    if (waiting.empty() && may_send(request_id))
        return transmit(request_id, text);
    waiting.push_back({request_id, std::string(text)});
    waiting_size += text.size();
}

// Send what waits and may go now.
inline void link::pump()
{
    while (!waiting.empty() && may_send(waiting.front().id)) {
        const auto next = std::move(waiting.front());
        waiting.pop_front();
        waiting_size -= next.text.size();
        transmit(next.id, next.text);
    }
}

inline status link::tell(std::string_view text)
{
    const status result = check(text, !pipelined);
    if (result)
        submit(0, text);
    return result;
}

inline void link::ask(std::string_view text, milliseconds timeout, callback<void(response)> handler)
{
    status refused = check(text, !pipelined);
    if (refused) {
        do
            last_id++;
        while (last_id == 0 || calls.count(last_id) != 0);
        const int timer = start_timer(timeout, call_expired, this, last_id);
        calls[last_id] = {std::move(handler), timer};
        return submit(last_id, text);
    }
    settle(false, [owner = alive, handler = std::move(handler), refused] {
        if (*owner)
            handler({outcome::refused, refused});
    });
}

inline status link::reply(int connection, const mark &to, std::string_view text)
{
    if (connection != id || id == -1)
        return {std::errc::not_connected, "the link of the request is gone"};
    const bool plain = to.kind != '?';
    const status result = check(text, plain);
    if (!result)
        return result;
    if (!plain) {
        const mark answer{'=', to.id};
        append_request(text, &answer);
        return result;
    }
    const int length = c::pack_outgoing_resp(channel, "", 0);
    append({channel->msgBuf, std::size_t(length)}, text);
    decline(connection, to);
    return result;
}

// End a request's service without a reply. The next one of a plain link is served in the loop.
inline void link::decline(int connection, const mark &to)
{
    if (connection != id || id == -1)
        return;
    const mark answer{'-', to.id};
    if (to.kind == '?' && queued() < opts.max_queued)
        append_request({}, &answer);
    if (to.kind == '?')
        return;
    serving_plain = false;
    if (!backlog.empty() && !std::exchange(unread, true)) {
        loop->unread.push_back(shared_from_this());
        loop->work_added();
    }
}

// ---- link: input

// The length of the next message: 0 when it is not complete, -1 when what arrived is no message.
inline long link::next_frame()
{
    if (in.size() < frame_header)
        return 0;
    std::uint32_t length;
    std::memcpy(&length, in.data() + frame_header - sizeof(length), sizeof(length));
    length = ntohl(length);
    if (std::string_view(in.data(), watermark.size()) != watermark || length == 0 ||
        length > TV_MSG_BUF_SIZE)
        return -1;
    return in.size() - frame_header < length ? 0 : long(length);
}

inline bool link::pending()
{
    return (!serving_plain && !backlog.empty()) || next_frame() > 0;
}

inline void link::receive()
{
    const auto got = recv(fd, loop->scratch, sizeof(loop->scratch), MSG_DONTWAIT);
    if (got > 0)
        in.append(loop->scratch, std::size_t(got));
    else if (got == 0)
        failure = "the other end closed the link";
    else if (!try_later(errno))
        failure = error_text(errno);
}

inline void link::ready(unsigned events)
{
    const auto keep = shared_from_this();
    const int connection = id;
    unread = false;
    if (events & EPOLLOUT)
        flush();
    if (id == -1 || id != connection)
        return;
    if (!pending())
        receive();
    for (int served = 0; served < served_per_turn && serve_one(); served++) {
        if (id != connection)
            return;
    }
    if (pending() && !std::exchange(unread, true))
        loop->unread.push_back(keep);
    else if (next_frame() < 0 || backlog_size > opts.max_queued)
        end(reason::lost, "the other end broke the protocol", true);
    else if (!failure.empty() && !pending())
        end(reason::lost, std::string(failure), true);
}

inline bool link::serve_one()
{
    if (!serving_plain && !backlog.empty()) {
        auto next = std::move(backlog.front());
        backlog.pop_front();
        backlog_size -= next.first.size();
        serve_plain(std::move(next.first), next.second);
        return true;
    }
    const long length = next_frame();
    if (length <= 0)
        return false;
    std::string body(in.data() + frame_header, std::size_t(length));
    in.consume(frame_header + std::size_t(length));
    handle(std::move(body));
    return true;
}

inline void link::handle(std::string body)
{
    const char *message = body.data();
    if (c::tv_msg_received(channel, c::get_msg_sequence(message)) != 0)
        return;
    heard = loop->now;
    missed = channel->hbSequence = 0;
    const int type = c::get_msg_type(message);
    int length = 0;
    const char *payload = nullptr;
    if (type == TV_MSG_REQUEST || type == TV_MSG_REPLY)
        payload = c::get_msg_payload(message, int(body.size()), &length);
    const std::size_t start = payload != nullptr ? std::size_t(payload - message) : body.size();
    accepted();
    if (type == TV_MSG_REQUEST && payload != nullptr)
        request_received(std::move(body), start);
    else if (type == TV_MSG_REPLY)
        reply_received(std::move(body), start);
    else if (type == TV_MSG_HEARTBEAT)
        append_heartbeat(c::build_heartbeat_ack_msg);
    else if (type == TV_MSG_HEARTBEAT_ACK)
        acknowledged();
    else if (type == TV_MSG_LOGIN)
        login(body);
    else if (type == TV_MSG_LOGOUT)
        logout();
}

// A reply, also one too late, ends the plain link's wait.
inline void link::reply_received(std::string body, std::size_t start)
{
    if (plain_id == 0)
        return;
    stop_timer(late_timer);
    const int connection = id;
    finish(std::exchange(plain_id, 0), outcome::replied, {}, std::move(body), start);
    if (id == connection)
        pump();
}

// Call the handler of a request, unless it has been called.
inline void link::finish(std::uint32_t request_id, outcome what, status why, std::string body,
                         std::size_t start)
{
    const auto found = calls.find(request_id);
    if (found == calls.end())
        return;
    const auto handler = std::move(found->second.handler);
    stop_timer(found->second.timer);
    calls.erase(found);
    handler({what, why, std::move(body), start});
}

inline void link::call_expired(std::intptr_t self, std::intptr_t request_id)
{
    const auto keep = reinterpret_cast<link *>(self)->shared_from_this();
    keep->timed_out(static_cast<std::uint32_t>(request_id));
}

inline void link::timed_out(std::uint32_t request_id)
{
    const auto unsent = std::find_if(waiting.begin(), waiting.end(),
                                     [=](auto &entry) { return entry.id == request_id; });
    if (unsent != waiting.end()) {
        waiting_size -= unsent->text.size();
        waiting.erase(unsent);
        touch();
    }
    if (request_id == plain_id) {
        const auto give_up = [](std::intptr_t self, std::intptr_t) {
            const auto keep = reinterpret_cast<link *>(self)->shared_from_this();
            keep->end(reason::lost, "a reply is overdue", true);
        };
        late_timer = start_timer(opts.late_reply, give_up, this);
    }
    finish(request_id, outcome::timed_out, {std::errc::timed_out, "no reply in time"});
}

}

// ---- peer ----------------------------------------------------------------------------------

namespace detail
{

struct server_state;

// The server's end of one connection.
struct pair final : link {
    using link::link;
    void end(reason why, const std::string &text, bool now) override;
    void arrived(request received) override;
    void drained() override;
    void login(std::string &body) override;
    void logout() override;
    bool offered_pipelining(const std::string &body) const;

    std::shared_ptr<server_state> server;
    std::string url; // empty before the login
    std::shared_ptr<void> data;
    const void *data_type = nullptr;
};

template <class T> constexpr char type_tag = 0; // its address stands for the type

}

/* One client of a server: a handle to copy and keep. It turns false when the client's connection
 * ends, and stays false: a client that connects again is another peer. Handles of the same
 * connection compare equal. */
class peer
{
public:
    /* A handle of nobody. */
    peer() = default;
    /* True while the client is connected. */
    explicit operator bool() const
    {
        return link != nullptr && link->id != -1;
    }
    /* The name that the client logged in with; empty before. Valid as long as a handle. */
    const std::string &url() const
    {
        static const std::string none;
        return link != nullptr ? link->url : none;
    }
    /* The bytes that wait to be sent to the client. */
    std::size_t queued() const
    {
        return *this ? link->queued() : 0;
    }
    /* Send the client a request; see client::request. When the client has gone, the handler gets
     * outcome::lost. */
    void request(std::string_view text, milliseconds timeout, callback<void(response)> handler)
    {
        if (*this)
            return link->ask(text, timeout, std::move(handler));
        if (detail::the_loop != nullptr)
            detail::the_loop->post([handler = std::move(handler)] {
                handler({outcome::lost, {std::errc::not_connected, "the client has gone"}});
            });
    }
    /* Send the client a one-way request; see client::tell. Refused also when it has gone. */
    status tell(std::string_view text)
    {
        if (!*this)
            return {std::errc::not_connected, "the client has gone"};
        return link->tell(text);
    }
    /* End the connection once what is queued is sent, at most connect_timeout later; the handle
     * turns false now. Requests under way get outcome::lost, and on_logout gets reason::closed. */
    void close()
    {
        if (*this)
            link->end(reason::closed, {}, false);
    }
    /* The application's own data of this client, made by T() on first use and destroyed after
     * on_logout has returned. Null then, for a handle of nobody, and for a type other than the
     * first one. */
    template <class T> T *data()
    {
        if (*this && link->data == nullptr) {
            link->data = std::make_shared<T>();
            link->data_type = &detail::type_tag<T>;
        }
        const bool same = link != nullptr && link->data_type == &detail::type_tag<T>;
        return same ? static_cast<T *>(link->data.get()) : nullptr;
    }
    friend bool operator==(const peer &a, const peer &b)
    {
        return a.link == b.link;
    }
    friend bool operator!=(const peer &a, const peer &b)
    {
        return a.link != b.link;
    }

private:
    friend class request;
    friend class server;
    friend struct detail::pair;
    friend struct detail::server_state;
    explicit peer(std::shared_ptr<detail::pair> owner) : link(std::move(owner))
    {
    }
    std::shared_ptr<detail::pair> link;
};

// ---- request -------------------------------------------------------------------------------

/* One received request; move-only. Answer it now, or keep it and answer later: it may outlive its
 * link, the client or server, and the loop. Destroyed without an answer it counts as declined. On a
 * plain link, the next request of the same peer is served when this one is answered or declined. */
class request
{
public:
    /* No request. */
    request() = default;
    request(request &&other) noexcept
    {
        *this = std::move(other);
    }
    request &operator=(request &&other) noexcept
    {
        decline();
        link = std::move(other.link);
        to = other.to;
        connection = other.connection;
        body = std::move(other.body);
        start = std::exchange(other.start, 0);
        sender = std::move(other.sender);
        other.body.clear();
        return *this;
    }
    ~request()
    {
        decline();
    }
    /* What the other end sent; never null, followed by a 0x00, valid as long as the request. */
    std::string_view payload() const
    {
        return {body.data() + start, body.size() - start};
    }
    /* The client that sent it. In a client, where the server did: a handle of nobody. */
    peer from() const
    {
        return peer(sender);
    }
    /* True until it is answered or declined; false from the start for a one-way request on a
     * pipelined link. A plain link does not tell, and a peer that awaits no reply takes one for
     * the reply to its next request: do not answer there what the peer only tells. */
    bool wants_reply() const
    {
        return link != nullptr;
    }
    /* Answer the request. Refused: it is answered already or wants no reply, the link has gone,
     * the payload is too long or not allowed on a plain link, or the queue is full. After a
     * refusal it may still be answered. */
    status reply(std::string_view text)
    {
        if (link == nullptr)
            return {std::errc::invalid_argument, "no reply is awaited"};
        const status result = link->reply(connection, to, text);
        if (result)
            link = nullptr;
        return result;
    }
    /* Let the other end know that there will be no reply. On a plain link it finds out when its
     * timeout has passed. */
    void decline()
    {
        if (const auto owner = std::move(link))
            owner->decline(connection, to);
        link = nullptr;
    }

private:
    friend struct detail::link;
    friend struct detail::pair;
    std::shared_ptr<detail::link> link; // null: nothing to answer
    std::shared_ptr<detail::pair> sender;
    detail::mark to;
    int connection = -1;
    std::string body; // the message as received, for the payload at its end
    std::size_t start = 0;
};

namespace detail
{

inline void link::request_received(std::string body, std::size_t start)
{
    mark found;
    if (!marks || !found.read(std::string_view(body).substr(start)))
        return plain_request(std::move(body), start);
    start += mark::size;
    if (found.kind == '=' && found.id == 0)
        return offered();
    if (found.kind == '=')
        return finish(found.id, outcome::replied, {}, std::move(body), start);
    if (found.kind == '-')
        return finish(found.id, outcome::declined,
                      {std::errc::operation_canceled, "the other end declined to reply"});
    request received;
    if (found.kind == '?')
        received.link = shared_from_this();
    received.to = found;
    received.connection = id;
    received.body = std::move(body);
    received.start = start;
    arrived(std::move(received));
}

inline void link::plain_request(std::string body, std::size_t start)
{
    if (!serving_plain)
        return serve_plain(std::move(body), start);
    backlog_size += body.size();
    backlog.emplace_back(std::move(body), start);
}

inline void link::serve_plain(std::string body, std::size_t start)
{
    request received;
    serving_plain = true;
    received.link = shared_from_this();
    received.connection = id;
    received.body = std::move(body);
    received.start = start;
    arrived(std::move(received));
}

}

// ---- client --------------------------------------------------------------------------------

namespace detail
{

struct client_state final : link {
    client_state(std::shared_ptr<loop_state> owner, const options &settings, endpoint to,
                 endpoint self)
        : link(std::move(owner), settings, std::make_shared<bool>(true)), server(std::move(to)),
          name(std::move(self))
    {
    }
    ~client_state() override
    {
        stop_timer(step_timer);
    }
    void end(reason why, const std::string &text, bool now) override;
    void ready(unsigned events) override;
    void arrived(request received) override
    {
        received_handler(std::move(received));
    }
    void drained() override
    {
        drained_handler();
    }
    void accepted() override
    {
        backoff = first_backoff;
    }
    void acknowledged() override
    {
        establish(false);
    }
    void offered() override
    {
        establish(true);
    }

    status connect();
    void disconnect();
    void wait_for(milliseconds time);
    void step();
    void attempt();
    const char *start_connecting();
    void finish_connecting();
    bool connected_to_itself() const;
    void establish(bool both_layers);

    static constexpr milliseconds first_backoff{100}, last_backoff{5000};
    const endpoint server, name;
    bool active = false, connecting = false;
    int step_timer = -1; // until the next attempt, or the end of the attempt under way
    milliseconds backoff = first_backoff;
    std::minstd_rand random{std::uint32_t(clock::now().time_since_epoch().count() ^ getpid())};
    callback<void()> connected_handler, drained_handler;
    callback<void(std::string_view)> lost_handler;
    callback<void(request)> received_handler;
};

inline bool is_address(const std::string &text)
{
    in_addr address;
    return text.find('\0') == std::string::npos && inet_pton(AF_INET, text.c_str(), &address) == 1;
}

inline status client_state::connect()
{
    if (!is_address(server.host) || server.port == 0)
        return {std::errc::invalid_argument, "the server's address is no dotted IPv4 text, or its "
                                             "port is 0"};
    const std::string url = name.url();
    const auto control = [](unsigned char letter) { return letter < ' '; };
    if (name.host.empty() || url.size() >= TV_URL_SIZE ||
        std::any_of(url.begin(), url.end(), control))
        return {std::errc::invalid_argument, "the client's name does not fit a URL"};
    if (loop->epoll < 0)
        return {std::errc::bad_file_descriptor, "the loop is closed"};
    if (!std::exchange(active, true)) {
        backoff = first_backoff;
        wait_for(milliseconds(1));
    }
    return {};
}

inline void client_state::wait_for(milliseconds time)
{
    const auto passed = [](std::intptr_t self, std::intptr_t) {
        const auto keep = reinterpret_cast<link *>(self)->shared_from_this();
        static_cast<client_state *>(keep.get())->step();
    };
    stop_timer(step_timer);
    step_timer = start_timer(time, passed, static_cast<link *>(this));
}

inline void client_state::step()
{
    step_timer = -1;
    if (id == -1)
        attempt();
    else
        end(reason::lost, "the server did not answer the login in time", true);
}

// Begin a connection on a fresh channel: an old one would go on counting messages.
inline void client_state::attempt()
{
    wait_for(opts.connect_timeout);
    if (const char *failed = start_connecting())
        end(reason::lost, std::string(failed) + ": " + error_text(errno), true);
}

// Returns null, or what failed, with errno.
inline const char *client_state::start_connecting()
{
    tv_client_addr address{};
    server.host.copy(address.serverIp, sizeof(address.serverIp) - 1);
    address.serverPort = server.port;
    tv_channel *record = tv_get_channel(tv_create_client_channel(&address));
    if (record == nullptr)
        return "no memory for a channel";
    name.url().copy(record->url, sizeof(record->url));
    record->url[name.url().size()] = '\0';
    record->clientSocket->fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    open(record, record->clientSocket->fd);
    if (fd < 0)
        return "no socket";
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(server.port);
    inet_pton(AF_INET, server.host.c_str(), &to.sin_addr);
    if (::connect(fd, reinterpret_cast<const sockaddr *>(&to), sizeof(to)) != 0 &&
        errno != EINPROGRESS)
        return "connecting failed";
    connecting = true;
    return loop->watch(fd, shared_from_this(), EPOLLOUT) ? nullptr : "the loop cannot watch";
}

inline void client_state::ready(unsigned events)
{
    if (!connecting)
        link::ready(events);
    else if (events != 0)
        finish_connecting();
}

// While no server listens, a client on the same host that keeps trying may get the server's port
// as its own one day. TCP connects it to itself then.
inline bool client_state::connected_to_itself() const
{
    sockaddr_in own{}, other{};
    socklen_t own_size = sizeof(own), other_size = sizeof(other);
    return getsockname(fd, reinterpret_cast<sockaddr *>(&own), &own_size) == 0 &&
           getpeername(fd, reinterpret_cast<sockaddr *>(&other), &other_size) == 0 &&
           own.sin_port == other.sin_port && own.sin_addr.s_addr == other.sin_addr.s_addr;
}

// TCP has connected, or has failed to. Log in, and send a heartbeat behind the login: a server of
// this layer answers the login first, any other one answers the heartbeat only. Requests wait for
// that, so none is sent to a server that has not accepted the connection.
inline void client_state::finish_connecting()
{
    int error = 0;
    socklen_t size = sizeof(error);
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) != 0)
        error = errno;
    if (error != 0)
        return end(reason::lost, "connecting failed: " + error_text(error), true);
    if (connected_to_itself())
        return end(reason::lost, "connecting failed: reached itself, no server listens", true);
    connecting = false;
    marks = opts.pipelined;
    loop->change(fd, EPOLLIN);
    const int length = c::build_login_msg(channel, channel->url);
    append({channel->msgBuf, std::size_t(length)}, marks ? pipelined_offer : std::string_view());
    append_heartbeat(c::build_heartbeat_msg);
}

inline void client_state::establish(bool both_layers)
{
    if (std::exchange(established, true))
        return;
    pipelined = marks = both_layers;
    stop_timer(step_timer);
    start_heartbeat(opts.heartbeat);
    pump();
    connected_handler();
}

// A link was lost, or an attempt failed.
inline void client_state::end(reason, const std::string &text, bool now)
{
    if (id == -1 && !active)
        return;
    const auto keep = shared_from_this();
    connecting = false;
    active = opts.reconnect;
    stop_timer(step_timer);
    shut();
    if (active) {
        const auto half = backoff.count() / 2;
        wait_for(milliseconds(half + milliseconds::rep(random()) % (half + 1)));
        backoff = std::min(backoff * 2, last_backoff);
    }
    lose(take_calls(active), now);
    if (*alive)
        lost_handler(text);
}

inline void client_state::disconnect()
{
    stop_timer(step_timer);
    active = false;
    if (id != -1 && !std::exchange(connecting, false)) {
        const int length = c::build_logout_msg(channel, channel->url);
        append({channel->msgBuf, std::size_t(length)}, {});
        leave();
    } else if (id != -1) {
        shut();
    }
    lose(take_calls(false), false);
}

}

/* A client: one link to a server, kept up until disconnect(). */
class client
{
public:
    /* Set a client up; connect() starts it.
     *
     *   loop    the process's loop
     *   server  where the server listens
     *   name    what this client logs in as; a newer client of the same name replaces an older one
     */
    client(loop &loop, endpoint server, endpoint name, options options = {})
        : state(std::make_shared<detail::client_state>(loop.state, options, std::move(server),
                                                       std::move(name)))
    {
    }
    /* Disconnect. Handlers of requests under way are destroyed without a call. */
    ~client()
    {
        *state->alive = false;
        state->disconnect();
    }
    client(const client &) = delete;
    client &operator=(const client &) = delete;

    /* Start connecting, and keep connecting until disconnect(), or, with options::reconnect off,
     * until on_lost. Refused on bad arguments only: everything else is told by on_connected and
     * on_lost. Does nothing while it is under way. */
    status connect()
    {
        return state->connect();
    }
    /* Log out and end the connection once what is queued is sent, at most connect_timeout later.
     * Requests under way or not sent yet get outcome::lost; on_lost is not called. */
    void disconnect()
    {
        state->disconnect();
    }
    /* Send the server a request. While there is no connection it waits for one.
     *
     *   text     at most max_payload bytes of any kind; copied. On a plain link, and while there is
     *            no connection, it must not contain "velun_tolvane_"
     *   timeout  for the reply, from now on, waiting included
     *   handler  runs exactly once, unless the client is destroyed before
     *
     * A refused request's handler gets outcome::refused, and response::status() says why. On a plain
     * link the next request after a timeout waits until the late reply has come; when it has not
     * come options::late_reply later, the link is closed. */
    void request(std::string_view text, milliseconds timeout, callback<void(response)> handler)
    {
        state->ask(text, timeout, std::move(handler));
    }
    /* Send the server a one-way request, which gets no reply. While there is no connection it waits
     * for one. Success says that it is queued: a link that is lost loses what it had queued.
     * Refused: text as in request() is too long or not allowed, or the queue is full. A server on
     * the C interface must not answer it. */
    status tell(std::string_view text)
    {
        return state->tell(text);
    }
    /* The bytes that wait to be sent. */
    std::size_t queued() const
    {
        return state->queued();
    }
    /* Set what runs when the server has read the login. A server that is full has not. */
    void on_connected(callback<void()> handler)
    {
        state->connected_handler = std::move(handler);
    }
    /* Set what runs when the link is lost, or an attempt to connect has failed, with the reason as
     * a text that is valid until the handler returns. The next attempt follows by itself, unless
     * options::reconnect is off. Requests not sent yet wait for it; those sent have got
     * outcome::lost. */
    void on_lost(callback<void(std::string_view why)> handler)
    {
        state->lost_handler = std::move(handler);
    }
    /* Set what runs when the queue is empty again, after it was full or the system had not taken
     * all of it at once. */
    void on_drained(callback<void()> handler)
    {
        state->drained_handler = std::move(handler);
    }
    /* Set what runs with each request of the server. Without one, requests are declined. */
    void on_request(callback<void(tolvane::request)> handler)
    {
        state->received_handler = std::move(handler);
    }

private:
    std::shared_ptr<detail::client_state> state;
};

// ---- server --------------------------------------------------------------------------------

namespace detail
{

struct server_state final : watcher, std::enable_shared_from_this<server_state> {
    server_state(std::shared_ptr<loop_state> owner, const options &settings)
        : loop(std::move(owner)), opts(settings)
    {
    }
    ~server_state() override
    {
        stop_timer(pause_timer);
    }
    void ready(unsigned) override;
    status listen(const std::string &address, std::uint16_t at);
    void stop();
    bool accept_one();
    void pause(bool for_a_while);
    void resume();
    std::vector<peer> peers();

    const std::shared_ptr<loop_state> loop;
    const options opts;
    const std::shared_ptr<bool> alive = std::make_shared<bool>(true);
    std::map<int, std::shared_ptr<pair>> pairs; // by channel id: in order of acceptance
    int fd = -1, pause_timer = -1;
    bool accepting = false;
    std::uint16_t port = 0;
    callback<void(peer)> login_handler, drained_handler;
    callback<void(peer, reason)> logout_handler;
    callback<void(request)> received_handler;
};

inline status server_state::listen(const std::string &address, std::uint16_t at)
{
    if (!is_address(address))
        return {std::errc::invalid_argument, "the address is no dotted IPv4 text"};
    if (tv_service_server.serverChannel != nullptr)
        return {std::errc::device_or_resource_busy, "a server is running in this process"};
    errno = 0;
    if (tv_start_server(address.c_str(), at) == -1)
        return {errno != 0 ? std::errc(errno) : std::errc::address_not_available,
                "the address cannot be listened on"};
    fd = tv_get_server_polling_fd();
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK); // the client may be gone when accepted
    sockaddr_in own{};
    socklen_t size = sizeof(own);
    getsockname(fd, reinterpret_cast<sockaddr *>(&own), &size);
    port = ntohs(own.sin_port);
    const status watched = loop->watch(fd, shared_from_this());
    accepting = bool(watched);
    if (!accepting)
        stop();
    return watched;
}

inline void server_state::stop()
{
    if (fd == -1)
        return;
    pause(false);
    stop_timer(pause_timer);
    fd = -1;
    port = 0;
    while (!pairs.empty())
        std::shared_ptr<pair>(pairs.begin()->second)->end(reason::closed, {}, false);
    tv_stop_server();
}

inline void server_state::ready(unsigned)
{
    const auto keep = shared_from_this();
    for (int count = 0; count < served_per_turn && accepting && accept_one(); count++) {
    }
}

inline void server_state::pause(bool for_a_while)
{
    const auto passed = [](std::intptr_t self, std::intptr_t) {
        auto *server = reinterpret_cast<server_state *>(self);
        server->pause_timer = -1;
        server->resume();
    };
    loop->unwatch(fd);
    accepting = false;
    if (for_a_while)
        pause_timer = start_timer(milliseconds(100), passed, this);
}

inline void server_state::resume()
{
    if (fd == -1 || accepting || pause_timer != -1 || pairs.size() >= opts.max_clients)
        return;
    accepting = bool(loop->watch(fd, shared_from_this()));
    if (!accepting)
        pause(true);
}

// A full server leaves clients in the system's backlog; without descriptors or memory it tries
// again after a while.
inline bool server_state::accept_one()
{
    if (pairs.size() >= opts.max_clients) {
        pause(false);
        return false;
    }
    const int accepted = accept4(fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (accepted < 0) {
        if (errno != EAGAIN && errno != EINTR && errno != ECONNABORTED)
            pause(true);
        return false;
    }
    const int on = 1;
    setsockopt(accepted, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    if (c::create_pair_channel(accepted) != 0) {
        pause(true);
        return false;
    }
    const auto *newest = reinterpret_cast<const tv_channel_node *>(tv_service_server.pairList.prev);
    const auto link = std::make_shared<pair>(loop, opts, alive);
    link->server = shared_from_this();
    link->open(newest->channel, accepted);
    link->established = true;
    link->start_heartbeat(opts.heartbeat);
    pairs[link->id] = link;
    if (!loop->watch(accepted, link))
        link->end(reason::lost, {}, true);
    return true;
}

inline std::vector<peer> server_state::peers()
{
    std::vector<peer> all;
    for (const auto &entry : pairs) {
        if (!entry.second->url.empty())
            all.push_back(peer(entry.second));
    }
    return all;
}

// ---- what a server does with a link

inline void pair::arrived(request received)
{
    received.sender = std::static_pointer_cast<pair>(shared_from_this());
    server->received_handler(std::move(received));
}

inline void pair::drained()
{
    server->drained_handler(peer(std::static_pointer_cast<pair>(shared_from_this())));
}

// Whether a login's payload goes on behind the URL with the client's offer.
inline bool pair::offered_pipelining(const std::string &body) const
{
    const auto url_end = body.find('\0');
    return opts.pipelined && url_end != std::string::npos &&
           body.compare(url_end + 1, std::string::npos, pipelined_offer) == 0;
}

inline void pair::login(std::string &body)
{
    const auto self = std::static_pointer_cast<pair>(shared_from_this());
    const int connection = id;
    int length = 0;
    const char *name = c::get_msg_payload(body.data(), int(body.size()), &length);
    if (name == nullptr || *name == '\0')
        return;
    const tv_channel *older = c::get_channel_by_ip(&tv_service_server.pairList, name);
    const auto found =
        older != nullptr ? server->pairs.find(older->channelId) : server->pairs.end();
    if (found != server->pairs.end() && older != channel)
        std::shared_ptr<pair>(found->second)->end(reason::replaced, {}, true);
    char *message = static_cast<char *>(std::malloc(body.size() + 1)); // the library releases it
    if (id != connection || message == nullptr)
        return std::free(message);
    std::memcpy(message, body.c_str(), body.size() + 1);
    c::login_msg_received(channel, message);
    url = channel->url;
    if (offered_pipelining(body)) {
        const mark agreed{'=', 0};
        pipelined = marks = true;
        append_request({}, &agreed);
        pump();
    }
    server->login_handler(peer(self));
}

inline void pair::logout()
{
    end(reason::logged_out, {}, true);
}

inline void pair::end(reason why, const std::string &, bool now)
{
    if (id == -1)
        return;
    const auto self = std::static_pointer_cast<pair>(shared_from_this());
    server->pairs.erase(id);
    if (why == reason::closed)
        leave();
    else
        shut();
    server->resume();
    lose(take_calls(false), now);
    settle(now, [self, why] {
        if (*self->alive && !self->url.empty())
            self->server->logout_handler(peer(self), why);
        self->data = nullptr;
    });
}

}

/* A server: listens, and has a peer for each client. One at a time per process. */
class server
{
public:
    /* Set a server up; listen() starts it. The loop is the process's. */
    explicit server(loop &loop, options options = {})
        : state(std::make_shared<detail::server_state>(loop.state, options))
    {
    }
    /* Stop. Handlers of requests under way are destroyed without a call, and on_logout does not
     * run. */
    ~server()
    {
        *state->alive = false;
        state->stop();
    }
    server(const server &) = delete;
    server &operator=(const server &) = delete;

    /* Listen on a dotted IPv4 address, "0.0.0.0" for all, and a port, 0 for one that the system
     * chooses. Refused: another text, an address that cannot be listened on, or a server that runs
     * in this process already, on the C interface or on this one. */
    status listen(const std::string &address, std::uint16_t port)
    {
        return state->listen(address, port);
    }
    /* The port it listens on, or 0. */
    std::uint16_t port() const
    {
        return state->port;
    }
    /* Stop listening and close all peers, as peer::close() does. listen() may follow. */
    void stop()
    {
        state->stop();
    }
    /* The client that logged in with a URL, or a handle of nobody. */
    peer find(const std::string &url) const
    {
        for (const auto &one : state->peers()) {
            if (one.url() == url)
                return one;
        }
        return {};
    }
    /* All clients that have logged in, in the order in which they connected. */
    std::vector<peer> peers() const
    {
        return state->peers();
    }
    /* Send all clients that have logged in a one-way request. Returns how many it was queued for;
     * those that have gone, are full, or cannot take this payload are left out. */
    std::size_t broadcast(std::string_view text)
    {
        std::size_t count = 0;
        for (auto &one : state->peers())
            count += one.tell(text) ? 1 : 0;
        return count;
    }
    /* Set what runs when a client has logged in, or has taken another name. */
    void on_login(callback<void(peer)> handler)
    {
        state->login_handler = std::move(handler);
    }
    /* Set what runs when a client that had logged in has gone, for whatever reason. Its handle is
     * false by then; url() and data() still work. */
    void on_logout(callback<void(peer, reason)> handler)
    {
        state->logout_handler = std::move(handler);
    }
    /* Set what runs when a peer's queue is empty again, after it was full or the system had not
     * taken all of it at once. */
    void on_drained(callback<void(peer)> handler)
    {
        state->drained_handler = std::move(handler);
    }
    /* Set what runs with each request of a client, one that has not logged in included. Without
     * one, requests are declined. */
    void on_request(callback<void(tolvane::request)> handler)
    {
        state->received_handler = std::move(handler);
    }

private:
    std::shared_ptr<detail::server_state> state;
};

// ---- log -----------------------------------------------------------------------------------

namespace detail
{

// The library writes an entry in pieces, the last of which ends in two line feeds.
struct log_sink {
    static ssize_t write(void *self, const char *piece, std::size_t size)
    {
        auto *sink = static_cast<log_sink *>(self);
        sink->entry.append(piece, size);
        const std::size_t length = sink->entry.size();
        if (length >= 2 && sink->entry.compare(length - 2, 2, "\n\n") == 0) {
            const std::string complete = std::exchange(sink->entry, {});
            tv_set_log_fd(nullptr); // what the handler causes is not logged
            sink->handler(std::string_view(complete).substr(0, length - 2));
            if (sink->handler)
                tv_set_log_fd(sink->stream);
        }
        return static_cast<ssize_t>(size);
    }
    callback<void(std::string_view)> handler;
    std::string entry;
    FILE *stream = nullptr; // stays open: the library may be writing to it
};

}

/* Hand every entry of the library's log to a handler, for example for spdlog or journald: one
 * entry a call, without the line feeds at its end, valid until the handler returns. It runs inside
 * whatever logs; what it causes to be logged itself is not. An empty handler ends that. */
inline void log_to(callback<void(std::string_view entry)> handler)
{
    static detail::log_sink sink;
    sink.handler = std::move(handler);
    if (sink.stream == nullptr) {
        sink.stream = fopencookie(&sink, "w", {nullptr, detail::log_sink::write, nullptr, nullptr});
        if (sink.stream != nullptr)
            setvbuf(sink.stream, nullptr, _IONBF, 0);
    }
    tv_set_log_fd(sink.handler ? sink.stream : nullptr);
}

}

#endif
