// tolvane.hpp - clients and servers that never block: the C++17 layer over tolvane.h.
//
// A program needs one loop, and one or more clients or one server on it. Callbacks are lambdas;
// objects end with their destructors. Header-only and optional; links with libtolvane.so and
// libruvo_timer.so, and talks to programs on the C interface as well as to programs on this one.
//
//   loop      waits for descriptors, timers and posted work, and runs every callback
//   timer     runs a callback once or periodically
//   link      (internal) one connection: buffers, frames, heartbeats, requests under way
//   peer      a server's handle of one client; other_end is what it shares with a client
//   request   one received request, answered now or later
//   client    a link that connects, logs in and reconnects
//   server    a listening socket and a link per client
//
// Each part is built on those before it. Wire format, channel records, sequence numbers and timers
// are the library's; sockets are read and written here, so that no call waits for a peer.
//
// CONVENTIONS, true of every entry below unless it says otherwise
//
// Callbacks  run inside run() and run_once() only, log_to's excepted. A callback may call
//            anything, and may destroy or close any object, also the one that called it. An
//            exception that leaves a callback ends the program. The loop reports the end of a
//            link or a request; the call that caused it never does.
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

#if !defined(TOLVANE_H) && !defined(TOLVANE_APPLICATION_ONLY)
#define TOLVANE_APPLICATION_ONLY // no get_channel, log_file ... in the program's namespace
#endif
#include "ruvo_timer.h"
#include "tolvane.h"

#include <algorithm>
#include <any>
#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <map>
#include <memory>
#include <mutex>
#include <netinet/tcp.h>
#include <string>
#include <string_view>
#include <sys/epoll.h>
#include <sys/eventfd.h>
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

/** The longest request or reply in bytes. It fits one message whatever the link and the URL. */
constexpr std::size_t max_payload = 65398;

/** A callable of any kind; copies share it. An empty one does nothing. The callable may be
 * move-only, such as a lambda that holds a request: move it in. A callback that is destroyed or
 * replaced while it runs lives on until it returns. */
template <class Signature> class callback;
template <class... Args> class callback<void(Args...)>
{
public:
    callback(std::nullptr_t = nullptr) {}
    template <class F, class Target = std::decay_t<F>,
              class = std::enable_if_t<!std::is_same_v<Target, callback> &&
                                       std::is_invocable_v<Target &, Args...>>>
    callback(F &&function)
    {
        auto made = std::make_shared<Target>(std::forward<F>(function));
        // A pointer, a std::function and another callback may be empty.
        if constexpr (std::is_assignable_v<Target &, std::nullptr_t>) {
            if (!*made)
                return;
        }
        target = std::move(made);
        invoke = [](void *object, Args... args) {
            (*static_cast<Target *>(object))(std::forward<Args>(args)...);
        };
    }
    explicit operator bool() const { return target != nullptr; }
    void operator()(Args... args) const noexcept
    {
        if (const auto running = target)
            invoke(running.get(), std::forward<Args>(args)...);
    }

private:
    std::shared_ptr<void> target;
    void (*invoke)(void *, Args...) = nullptr;
};

/** How an operation went: true, or a code and a text that say why it was refused. A refused
 * operation has changed nothing. full() is true when the queue has no room now: try again after
 * on_drained. Any other refusal is final. what() is valid for ever. A refused message is lost
 * without a trace, so check every status; cast it to void where the loss does not matter. */
class [[nodiscard]] status
{
public:
    status() = default;
    status(std::errc error, const char *what) : code(error), text(what) {}
    explicit operator bool() const { return code == std::errc(); }
    bool full() const { return code == std::errc::no_buffer_space; }
    std::errc error() const { return code; }
    const char *what() const { return text; }

private:
    std::errc code{};
    const char *text = "success";
};

/** An address and a port. A server's host is a dotted IPv4 text; names are not resolved. A client's
 * own endpoint is the name that it logs in with, and need not be a real address. Its URL,
 * "tcp://host:port", has at most 63 characters, no control characters and no "velun_tolvane_". */
struct endpoint {
    std::string host;
    std::uint16_t port = 0;

    std::string url() const { return "tcp://" + host + ":" + std::to_string(port); }
};

/** Settings of a client, or of a server and all its clients' links. */
struct options {
    milliseconds heartbeat{5000};       ///< silence after which a heartbeat is sent; 0: never
    milliseconds connect_timeout{5000}; ///< for connecting with login, and for the last bytes
    milliseconds late_reply{1000};      ///< on a plain link, how long a reply may be overdue
    int missed_heartbeats = 2;          ///< unanswered ones before a link counts as lost
    bool pipelined = true;              ///< offer, or accept, a pipelined link
    bool reconnect = true;              ///< a client only: after a lost link, 100 ms to 5 s later
    std::size_t max_queued = 8 << 20;   ///< unsent bytes of a link that make it full
    std::size_t max_clients = 1000;     ///< a server only: further clients wait in the backlog
};

/** What became of a request: the other end replied, or it did not in time, the link was lost or
 * closed meanwhile, the other end declined to reply (pipelined links only), or the request was
 * refused here and not sent. */
enum class outcome { replied, timed_out, lost, declined, refused };

/** Why a client has gone: it logged out, a newer login took its name, its link was lost, it did not
 * answer heartbeats any more, or the server closed it. */
enum class reason { logged_out, replaced, lost, silent, closed };

class peer;
class request;

// The library's lower functions that the layer is built on. They are declared here because
// tolvane.h hides them from application programs; a second declaration does no harm.
namespace detail::c
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
int update_pair_channel(tv_channel *channel, const char *url);
tv_channel *get_channel_by_ip(tv_channel_list *head, const char *url);
}
}

namespace detail
{

using clock = std::chrono::steady_clock;

constexpr int served_per_turn = 64;       // messages, or accepted clients, before others' turn
constexpr std::size_t flush_size = 65536; // unsent bytes that are sent without waiting for more
constexpr std::size_t dropped_at_most = 8 << 20; // bytes that a closed link still takes
constexpr std::size_t frame_header = 36;         // watermark and length
constexpr std::string_view watermark{"TCP_WATER_MARK\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 32};
constexpr std::string_view reserved_text = "velun_tolvane_";     // begins the type of a message
constexpr std::string_view pipelined_offer{"\0pipelined\0", 11}; // follows the URL of a login

inline bool try_later(int error)
{
    return error == EAGAIN || error == EINTR || error == ENOBUFS || error == ENOMEM;
}

// The address of an endpoint; without a family when its host is not a dotted IPv4 text.
inline sockaddr_in socket_address(const endpoint &of)
{
    sockaddr_in address{};
    address.sin_port = htons(of.port);
    if (inet_pton(AF_INET, of.host.c_str(), &address.sin_addr) == 1)
        address.sin_family = AF_INET;
    return address;
}

inline int to_ms(milliseconds time)
{
    return static_cast<int>(std::clamp<milliseconds::rep>(time.count(), 1, INT_MAX));
}

// Bytes in order, behind others that are done with. An empty one holds no memory, so an idle link
// costs little.
struct buffer {
    std::size_t size() const { return bytes.size() - start; }
    const char *data() const { return bytes.data() + start; }
    std::string_view view() const { return {data(), size()}; }
    void consume(std::size_t count)
    {
        start += count;
        if (start == bytes.size())
            *this = buffer();
        else if (start > bytes.size() / 2)
            bytes.erase(0, std::exchange(start, 0));
    }
    std::string bytes;
    std::size_t start = 0;
};

struct closing_socket;
struct link;

}

// ---- loop ----------------------------------------------------------------------------------

/** The event loop, which runs the callbacks of all timers, clients and servers. A process has one:
 * every loop object stands for it, and it closes when the last one is destroyed. Clients, servers,
 * timers and requests may outlive it; without it they do nothing. */
class loop
{
public:
    /** Open the loop. When the system has no descriptor left it stays closed: run() returns false
     * at once, and watch() says why. */
    loop()
    {
        if (objects++ > 0)
            return;
        stopped = nested = false;
        alarm = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
        wakeup = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        epoll = epoll_create1(EPOLL_CLOEXEC);
        for (const int counter : {wakeup, alarm}) {
            if (!watch(counter, nullptr, EPOLLIN | EPOLLET)) // edges need no reading
                close();
        }
    }
    ~loop()
    {
        if (--objects == 0)
            close();
    }
    loop(loop &&) = delete;

    /** Serve until stop(). Returns true, or false when the loop is closed or waiting failed. */
    bool run()
    {
        bool open = true;
        while (open && !std::exchange(stopped, false))
            open = run_once(milliseconds(-1));
        return open;
    }
    /** Make run() return once the round in progress is complete; of nested ones, the innermost.
     * Without a run() in progress, the next one returns at once. */
    void stop() { stopped = true; }
    /** Wait for work for at most limit, 0: not at all, below 0: until there is some. Do it: read
     * what has arrived, run posted work, fire timers, send. May be called inside a callback.
     * Returns false when the loop is closed or waiting failed. */
    bool run_once(milliseconds limit)
    {
        events.resize(watched.size() + 1); // one round reports all, so it reads before timers fire
        waiting = true;
        const int count = epoll_wait(epoll, events.data(), int(events.size()), wait_time(limit));
        waiting = false;
        if (count < 0 && errno != EINTR)
            return false;
        // A callback may run a round of its own and serve what was reported to this one, which then
        // drops the rest: what is still ready is reported again.
        const unsigned mine = ++round;
        now = detail::clock::now();
        for (int i = 0; i < count && round == mine; i++)
            serve(events[std::size_t(i)].data.u64);
        run_posted();
        ruvo_fire_timer();
        run_posted();
        if (nested)
            nest();
        return true;
    }
    /** Run a callback whenever a descriptor of the program's is readable, or ready for other events
     * of epoll, until unwatch(). The descriptor stays the program's. A file, which is always ready,
     * has its callback run in every round. Refused: a descriptor that is watched already, or that
     * is not open. */
    static status watch(int fd, callback<void()> ready, unsigned wanted = EPOLLIN)
    {
        if (watched.count(fd) != 0)
            return {std::errc::file_exists, "the descriptor is watched already"};
        epoll_event event{wanted, {}};
        event.data.u64 = std::uint64_t(++generation) << 32 | std::uint32_t(fd);
        const bool refused = epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event) != 0;
        if (refused && errno != EPERM)
            return {std::errc(errno), std::strerror(errno)};
        watched[fd] = {event, std::move(ready)};
        if (refused) // a file
            post([event] { serve_file(event.data.u64); });
        return {};
    }
    /** Stop watching a descriptor, effective immediately; before it is closed. Does nothing when it
     * is not watched. */
    static void unwatch(int fd)
    {
        const auto found = watched.find(fd);
        if (found == watched.end())
            return;
        const auto released = std::move(found->second); // its destructor may call back
        watched.erase(found);
        epoll_ctl(epoll, EPOLL_CTL_DEL, fd, nullptr);
    }
    /** Run a callback in the loop's next round. Any thread may call this while there is a loop. */
    static void post(callback<void()> task)
    {
        const std::lock_guard<std::mutex> lock(guard);
        if (epoll >= 0)
            posted.push_back(std::move(task));
        wake();
    }
    /** Return a descriptor that is readable when run_once(0) has work, for nesting this loop in
     * another one: watch it there, and call run_once(0) when it is readable. It stays the loop's.
     * -1: the loop is closed. */
    int fd() const
    {
        if (!nested)
            nest();
        return epoll;
    }

private:
    friend class timer;
    friend struct detail::closing_socket;
    friend struct detail::link;
    struct watched_fd {
        epoll_event event; // with the descriptor and a number that no other registration has
        callback<void()> handler;
    };

    static void close()
    {
        std::unique_lock<std::mutex> lock(guard);
        for (int *fd : {&epoll, &wakeup, &alarm})
            ::close(std::exchange(*fd, -1));
        const auto dropped = std::exchange(posted, {}); // destructors may call back
        lock.unlock();
        const auto released = std::exchange(watched, {});
        round++;
    }
    static void change(int fd, unsigned wanted)
    {
        const auto found = watched.find(fd);
        if (found == watched.end())
            return;
        found->second.event.events = wanted;
        epoll_ctl(epoll, EPOLL_CTL_MOD, fd, &found->second.event);
    }
    // Something became due while the loop, or a loop around it, waits.
    static void wake()
    {
        if (waiting.exchange(false))
            eventfd_write(wakeup, 1);
    }
    static int wait_time(milliseconds limit)
    {
        const auto longest = std::clamp<milliseconds::rep>(limit.count(), -1, INT_MAX);
        const int due = ruvo_timer_get_expected_interval();
        const std::lock_guard<std::mutex> lock(guard);
        return posted.empty() ? int(std::min(unsigned(longest), unsigned(due))) : 0; // -1: largest
    }
    // False: the registration has ended, even if its descriptor's number is in use again.
    static bool serve(std::uint64_t key)
    {
        const auto found = watched.find(int(key));
        if (found == watched.end() || found->second.event.data.u64 != key)
            return false;
        found->second.handler();
        return true;
    }
    // Files, which epoll refuses, are ready in every round.
    static void serve_file(std::uint64_t key)
    {
        if (serve(key))
            post([key] { serve_file(key); });
    }
    static void run_posted()
    {
        std::unique_lock<std::mutex> lock(guard);
        for (std::size_t left = posted.size(); left > 0 && !posted.empty(); left--) {
            auto task = std::move(posted.front());
            posted.pop_front();
            lock.unlock();
            task();
            task = nullptr; // its destructor may post
            lock.lock();
        }
    }
    // Make the descriptor ready when run_once(0) has work, or will have.
    static void nest()
    {
        nested = waiting = true;
        const int due = wait_time(milliseconds(-1));
        itimerspec when{};
        when.it_value.tv_sec = std::max(due, 0) / 1000;
        when.it_value.tv_nsec = due < 0 ? 0 : std::max(due % 1000 * 1000000L, 1L);
        timerfd_settime(alarm, 0, &when, nullptr);
    }

    static inline int objects = 0, epoll = -1, wakeup = -1, alarm = -1;
    static inline bool stopped = false, nested = false; // nested: another loop waits for fd()
    static inline unsigned round = 0, generation = 0;
    static inline detail::clock::time_point now;
    static inline std::unordered_map<int, watched_fd> watched;
    static inline std::vector<epoll_event> events; // of the round in progress
    static inline std::deque<callback<void()>> posted;
    static inline std::mutex guard; // of posted
    static inline std::atomic<bool> waiting = false;
    static inline char received[detail::flush_size]; // what a link has just read
};

// ---- timer ---------------------------------------------------------------------------------

/** Runs a callback later; move-only. The destructor stops it: keep the object. */
class [[nodiscard]] timer
{
public:
    /** A timer that is not pending. */
    timer() = default;
    /** Run a callback once, after a time. */
    static timer once(milliseconds after, callback<void()> task)
    {
        return timer(after, std::move(task), false);
    }
    /** Run a callback after every period. One that is late by several periods runs once, and then
     * at the next multiple of the period. */
    static timer every(milliseconds period, callback<void()> task)
    {
        return timer(period, std::move(task), true);
    }
    /** Cancel the next run. Does nothing when the timer is not pending. */
    void stop() { state.reset(); }
    /** True while it is pending: false after stop(), once its only run has begun, and when the
     * timer library had no memory for it. */
    explicit operator bool() const { return state != nullptr && state->id != -1; }

private:
    struct started {
        ~started() { ruvo_stop_timer(id); }
        callback<void()> task;
        int id = -1;
    };

    timer(milliseconds time, callback<void()> task, bool periodic)
        : state(new started{std::move(task)})
    {
        const auto start = periodic ? ruvo_start_periodic_timer : ruvo_start_timer;
        const auto object = reinterpret_cast<std::intptr_t>(state.get());
        state->id = start(detail::to_ms(time), fire, object, periodic);
        loop::wake();
    }
    static void fire(std::intptr_t object, std::intptr_t periodic)
    {
        auto *fired = reinterpret_cast<started *>(object);
        if (periodic == 0)
            fired->id = -1;
        fired->task(); // may destroy the timer
    }
    std::unique_ptr<started> state;
};

// ---- link ----------------------------------------------------------------------------------

/** What a request's handler receives. True when there is a reply. */
class response
{
public:
    /** For the layer itself, and for tests of handlers. */
    response(tolvane::outcome what, tolvane::status why, detail::buffer reply = {})
        : result(what), cause(why), body(std::move(reply))
    {
    }
    /** What became of the request. */
    tolvane::outcome outcome() const { return result; }
    /** Success after a reply; else why there is none, above all why a request was refused. */
    tolvane::status status() const { return cause; }
    /** The reply, or nothing; never null, followed by a 0x00, valid as long as the response. */
    std::string_view payload() const { return body.view(); }
    explicit operator bool() const { return result == tolvane::outcome::replied; }

private:
    tolvane::outcome result;
    tolvane::status cause;
    detail::buffer body;
};

namespace detail
{

// What begins a one-way request on a pipelined link: a kind, a correlation ID in hexadecimal, 0x00.
struct mark {
    static constexpr std::size_t size = 10;
    static constexpr std::string_view kinds = "?=!-"; // request, reply, one-way, declined

    static mark read(std::string_view payload)
    {
        mark found;
        const char *end = payload.data() + size - 1;
        if (payload.size() >= size && *end == '\0' && kinds.find(payload[0]) != kinds.npos &&
            std::from_chars(payload.data() + 1, end, found.id, 16).ptr == end)
            found.kind = payload[0];
        return found;
    }
    void append_to(std::string &out) const
    {
        out += kind;
        for (int shift = 28; shift >= 0; shift -= 4)
            out += "0123456789abcdef"[id >> shift & 15];
        out += '\0';
    }
    char kind = '\0'; // '\0': no mark, as on a plain link
    std::uint32_t id = 0;
};

// Send what the system takes at once. Returns its size, or a negative error number.
inline ssize_t send_some(int fd, buffer &out)
{
    const auto sent = send(fd, out.data(), out.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent < 0 && try_later(errno))
        return 0;
    const ssize_t result = sent < 0 ? -errno : sent;
    out.consume(sent < 0 ? out.size() : std::size_t(sent));
    return result;
}

// Sends what a closed link still had queued, waits for the other end to close, and closes the
// descriptor. Closing it at once would reset the connection if anything arrived meanwhile, and the
// other end could lose what it has not read.
struct closing_socket {
    ~closing_socket()
    {
        read(); // what is unread would reset the connection
        close(fd);
    }
    ssize_t read() const { return recv(fd, loop::received, sizeof(loop::received), MSG_DONTWAIT); }
    void ready()
    {
        send_some(fd, out);
        if (out.size() == 0)
            shutdown(fd, SHUT_WR);
        const auto got = read();
        dropped += std::size_t(std::max<ssize_t>(got, 0));
        if (got == 0 || dropped > dropped_at_most || (got < 0 && !try_later(errno)))
            loop::unwatch(fd); // and this object with it
        else
            loop::change(fd, out.size() > 0 ? EPOLLIN | EPOLLOUT : EPOLLIN);
    }
    std::shared_ptr<void> place; // see connection
    int fd = -1;
    buffer out;
    timer limit;
    std::size_t dropped = 0; // bytes from a peer that goes on sending
};

// What a client or a server shares with its links. Destroying the client or server empties it.
struct handlers {
    handlers() = default;
    explicit handlers(const options &settings) : opts(settings), alive(true) {}
    options opts;
    bool alive = false;
    callback<void()> connected, drained; // a client's
    callback<void(std::string_view)> lost;
    callback<void(peer)> login, peer_drained; // a server's
    callback<void(peer, reason)> logout;
    callback<void(request)> request;
};

// What ends with a connection.
struct connection {
    tv_channel *channel = nullptr;
    int id = -1; // the channel's, which no other connection has; -1: closed
    int fd = -1;
    bool established = false, pipelined = false; // established: requests may be sent
    bool writing = false;                        // the system would not take all of the output
    buffer in, out;
    int send_error = 0;
    std::uint32_t waiting_for = 0; // plain link: the request that was sent, perhaps timed out
    bool serving = false;          // plain link: a received request is not answered yet
    buffer backlog;                // and the frames of others wait behind it
    timer heartbeat, overdue;
    clock::time_point heard = clock::now();
    std::shared_ptr<void> place; // a server's link: one of max_clients
};

// One end of a connection, and the requests under way on it. A client's outlives its connections.
//
// A plain link has one request under way, and serves one received request at a time. When the
// request times out, waiting_for stays: the next one is not sent before the late reply has come, so
// that this reply is not taken for the next one's. A pipelined link has no such limits.
struct link : connection, std::enable_shared_from_this<link> {
    struct call {
        callback<void(response)> handler;
        timer limit;
    };

    link(std::shared_ptr<handlers> by, bool many) : on(std::move(by)), reconnects(many) {}
    virtual ~link() = default;

    // What clients and servers do differently. end() closes the connection and posts the report.
    virtual void end(reason, std::string) {}
    virtual void handle_other(int, const buffer &) {} // login and what belongs to it

    // What an empty handle has: a link that is closed. It outlives all static objects.
    static std::shared_ptr<link> none()
    {
        static const auto &closed =
            *new auto(std::make_shared<link>(std::make_shared<handlers>(options()), false));
        return closed;
    }

    // ---- the connection

    status open(tv_channel *record, int descriptor, unsigned wanted)
    {
        const int yes = 1;
        channel = record;
        id = record->channelId;
        fd = descriptor;
        heard = clock::now();
        if (fd < 0 || setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof(yes)) != 0)
            return {std::errc(errno), std::strerror(errno)};
        return loop::watch(
            fd, [self = shared_from_this()] { self->turn(true); }, wanted);
    }
    void close_now()
    {
        if (id == -1)
            return;
        loop::unwatch(fd);
        tv_close_channel(id);
        static_cast<connection &>(*this) = connection();
    }
    void close_when_sent()
    {
        write_out();
        const int copy = fcntl(fd, F_DUPFD_CLOEXEC, 0); // the channel closes its own
        const std::shared_ptr<closing_socket> last(new closing_socket{
            std::move(place), copy, std::move(out),
            timer::once(on->opts.connect_timeout, [copy] { loop::unwatch(copy); })});
        close_now();
        const auto served = [last] { last->ready(); };
        (void)loop::watch(copy, served, EPOLLIN | EPOLLOUT); // refused: the rest is not sent
    }
    // Report a request's outcome in the loop, never from inside the application's call.
    void post_result(callback<void(response)> handler, outcome what, status why)
    {
        loop::post([on = on, handler = std::move(handler), what, why] {
            if (on->alive)
                handler({what, why});
        });
    }
    // Report the requests under way as lost; with keep_held, only those sent.
    void fail_calls(bool keep_held)
    {
        auto lost = std::exchange(calls, {});
        if (!keep_held) {
            held.clear();
            held_size = 0;
        }
        for (const auto &kept : held)
            calls.insert(lost.extract(std::uint32_t(kept.first)));
        for (auto &entry : lost)
            post_result(std::move(entry.second.handler), outcome::lost,
                        {std::errc::connection_reset, "the link was lost"});
    }
    void hear()
    {
        heard = loop::now;
        channel->hbSequence = 0; // the heartbeats without an answer
    }
    // Send a heartbeat whenever nothing was heard for another period.
    void supervise()
    {
        const milliseconds period(to_ms(on->opts.heartbeat));
        const auto due = heard + period * (channel->hbSequence + 1);
        auto wait = std::chrono::ceil<milliseconds>(due - clock::now());
        if (on->opts.heartbeat.count() <= 0)
            return;
        if (wait.count() <= 0) {
            if (channel->hbSequence++ >= on->opts.missed_heartbeats)
                return end(reason::silent, "heartbeats were not answered");
            append_heartbeat(c::build_heartbeat_msg);
            wait = period;
        }
        heartbeat = timer::once(wait, [this] { supervise(); });
    }
    // Have the loop give this link a turn before it waits.
    void turn_later()
    {
        if (!std::exchange(turn_due, true))
            loop::post([self = shared_from_this()] { self->turn(false); });
    }
    // Serve what is readable or waits, as much as others can wait for, and send.
    void turn(bool readable)
    {
        const int current = id;
        turn_due = false;
        if (readable && !pending())
            receive();
        for (int count = 0; id == current && count < served_per_turn && pending(); count++)
            serve_one();
        if (id != current)
            return;
        if (pending())
            turn_later();
        else if (next_frame(in) < 0 || backlog.size() > on->opts.max_queued)
            return end(reason::lost, "the other end broke the protocol");
        flush();
    }

    // ---- output

    std::size_t queued() const { return out.size() + held_size; }
    // The other end does not read what is sent. Requests held for their turn do not count.
    bool choked() const { return out.size() >= on->opts.max_queued; }
    status check(std::string_view text, bool plain)
    {
        if (id == -1 && !(reconnects && on->alive))
            return {std::errc::not_connected, "the link is closed"};
        if (text.size() > max_payload)
            return {std::errc::message_size, "the payload is too long"};
        if (plain && text.find(reserved_text) != std::string_view::npos)
            return {std::errc::invalid_argument, "the payload contains \"velun_tolvane_\", which "
                                                 "only a pipelined link can carry"};
        if (queued() < on->opts.max_queued)
            return {};
        stalled = true;
        turn_later();
        return {std::errc::no_buffer_space, "the queue is full, try again later"};
    }
    void flush();
    void write_out()
    {
        const bool was_choked = choked();
        const auto sent = out.size() > 0 ? send_some(fd, out) : 0;
        if (sent < 0) { // the link ends when what has arrived is read
            send_error = send_error != 0 ? send_error : int(-sent);
            shutdown(fd, SHUT_RDWR);
        }
        if (sent > 0 && was_choked)
            hear();
    }
    // Queue one frame: a message in msgBuf without its payload, a mark, and the payload.
    void append(int head_size, std::string_view text, mark with = {})
    {
        const std::size_t marked = with.kind != '\0' ? mark::size : 0;
        const auto size = htonl(std::uint32_t(std::size_t(head_size) + marked + text.size()));
        if (out.bytes.empty())
            out.bytes.reserve(256 + text.size());
        out.bytes.append(watermark);
        out.bytes.append(reinterpret_cast<const char *>(&size), sizeof(size));
        out.bytes.append(channel->msgBuf, std::size_t(head_size));
        if (marked != 0)
            with.append_to(out.bytes);
        out.bytes.append(text);
        if (out.size() >= flush_size && !writing)
            write_out();
        turn_later();
    }
    void append_heartbeat(int (*build)(tv_channel *, char *, int))
    {
        if (!choked()) // else it would not be seen, and only fill the memory
            append(build(channel, channel->msgBuf, TV_MSG_BUF_SIZE), {});
    }
    // Messages have numbers, in order. The lower 32 bits are a correlation ID, which is never 0, as
    // numbers are odd, nor that of another request under way.
    std::uint64_t next_number()
    {
        do
            last_number += 2;
        while (asks(last_number));
        return last_number;
    }
    bool asks(std::uint64_t number) const { return calls.count(std::uint32_t(number)) != 0; }
    bool may_send(std::uint64_t number) const
    {
        return established && (pipelined || waiting_for == 0 || !asks(number));
    }
    void transmit(std::uint64_t number, std::string_view text)
    {
        const bool asked = asks(number);
        mark with;
        if (pipelined)
            with = {asked ? '?' : '!', asked ? std::uint32_t(number) : 0};
        else if (asked)
            waiting_for = std::uint32_t(number);
        append(c::pack_outgoing_rqst(channel, "", 0), text, with);
    }
    void submit(std::uint64_t number, std::string_view text)
    {
        if (held.empty() && may_send(number))
            return transmit(number, text);
        held.emplace(number, text);
        held_size += text.size();
    }
    // Send what was held and may go now.
    void send_held()
    {
        while (!held.empty() && may_send(held.begin()->first)) {
            const auto next = held.extract(held.begin());
            held_size -= next.mapped().size();
            transmit(next.key(), next.mapped());
        }
    }
    status tell(std::string_view text)
    {
        const status result = check(text, !pipelined);
        if (result)
            submit(next_number(), text);
        return result;
    }
    void ask(std::string_view text, milliseconds timeout, callback<void(response)> handler)
    {
        const auto number = next_number();
        status result = check(text, !pipelined);
        timer limit = timer::once(timeout, [this, number] { timed_out(number); });
        if (result && !limit)
            result = {std::errc::not_enough_memory, "no memory for the timeout"};
        if (!result)
            return post_result(std::move(handler), outcome::refused, result);
        calls[std::uint32_t(number)] = {std::move(handler), std::move(limit)};
        submit(number, text);
    }
    // Reply to a request ('='), or decline it ('-').
    status answer(int connection_id, mark to, char kind, std::string_view text)
    {
        const bool plain = to.kind == '\0', replies = kind == '=';
        if (connection_id != id || id == -1)
            return {std::errc::not_connected, "the link of the request is closed"};
        const status result = replies ? check(text, plain) : status();
        if (!result)
            return result;
        if (plain && replies)
            append(c::pack_outgoing_resp(channel, "", 0), text);
        else if (!plain && (replies || !choked()))
            append(c::pack_outgoing_rqst(channel, "", 0), text, {kind, to.id});
        serving = serving && !plain;
        turn_later(); // the next one may be served
        return result;
    }

    // ---- input

    // The size of the frame at the front: 0 if it is incomplete, -1 if it is not valid.
    static long next_frame(const buffer &from)
    {
        std::uint32_t size;
        if (from.size() < frame_header)
            return 0;
        std::memcpy(&size, from.data() + frame_header - sizeof(size), sizeof(size));
        size = ntohl(size);
        if (std::memcmp(from.data(), watermark.data(), 15) != 0 || size == 0 ||
            size > TV_MSG_BUF_SIZE)
            return -1;
        return from.size() - frame_header < size ? 0 : long(frame_header + size);
    }
    bool backlog_due() const { return !serving && backlog.size() > 0; }
    bool pending() const { return backlog_due() || next_frame(in) > 0; }
    void receive()
    {
        const auto got = recv(fd, loop::received, sizeof(loop::received), MSG_DONTWAIT);
        const int error = got == 0 || send_error != 0 ? send_error : errno;
        if (got > 0)
            in.bytes.append(loop::received, std::size_t(got));
        else if (got == 0 || !try_later(error))
            end(reason::lost, error == 0 ? "the other end closed the link" : std::strerror(error));
    }
    void serve_one()
    {
        const bool again = backlog_due();
        const int current = id;
        buffer &from = again ? backlog : in;
        const auto size = std::size_t(next_frame(from));
        buffer next{std::string(from.data(), size), frame_header};
        from.consume(size);
        if (!again && c::tv_msg_received(channel, c::get_msg_sequence(next.data())) != 0)
            return;
        if (!again && !choked())
            hear(); // a peer that sends, but does not read its replies, is not alive
        const int type = c::get_msg_type(next.data());
        int length = 0;
        const char *payload = c::get_msg_payload(next.data(), int(next.size()), &length);
        next.start = size - std::size_t(length);
        if (type == TV_MSG_REQUEST && payload != nullptr) {
            request_received(std::move(next));
        } else if (type == TV_MSG_REPLY && waiting_for != 0) { // also one too late ends the wait
            overdue.stop();
            finish(std::exchange(waiting_for, 0), {outcome::replied, {}, std::move(next)});
            if (id == current)
                send_held();
        } else if (type == TV_MSG_HEARTBEAT) {
            append_heartbeat(c::build_heartbeat_ack_msg);
        } else {
            handle_other(type, next);
        }
    }
    void request_received(buffer &&received);
    // Call the handler of a request, unless it has been called.
    void finish(std::uint32_t correlation_id, response &&result)
    {
        if (const auto ended = calls.extract(correlation_id))
            ended.mapped().handler(std::move(result));
    }
    void timed_out(std::uint64_t number)
    {
        if (const auto found = held.find(number); found != held.end()) {
            held_size -= found->second.size();
            held.erase(found);
            turn_later();
        }
        if (std::uint32_t(number) == waiting_for)
            overdue = timer::once(on->opts.late_reply,
                                  [this] { end(reason::lost, "a reply is overdue"); });
        finish(std::uint32_t(number),
               {outcome::timed_out, {std::errc::timed_out, "no reply in time"}});
    }

    const std::shared_ptr<handlers> on;
    const bool reconnects;               // a client's: what is sent without a connection is held
    bool turn_due = false;               // the loop has a task for it
    bool stalled = false;                // on_drained is due
    std::map<std::uint32_t, call> calls; // by correlation ID
    std::map<std::uint64_t, std::string>
        held; // by number, until the connection, or a plain link's turn
    std::size_t held_size = 0;
    std::uint64_t last_number = 1;
    std::string url; // a server's link: the client's name, empty before its login
    std::any data;   // the application's: a shared_ptr
};

}

// ---- peer ----------------------------------------------------------------------------------

/** What a server's peer and a client have in common: messages to the other end of a link. */
class other_end
{
public:
    /** Send a request.
     *
     *   text     at most max_payload bytes of any kind; copied. On a plain link, and while there is
     *            no connection, it must not contain "velun_tolvane_"
     *   timeout  for the reply, from now on, waiting included
     *   handler  runs exactly once, unless the client or server is destroyed before
     *
     * The handler of a refused request gets outcome::refused, and response::status() says why. On
     * a plain link the next request after a timeout waits until the late reply has come; when it
     * has not come options::late_reply later, the link is closed. */
    void request(std::string_view text, milliseconds timeout,
                 callback<void(response)> handler) const
    {
        link->ask(text, timeout, std::move(handler));
    }
    /** Send a one-way request, which gets no reply. Success means that it is queued: a link that is
     * lost loses what it had queued. Refused: a text that request() would refuse. A program on the
     * C interface must not answer it. */
    status tell(std::string_view text) const { return link->tell(text); }
    /** The bytes that wait to be sent. */
    std::size_t queued() const { return link->queued(); }

    /** For the layer itself. */
    explicit other_end(std::shared_ptr<detail::link> to) : link(std::move(to)) {}
    // Moves copy: a handle never lacks a link.
    other_end(const other_end &) = default;
    other_end &operator=(const other_end &) = default;

protected:
    std::shared_ptr<detail::link> link;
};

/** One client of a server: a handle to copy and keep. It turns false when the client's connection
 * ends, and stays false: a client that connects again is another peer. Handles of the same
 * connection compare equal. */
class peer : public other_end
{
public:
    /** An empty handle. */
    peer() : other_end(detail::link::none()) {}
    /** True while the client is connected. Then request() and tell() reach it; after that they are
     * refused. */
    explicit operator bool() const { return link->id != -1; }
    /** The name that the client logged in with; empty before. Valid as long as a handle. */
    const std::string &url() const { return link->url; }
    /** End the connection once what is queued is sent, at most connect_timeout later; the handle
     * turns false now. Requests under way get outcome::lost, and on_logout gets reason::closed. The
     * client may connect again. What is queued is sent only while the loop runs. */
    void close() { link->end(reason::closed, {}); }
    /** The application's own data of this client, made by T() on first use and destroyed after
     * on_logout has returned. Null then, for an empty handle, and for a type other than the
     * first one. */
    template <class T> T *data()
    {
        if (*this && !link->data.has_value())
            link->data = std::make_shared<T>();
        const auto *made = std::any_cast<std::shared_ptr<T>>(&link->data);
        return made != nullptr ? made->get() : nullptr;
    }
    friend bool operator==(const peer &a, const peer &b) { return a.link == b.link; }
    friend bool operator!=(const peer &a, const peer &b) { return a.link != b.link; }

    using other_end::other_end; // for the layer itself
};

// ---- request -------------------------------------------------------------------------------

/** One received request; move-only. Answer it now, or keep it and answer later: it may outlive its
 * link, the client or server, and the loop. Destroyed without an answer it counts as declined. On a
 * plain link, the next request of the same peer is served when this one is answered or declined. */
class request
{
public:
    /** No request. */
    request() = default;

    /** What the other end sent; never null, followed by a 0x00, valid as long as the request. */
    std::string_view payload() const { return state != nullptr ? state->body.view() : ""; }
    /** The client that sent it. In a client, a handle of its server, with an empty URL: it is true
     * while the client is connected, and true again after a reconnect. Meanwhile tell() and
     * request() queue. Once the client is destroyed they refuse. */
    peer from() const { return state != nullptr ? peer(state->link) : peer(); }
    /** True until it is answered or declined; false from the start for a one-way request on a
     * pipelined link. A plain link does not carry that: a peer that awaits no reply takes one
     * for the reply to its next request, so do not answer what is one-way in your protocol. */
    bool wants_reply() const { return state != nullptr && state->open; }
    /** Answer the request. Refused: it is answered already or wants no reply, the link has gone,
     * the payload is too long or not allowed on a plain link, or the queue is full. After a
     * refusal it may still be answered. */
    status reply(std::string_view text)
    {
        if (state == nullptr)
            return {std::errc::invalid_argument, "an empty request"};
        return state->answer('=', text);
    }
    /** Let the other end know that there will be no reply. On a plain link it finds out when its
     * timeout has passed. */
    void decline()
    {
        if (state != nullptr)
            (void)state->answer('-', {});
    }

private:
    friend struct detail::link;
    struct received {
        ~received() { (void)answer('-', {}); }
        status answer(char kind, std::string_view text)
        {
            if (!open)
                return {std::errc::invalid_argument, "no reply is awaited"};
            const status result = link->answer(connection, with, kind, text);
            open = !result && kind == '=';
            return result;
        }
        std::shared_ptr<detail::link> link;
        int connection;
        detail::mark with;
        bool open; // to an answer
        detail::buffer body;
    };
    std::unique_ptr<received> state;
};

inline void detail::link::request_received(buffer &&received)
{
    mark with;
    if (pipelined || (on->opts.pipelined && !established))
        with = mark::read(received.view());
    if (with.kind == '\0' && serving) {
        backlog.bytes += received.bytes;
        return;
    }
    received.start += with.kind != '\0' ? mark::size : 0;
    if (with.kind == '-') {
        const status why{std::errc::operation_canceled, "the other end declined to reply"};
        finish(with.id, {outcome::declined, why});
    } else if (with.kind == '=' && with.id == 0) { // accepts the offer in a login
        pipelined = true;
        handle_other(TV_MSG_HEARTBEAT_ACK, received);
    } else if (with.kind == '=') {
        finish(with.id, {outcome::replied, {}, std::move(received)});
    } else {
        request incoming;
        serving = serving || with.kind == '\0';
        incoming.state.reset(new request::received{shared_from_this(), id, with, with.kind != '!',
                                                   std::move(received)});
        on->request(std::move(incoming));
    }
}

inline void detail::link::flush()
{
    write_out();
    if (writing != (out.size() > 0)) {
        writing = !writing;
        loop::change(fd, writing ? EPOLLIN | EPOLLOUT : EPOLLIN);
    }
    stalled = stalled || writing;
    if (stalled && queued() == 0) {
        stalled = false;
        on->drained();
        if (id != -1)
            on->peer_drained(peer(shared_from_this()));
    }
}

// ---- client --------------------------------------------------------------------------------

namespace detail
{

struct client_state final : link {
    client_state(const options &settings, const endpoint &to, const endpoint &self)
        : link(std::make_shared<handlers>(settings), true), server(socket_address(to)),
          name(self.url())
    {
    }
    // Begin a connection on a fresh channel: an old one would go on counting messages. The login
    // waits for TCP to connect. A heartbeat follows: a server of this layer answers the login
    // first, any other one answers the heartbeat only. Requests wait for that, so none is sent to a
    // server that has not accepted the connection.
    void attempt()
    {
        step = timer::once(on->opts.connect_timeout,
                           [this] { end(reason::lost, "the server did not answer in time"); });
        tv_client_addr address{};
        inet_ntop(AF_INET, &server.sin_addr, address.serverIp, sizeof(address.serverIp));
        address.serverPort = ntohs(server.sin_port);
        tv_channel *record = tv_get_channel(tv_create_client_channel(&address));
        if (record == nullptr)
            return end(reason::lost, std::strerror(ENOMEM));
        std::snprintf(record->url, TV_URL_SIZE, "%s", name.c_str()); // any length that fits
        const int made = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        record->clientSocket->fd = made;
        if (const status opened = open(record, made, EPOLLIN | EPOLLOUT); !opened)
            return end(reason::lost, opened.what());
        const auto *to = reinterpret_cast<const sockaddr *>(&server);
        if (::connect(fd, to, sizeof(server)) != 0 && errno != EINPROGRESS)
            return end(reason::lost, std::strerror(errno));
        writing = true;
        const int length = c::build_login_msg(channel, channel->url);
        append(length, on->opts.pipelined ? pipelined_offer.substr(1) : std::string_view());
        append_heartbeat(c::build_heartbeat_msg);
    }
    // The server has read the login: it has answered the heartbeat behind it, or the offer in it.
    void handle_other(int type, const buffer &) override
    {
        if (type == TV_MSG_LOGIN) {
            // While no server listens, a client on the same host that keeps trying may get the
            // server's port as its own one day. TCP connects it to itself then, and an orderly
            // close would keep the port in use.
            const linger reset{1, 0};
            setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
            return end(reason::lost, "connected to itself");
        }
        if (type != TV_MSG_HEARTBEAT_ACK || std::exchange(established, true))
            return;
        backoff = shortest;
        step.stop();
        supervise();
        send_held();
        on->connected();
    }
    void end(reason why, std::string text) override
    {
        if (why == reason::closed && established) {
            append(c::build_logout_msg(channel, channel->url), {});
            close_when_sent();
        }
        close_now();
        step.stop();
        active = why != reason::closed && on->opts.reconnect;
        if (active) { // after a random half to whole of the back-off: 100 ms to 5 s
            const auto half = backoff.count() / 2;
            const auto wait = half + clock::now().time_since_epoch().count() % (half + 1);
            step = timer::once(milliseconds(wait), [this] { attempt(); });
            backoff = std::min(backoff * 2, longest);
        }
        fail_calls(active);
        lost_by = std::move(text);
        loop::post([self = shared_from_this(), this] {
            if (!lost_by.empty())
                on->lost(std::exchange(lost_by, {}));
        });
    }

    static constexpr milliseconds shortest{200}, longest{5000};
    const sockaddr_in server;
    const std::string name; // as a URL
    bool active = false;
    std::string lost_by; // what on_lost has yet to get; empty after disconnect()
    timer step;          // to the next attempt, or to the end of the one under way
    milliseconds backoff = shortest;
};

}

/** A client: one link to a server, kept up until disconnect(). While there is no connection,
 * requests and one-way requests wait for one. */
class client : public other_end
{
public:
    /** Set a client up; connect() starts it.
     *
     *   loop    the process's loop
     *   server  where the server listens
     *   name    what this client logs in as; a newer client of the same name replaces an older one
     */
    client(loop &, endpoint server, endpoint name, options options = {})
        : other_end(std::make_shared<detail::client_state>(options, server, name)),
          state(static_cast<detail::client_state *>(link.get()))
    {
    }
    /** Disconnect. Handlers of requests under way are destroyed without a call. */
    ~client()
    {
        disconnect();
        const auto released = std::exchange(*state->on, {}); // may hold handles of this client
        const auto data = std::exchange(state->data, {});
    }
    client(client &&) = delete;

    /** Start connecting, and keep connecting until disconnect(), or, with options::reconnect off,
     * until on_lost. Refused on bad arguments only; on_connected and on_lost report everything
     * else. Does nothing while it is under way. */
    status connect()
    {
        const std::string &own = state->name;
        const auto control = [](unsigned char letter) { return letter < ' '; };
        if (state->server.sin_family != AF_INET || state->server.sin_port == 0)
            return {std::errc::invalid_argument,
                    "the server's address is no dotted IPv4 text, or its port is 0"};
        if (own.find("//:") != own.npos || own.size() >= TV_URL_SIZE ||
            own.find(detail::reserved_text) != own.npos ||
            std::any_of(own.begin(), own.end(), control))
            return {std::errc::invalid_argument, "the client's name does not fit a URL"};
        if (!std::exchange(state->active, true))
            state->step = timer::once(milliseconds(1), [to = state] { to->attempt(); });
        return {};
    }
    /** Log out and end the connection once what is queued is sent, at most connect_timeout later.
     * Requests under way or not sent yet get outcome::lost; on_lost is not called. What is queued is
     * sent only while the loop runs. */
    void disconnect() { state->end(reason::closed, {}); }
    /** True while connected: from on_connected until the link is lost or closed. */
    explicit operator bool() const { return state->established; }
    /** Set what runs when the server has read the login. A full server does not read it. */
    void on_connected(callback<void()> run) { state->on->connected = std::move(run); }
    /** Set what runs when the link is lost, or an attempt to connect has failed, with the reason as
     * a text that is valid until the handler returns. The next attempt follows by itself, unless
     * options::reconnect is off. Requests not sent yet wait for it; those sent have got
     * outcome::lost. */
    void on_lost(callback<void(std::string_view why)> run) { state->on->lost = std::move(run); }
    /** Set what runs when the queue is empty again, after it was full or the system had not taken
     * all of it at once. */
    void on_drained(callback<void()> run) { state->on->drained = std::move(run); }
    /** Set what runs with each request of the server. Without one, requests are declined. */
    void on_request(callback<void(tolvane::request)> run) { state->on->request = std::move(run); }

private:
    detail::client_state *const state; // the link
};

// ---- server --------------------------------------------------------------------------------

namespace detail
{

struct listener : std::enable_shared_from_this<listener> {
    explicit listener(const options &settings) : on(std::make_shared<handlers>(settings)) {}
    void resume()
    {
        if (!loop::watch(fd, [self = shared_from_this()] { self->ready(); }))
            pause();
    }
    void ready()
    {
        for (int count = 0; count < served_per_turn; count++) {
            if (std::size_t(place.use_count()) > on->opts.max_clients)
                return pause();
            const int accepted = accept4(fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
            if (accepted < 0 && (errno == EAGAIN || errno == EINTR || errno == ECONNABORTED))
                return;
            if (accepted < 0 || !add(accepted))
                return pause();
        }
    }
    // Leave clients in the system's backlog for a while: the server is full, or without descriptors
    // or memory.
    void pause()
    {
        loop::unwatch(fd);
        retry = timer::once(milliseconds(100), [this] { resume(); });
    }
    bool add(int accepted);
    std::shared_ptr<link> find(const char *url) const
    {
        const tv_channel *found = c::get_channel_by_ip(&tv_service_server.pairList, url);
        const auto entry = pairs.find(found != nullptr && *url != '\0' ? found->channelId : -1);
        return entry != pairs.end() ? entry->second : link::none();
    }
    void report_logouts()
    {
        while (!logouts.empty()) {
            const auto next = std::move(logouts.front());
            logouts.pop_front();
            next();
        }
    }
    const std::shared_ptr<handlers> on;
    std::map<int, std::shared_ptr<link>> pairs; // by channel id: in order of acceptance
    std::deque<callback<void()>> logouts;       // of links that have ended, in order
    // Shared by all connections, also by closed ones that still get their last bytes.
    const std::shared_ptr<void> place = std::make_shared<int>();
    int fd = -1;
    timer retry;
    std::uint16_t port = 0;
};

// The server's end of one connection.
struct pair final : link {
    explicit pair(std::shared_ptr<listener> by) : link(by->on, false), server(std::move(by)) {}
    void handle_other(int type, const buffer &received) override
    {
        if (type == TV_MSG_LOGOUT)
            end(reason::logged_out, {});
        else if (type == TV_MSG_LOGIN && received.view()[0] != '\0')
            login(received.view());
    }
    // As the library does, but with the handlers of the layer: an older link of the same name ends
    // first.
    void login(std::string_view payload)
    {
        const int current = id;
        const std::string name = payload.data(); // up to its 0x00
        for (auto older = server->find(name.c_str());
             id == current && older->id != -1 && older.get() != this;
             older = server->find(name.c_str()))
            older->end(reason::replaced, {}); // its handler may let others log in
        if (id != current)
            return;
        c::update_pair_channel(channel, name.c_str());
        url = channel->url;
        payload.remove_prefix(name.size());
        if (on->opts.pipelined && !pipelined && payload == pipelined_offer) {
            append(c::pack_outgoing_rqst(channel, "", 0), {}, {'=', 0});
            pipelined = true;
            send_held();
        }
        server->report_logouts(); // one of the same name may be among them
        if (id == current)
            on->login(peer(shared_from_this()));
    }
    void end(reason why, std::string) override
    {
        const auto self = shared_from_this();
        if (why == reason::replaced)
            announce(why); // what its handler tells the client is still sent
        if (id == -1)
            return;
        server->pairs.erase(id);
        if (why == reason::closed || why == reason::replaced)
            close_when_sent();
        else
            close_now();
        fail_calls(false);
        server->logouts.push_back([self, this, why] {
            announce(why);
            data.reset(); // it may hold handles and requests of this link
        });
        loop::post([owner = server] { owner->report_logouts(); });
    }
    void announce(reason why)
    {
        if (!url.empty() && !std::exchange(announced, true))
            on->logout(peer(shared_from_this()), why);
    }
    bool announced = false;
    const std::shared_ptr<listener> server;
};

inline bool listener::add(int accepted)
{
    if (c::create_pair_channel(accepted) != 0)
        return false; // and closed
    const auto *newest = reinterpret_cast<const tv_channel_node *>(tv_service_server.pairList.prev);
    const auto added = std::make_shared<pair>(shared_from_this());
    added->place = place;
    added->established = true;
    pairs[newest->channel->channelId] = added;
    const status watched = added->open(newest->channel, accepted, EPOLLIN);
    added->supervise();
    if (watched)
        return true;
    added->end(reason::lost, {});
    return false;
}

}

/** A server: listens, and has a peer for each client. One at a time per process. */
class server
{
public:
    /** Set a server up; listen() starts it. The loop is the process's. */
    explicit server(loop &, options opts = {}) : state(std::make_shared<detail::listener>(opts)) {}
    /** Stop. Handlers of requests under way are destroyed without a call, and on_logout does not
     * run. */
    ~server()
    {
        stop();
        const auto released = std::exchange(*state->on, {}); // may hold handles of this server
        state->report_logouts();                             // nobody; this releases the data
    }
    server(server &&) = delete;

    /** Listen on a dotted IPv4 address, "0.0.0.0" for all, and a port, 0 for one that the system
     * chooses. Refused: another text, an address that cannot be listened on, or a server that runs
     * in this process already, on the C interface or on this one. */
    status listen(const std::string &address, std::uint16_t at)
    {
        if (detail::socket_address({address, at}).sin_family != AF_INET)
            return {std::errc::invalid_argument, "the address is no dotted IPv4 text"};
        if (tv_service_server.serverChannel != nullptr)
            return {std::errc::device_or_resource_busy, "a server is running in this process"};
        errno = EADDRNOTAVAIL; // unless the system says otherwise
        if (tv_start_server(address.c_str(), at) == -1)
            return {std::errc(errno), std::strerror(errno)};
        state->fd = tv_get_server_polling_fd();
        fcntl(state->fd, F_SETFL, O_NONBLOCK); // a client may be gone when accepted
        ::listen(state->fd, SOMAXCONN);        // again, with a longer backlog
        sockaddr_in own{};
        socklen_t size = sizeof(own);
        getsockname(state->fd, reinterpret_cast<sockaddr *>(&own), &size);
        state->port = ntohs(own.sin_port);
        state->resume();
        return {};
    }
    /** The port it listens on, or 0. */
    std::uint16_t port() const { return state->port; }
    /** Stop listening and close all peers, as peer::close() does: let the loop run until they have
     * got what is queued. listen() may follow. */
    void stop()
    {
        if (state->fd == -1)
            return;
        loop::unwatch(std::exchange(state->fd, -1));
        state->retry.stop();
        state->port = 0;
        while (!state->pairs.empty())
            std::shared_ptr<detail::link>(state->pairs.begin()->second)->end(reason::closed, {});
        tv_stop_server();
    }
    /** The client that logged in with a URL, or an empty handle. */
    peer find(const std::string &url) const { return peer(state->find(url.c_str())); }
    /** All clients that have logged in, in the order in which they connected. */
    std::vector<peer> peers() const
    {
        std::vector<peer> all;
        for (const auto &entry : state->pairs) {
            if (!entry.second->url.empty())
                all.push_back(peer(entry.second));
        }
        return all;
    }
    /** Send all clients that have logged in a one-way request. Returns how many it was queued for;
     * those that are full, or cannot take this payload, are left out. */
    std::size_t broadcast(std::string_view text)
    {
        const auto all = peers();
        const auto told = [&](const peer &one) { return bool(one.tell(text)); };
        return std::size_t(std::count_if(all.begin(), all.end(), told));
    }
    /** Set what runs when a client has logged in, or has taken another name. */
    void on_login(callback<void(peer)> run) { state->on->login = std::move(run); }
    /** Set what runs when a client that had logged in is gone, for any reason. Its handle is false
     * by then; url() and data() still work. After reason::replaced the handle is true until the
     * handler returns, and a last message to the older client is still sent. */
    void on_logout(callback<void(peer, reason)> run) { state->on->logout = std::move(run); }
    /** Set what runs when a peer's queue is empty again, after it was full or the system had not
     * taken all of it at once. */
    void on_drained(callback<void(peer)> run) { state->on->peer_drained = std::move(run); }
    /** Set what runs with each request of a client, one that has not logged in included. Without
     * one, requests are declined. */
    void on_request(callback<void(tolvane::request)> run) { state->on->request = std::move(run); }

private:
    std::shared_ptr<detail::listener> state;
};

// ---- log -----------------------------------------------------------------------------------

/** Hand every entry of the library's log to a handler, for example for spdlog or journald: one
 * entry a call, without the line feeds at its end, valid until the handler returns. It runs inside
 * whatever logs, so it must not destroy or close anything; what it causes to be logged itself is
 * not. An empty handler ends that. */
inline void log_to(callback<void(std::string_view entry)> handler)
{
    static callback<void(std::string_view)> sink;
    static FILE *stream = nullptr; // stays open: the library may be writing to it
    // The library writes an entry in pieces, the last of which ends in two line feeds.
    const auto write = [](void *, const char *piece, std::size_t size) {
        static std::string entry;
        entry.append(piece, size);
        const std::size_t length = entry.size();
        if (length >= 2 && entry.compare(length - 2, 2, "\n\n") == 0) {
            const std::string complete = std::exchange(entry, {});
            tv_set_log_fd(nullptr); // what the handler causes is not logged
            sink(std::string_view(complete).substr(0, length - 2));
            tv_set_log_fd(sink ? stream : nullptr);
        }
        return ssize_t(size);
    };
    sink = std::move(handler);
    if (stream == nullptr) {
        stream = fopencookie(nullptr, "w", {nullptr, write, nullptr, nullptr});
        if (stream != nullptr)
            setvbuf(stream, nullptr, _IONBF, 0);
    }
    tv_set_log_fd(sink ? stream : nullptr);
}

}

#endif
