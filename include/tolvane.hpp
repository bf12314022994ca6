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
#include <arpa/inet.h>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <netinet/tcp.h>
#include <optional>
#include <random>
#include <set>
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
        if constexpr (std::is_pointer_v<Target> || (std::is_constructible_v<bool, Target &> &&
                                                    !std::is_convertible_v<Target &, bool>)) {
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
int login_msg_received(tv_channel *channel, char *msg);
tv_channel *get_channel_by_ip(tv_channel_list *head, const char *url);
}
}

namespace detail
{

using clock = std::chrono::steady_clock;

constexpr int served_per_turn = 64;       // messages, or accepted clients, before others' turn
constexpr std::size_t flush_size = 65536; // unsent bytes that are sent without waiting for more
constexpr std::size_t frame_header = 36;  // watermark and length
constexpr std::string_view watermark{"TCP_WATER_MARK\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 32};
constexpr std::string_view reserved_text =
    "velun_tolvane_"; // what the type of a message begins with
constexpr std::string_view pipelined_offer{"pipelined\0", 10};

// A refusal with the system's reason, errno; the text stays valid.
inline status system_refusal(const char *what)
{
    static auto &texts = *new std::set<std::string>; // outlives all static objects
    const int error = errno;
    const auto text = texts.insert(what + std::string(": ") + std::strerror(error)).first;
    return {std::errc(error), text->c_str()};
}

inline bool try_later(int error)
{
    return error == EAGAIN || error == EINTR || error == ENOBUFS || error == ENOMEM;
}

inline void send_at_once(int fd)
{
    const int yes = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof(yes));
}

// The own or the other address of a socket, from getsockname or getpeername.
inline sockaddr_in address_of(int fd, decltype(getsockname) *get)
{
    sockaddr_in address{};
    socklen_t size = sizeof(address);
    get(fd, reinterpret_cast<sockaddr *>(&address), &size);
    return address;
}

// Run tasks in order, also those that are added meanwhile.
inline void run_all(std::deque<callback<void()>> &tasks)
{
    while (!tasks.empty()) {
        const auto task = std::move(tasks.front());
        tasks.pop_front();
        task();
    }
}

inline int to_ms(milliseconds time)
{
    return static_cast<int>(std::clamp<milliseconds::rep>(time.count(), 1, INT_MAX));
}

// A received message, whose payload is at its end.
struct message {
    std::string bytes;
    std::size_t start = 0;

    std::string_view payload() const { return {bytes.data() + start, bytes.size() - start}; }
};

struct closing_socket;
struct link;
struct pair;
struct client_state;
struct server_state;

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
        if (objects++ == 0)
            open();
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
        while (!std::exchange(stopped, false)) {
            if (!run_once(milliseconds(-1)))
                return false;
        }
        return true;
    }
    /** Make run() return once the round in progress is complete; of nested ones, the innermost.
     * Without a run() in progress, the next one returns at once. */
    void stop() { stopped = true; }
    /** Wait for work for at most limit, 0: not at all, below 0: until there is some. Do it: read
     * what has arrived, run posted work, fire timers, send. May be called inside a callback.
     * Returns false when the loop is closed or waiting failed. */
    bool run_once(milliseconds limit)
    {
        depth++;
        detail::run_all(to_flush);
        const int count = epoll_wait(epoll, events.data(), int(events.size()), wait_time(limit));
        const bool waited = count >= 0 || errno == EINTR;
        if (waited)
            serve_all(count);
        if (--depth == 0 && nested)
            nest();
        return waited;
    }
    /** Run a callback whenever a descriptor of the program's is readable, or ready for other events
     * of epoll, until unwatch(). The descriptor stays the program's. A file, which is always ready,
     * has its callback run in every round. Refused: a descriptor that is watched already, or that
     * is not open. */
    static status watch(int fd, callback<void()> ready, unsigned wanted = EPOLLIN)
    {
        if (watched.count(fd) != 0)
            return {std::errc::file_exists, "the descriptor is watched already"};
        epoll_event event{};
        event.events = wanted;
        event.data.u64 = std::uint64_t(++generation) << 32 | std::uint32_t(fd);
        const bool refused = epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event) != 0;
        if (refused && errno != EPERM)
            return detail::system_refusal("the descriptor cannot be watched");
        if (refused)
            always.push_back(event);
        watched[fd] = {event, std::move(ready)};
        if (events.size() < watched.size()) // one round reports all, so it reads before timers fire
            events.resize(2 * watched.size());
        work_added();
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
        const auto same = [&](auto &event) { return event.data.u64 == released.event.data.u64; };
        always.erase(std::remove_if(always.begin(), always.end(), same), always.end());
    }
    /** Run a callback in the loop's next round. Any thread may call this while there is a loop. */
    static void post(callback<void()> task)
    {
        const std::lock_guard<std::mutex> lock(guard);
        if (epoll >= 0)
            posted.push_back(std::move(task));
        if (posted.size() == 1)
            eventfd_write(wakeup, 1);
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

    static void open()
    {
        stopped = nested = false;
        alarm = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
        {
            const std::lock_guard<std::mutex> lock(guard);
            wakeup = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
            epoll = epoll_create1(EPOLL_CLOEXEC);
        }
        for (const int counter : {wakeup, alarm}) {
            if (!watch(counter, nullptr, EPOLLIN | EPOLLET)) // edges need no reading
                return close();
        }
    }
    static void close()
    {
        std::unique_lock<std::mutex> lock(guard);
        for (int *fd : {&epoll, &wakeup, &alarm})
            ::close(std::exchange(*fd, -1));
        const auto dropped = std::exchange(posted, {}); // destructors may call back
        lock.unlock();
        const auto released = std::exchange(watched, {});
        const auto unflushed = std::exchange(to_flush, {});
        always.clear();
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
    // Something became due outside run_once(): a loop around this one has to call it.
    static void work_added()
    {
        if (nested && depth == 0)
            eventfd_write(wakeup, 1);
    }
    static bool busy()
    {
        const std::lock_guard<std::mutex> lock(guard);
        return !posted.empty() || !always.empty();
    }
    static int wait_time(milliseconds limit)
    {
        const int due = ruvo_timer_get_expected_interval();
        if (limit.count() == 0 || due == 0 || busy())
            return 0;
        if (limit.count() < 0)
            return due;
        return due < 0 ? detail::to_ms(limit) : std::min(due, detail::to_ms(limit));
    }
    // Serve a round's events, work and timers. A callback may run a round of its own and serve what
    // was reported to this one, which then drops the rest: what is still ready is reported again.
    static void serve_all(int count)
    {
        const unsigned mine = ++round;
        const auto also = always;
        now = detail::clock::now();
        for (int i = 0; i < count && round == mine; i++)
            serve(events[std::size_t(i)]);
        for (auto event = also.begin(); event != also.end() && round == mine; ++event)
            serve(*event);
        run_posted();
        ruvo_fire_timer();
        detail::run_all(to_flush);
    }
    // A descriptor whose registration has ended since its event was reported is not found, also
    // when its number is in use again.
    static void serve(epoll_event event)
    {
        const auto found = watched.find(int(event.data.u64));
        if (found != watched.end() && found->second.event.data.u64 == event.data.u64)
            found->second.handler();
    }
    static void run_posted()
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
    // Make the descriptor ready when run_once(0) has work, or will have.
    static void nest()
    {
        nested = true;
        const int due = ruvo_timer_get_expected_interval();
        itimerspec when{};
        when.it_value.tv_sec = std::max(due, 0) / 1000;
        when.it_value.tv_nsec = due < 0 ? 0 : std::max(due % 1000 * 1000000L, 1L);
        timerfd_settime(alarm, 0, &when, nullptr);
        if (busy() || !to_flush.empty())
            eventfd_write(wakeup, 1);
    }

    static inline int objects = 0, epoll = -1, wakeup = -1, alarm = -1;
    static inline bool stopped = false, nested = false; // nested: another loop waits for fd()
    static inline unsigned depth = 0, round = 0, generation = 0;
    static inline detail::clock::time_point now;
    static inline std::unordered_map<int, watched_fd> watched;
    static inline std::vector<epoll_event> events;               // of the round in progress
    static inline std::vector<epoll_event> always;               // files, which epoll refuses
    static inline std::deque<callback<void()>> to_flush, posted; // to_flush: links
    static inline std::mutex guard;                              // of posted, epoll and wakeup
    static inline char received[detail::flush_size];             // what a link has just read
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
        ~started()
        {
            if (id != -1)
                ruvo_stop_timer(id);
        }
        callback<void()> task;
        bool periodic;
        int id = -1;
    };

    timer(milliseconds time, callback<void()> task, bool periodic)
        : state(new started{std::move(task), periodic})
    {
        const auto start = periodic ? ruvo_start_periodic_timer : ruvo_start_timer;
        state->id =
            start(detail::to_ms(time), fire, reinterpret_cast<std::intptr_t>(state.get()), 0);
        loop::work_added();
    }
    static void fire(std::intptr_t object, std::intptr_t)
    {
        auto *fired = reinterpret_cast<started *>(object);
        if (!fired->periodic)
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
    response(tolvane::outcome what, tolvane::status why, detail::message reply = {})
        : result(what), cause(why), body(std::move(reply))
    {
    }
    /** What became of the request. */
    tolvane::outcome outcome() const { return result; }
    /** Success after a reply; else why there is none, above all why a request was refused. */
    tolvane::status status() const { return cause; }
    /** The reply, or nothing; never null, followed by a 0x00, valid as long as the response. */
    std::string_view payload() const { return body.payload(); }
    explicit operator bool() const { return result == tolvane::outcome::replied; }

private:
    tolvane::outcome result;
    tolvane::status cause;
    detail::message body;
};

namespace detail
{

// Bytes in order. An empty buffer holds no memory, so an idle link costs little.
struct buffer {
    std::size_t size() const { return bytes.size() - start; }
    char *data() { return bytes.data() + start; }
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

// What begins a one-way request on a pipelined link: a kind, a correlation ID in hexadecimal, 0x00.
struct mark {
    static constexpr std::size_t size = 10;

    static std::optional<mark> read(std::string_view payload)
    {
        mark found;
        if (payload.size() < size || payload[size - 1] != '\0')
            return std::nullopt;
        found.kind = payload[0];
        const char *end = payload.data() + size - 1;
        if (std::from_chars(payload.data() + 1, end, found.id, 16).ptr != end ||
            std::string_view("?=!-").find(found.kind) == std::string_view::npos)
            return std::nullopt;
        return found;
    }
    void append_to(std::string &out) const
    {
        out += kind;
        for (int shift = 28; shift >= 0; shift -= 4)
            out += "0123456789abcdef"[id >> shift & 15];
        out += '\0';
    }
    char kind = '?'; // '?' request, '=' reply, '!' one-way, '-' declined
    std::uint32_t id = 0;
};

// Sends what a closed link still had queued, waits for the other end to close, and closes the
// descriptor. Closing it at once would reset the connection if anything arrived meanwhile, and the
// other end could lose what it has not read.
struct closing_socket {
    closing_socket(int descriptor, buffer unsent, const options &opts, callback<void()> when_closed)
        : fd(descriptor), out(std::move(unsent)), still_read(opts.max_queued),
          closed(std::move(when_closed)),
          limit(timer::once(opts.connect_timeout, [this] { loop::unwatch(fd); }))
    {
    }
    ~closing_socket()
    {
        read(); // what is unread would reset the connection
        close(fd);
        closed();
    }
    ssize_t read() const { return recv(fd, loop::received, sizeof(loop::received), MSG_DONTWAIT); }
    void ready()
    {
        const auto sent = send(fd, out.data(), out.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent > 0)
            out.consume(std::size_t(sent));
        else if (sent < 0 && !try_later(errno))
            out = buffer();
        if (out.size() == 0)
            shutdown(fd, SHUT_WR);
        const auto got = read();
        const bool broken = got < 0 && !try_later(errno);
        still_read -= std::min(still_read, std::size_t(std::max<ssize_t>(got, 0)));
        if (broken || still_read == 0 || (got == 0 && out.size() == 0))
            loop::unwatch(fd); // and this object with it
        else
            loop::change(fd, (got != 0 ? EPOLLIN : 0u) | (out.size() > 0 ? EPOLLOUT : 0u));
    }
    int fd;
    buffer out;
    std::size_t still_read; // bytes to take from a peer that goes on sending
    callback<void()> closed;
    timer limit;
};

// What ends with a connection.
struct connection {
    tv_channel *channel = nullptr;
    int id = -1; // the channel's, which no other connection has; -1: closed
    int fd = -1;
    bool established = false, pipelined = false; // established: requests may be sent
    bool writing = false;                        // the system would not take all of the output
    bool flush_due = false;                      // the loop has a task that flushes
    bool service_due = false;                    // the loop has a task that serves
    buffer in, out;
    int send_error = 0;            // nothing is sent any more
    std::string failure;           // why it ends, once what was received before is served
    std::uint32_t waiting_for = 0; // plain link: the request that was sent, perhaps timed out
    bool serving = false;          // plain link: a received request is not answered yet
    std::list<message> backlog;    // and these wait behind it
    std::size_t backlog_size = 0;
    timer heartbeat, overdue;
    int missed = 0; // heartbeats without an answer
    clock::time_point heard = clock::now();
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
    struct held_request {
        std::uint32_t id; // 0: one-way
        std::string text;
    };

    link(const options &settings, bool many_connections)
        : opts(settings), reconnects(many_connections)
    {
        opts.heartbeat = std::min(opts.heartbeat, milliseconds(INT_MAX)); // can be added to a time
    }
    virtual ~link() = default;

    // What clients and servers do differently. end() closes the connection and posts the report.
    virtual void end(reason why, std::string text) = 0;
    virtual void arrived(request received) = 0;
    virtual void drained() = 0;
    virtual void handle_other(int type,
                              const message &received) = 0; // login and what belongs to it
    virtual void accepted_pipelined() {}                    // a server accepts a client's offer

    // ---- the connection

    void open(tv_channel *record, int descriptor)
    {
        channel = record;
        id = record->channelId;
        fd = descriptor;
        heard = clock::now();
    }
    status watch()
    {
        return loop::watch(fd, [self = shared_from_this()] { self->ready(); });
    }
    void close_now()
    {
        loop::unwatch(fd);
        tv_close_channel(id);
        static_cast<connection &>(*this) = connection();
    }
    void close_when_sent(callback<void()> closed = nullptr)
    {
        write_out();
        const int copy = fcntl(fd, F_DUPFD_CLOEXEC, 0); // the channel closes its own
        const auto last =
            std::make_shared<closing_socket>(copy, std::move(out), opts, std::move(closed));
        close_now();
        const auto ready = [last] { last->ready(); };
        (void)loop::watch(copy, ready, EPOLLIN | EPOLLOUT); // refused: nothing is sent any more
    }
    // Report a request's outcome in the loop, never from inside the application's call.
    void post_result(callback<void(response)> handler, outcome what, status why)
    {
        loop::post([exists = alive, handler = std::move(handler), what, why] {
            if (*exists)
                handler({what, why});
        });
    }
    // Report the requests under way as lost, in their order; with keep_held, only those sent.
    void fail_calls(bool keep_held)
    {
        auto lost = std::exchange(calls, {});
        if (!keep_held) {
            held.clear();
            held_size = 0;
        }
        for (const auto &kept : held)
            calls.insert(lost.extract(kept.id));
        for (auto &entry : lost)
            post_result(std::move(entry.second.handler), outcome::lost,
                        {std::errc::connection_reset, "the link was lost"});
    }
    void supervise(milliseconds wait)
    {
        if (opts.heartbeat.count() > 0)
            heartbeat = timer::once(wait, [this] { heartbeat_due(); });
    }
    void hear()
    {
        heard = loop::now;
        missed = channel->hbSequence = 0;
    }
    void heartbeat_due()
    {
        const auto due = heard + opts.heartbeat * (missed + 1);
        const auto early = std::chrono::ceil<milliseconds>(due - clock::now());
        if (early.count() > 0)
            return supervise(early); // something has been received meanwhile
        if (++missed > opts.missed_heartbeats)
            return end(reason::silent, "heartbeats were not answered");
        channel->hbSequence++;
        append_heartbeat(c::build_heartbeat_msg);
        supervise(opts.heartbeat);
    }

    // ---- output

    std::size_t queued() const { return out.size() + held_size; }
    // The other end does not read what is sent. Requests held for their turn do not count.
    bool choked() const { return out.size() >= opts.max_queued; }
    status check(std::string_view text, bool plain)
    {
        if (id == -1 && !(reconnects && *alive))
            return {std::errc::not_connected, "the link is closed"};
        if (text.size() > max_payload)
            return {std::errc::message_size, "the payload is too long"};
        if (plain && text.find(reserved_text) != std::string_view::npos)
            return {std::errc::invalid_argument, "the payload contains \"velun_tolvane_\", which "
                                                 "only a pipelined link can carry"};
        if (queued() < opts.max_queued)
            return {};
        stalled = true;
        flush_later();
        return {std::errc::no_buffer_space, "the queue is full, try again later"};
    }
    // Have the loop flush this link before it waits.
    void flush_later()
    {
        if (flush_due || loop::epoll < 0)
            return;
        flush_due = true;
        loop::to_flush.push_back([self = shared_from_this()] { self->flush(); });
        loop::work_added();
    }
    void flush()
    {
        flush_due = false;
        write_out();
        if (writing != (out.size() > 0)) {
            writing = !writing;
            loop::change(fd, writing ? EPOLLIN | EPOLLOUT : EPOLLIN);
        }
        stalled = stalled || writing;
        if (stalled && queued() == 0) {
            stalled = false;
            drained();
        }
    }
    void write_out()
    {
        if (send_error != 0)
            out = buffer();
        if (out.size() == 0)
            return;
        const auto sent = send(fd, out.data(), out.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent > 0 && choked())
            hear();
        if (sent > 0)
            out.consume(std::size_t(sent));
        if (sent >= 0 || try_later(errno))
            return;
        // The link ends when what has arrived is read: receive() finds the end behind it.
        send_error = errno;
        out = buffer();
        shutdown(fd, SHUT_RDWR);
    }
    // Queue one frame: a message without its payload, a mark, and the payload.
    void append(const char *head, int head_size, std::string_view text,
                std::optional<mark> with = std::nullopt)
    {
        const std::size_t length = std::size_t(head_size) + (with ? mark::size : 0) + text.size();
        const std::uint32_t size = htonl(std::uint32_t(length));
        if (out.bytes.empty())
            out.bytes.reserve(256 + text.size());
        out.bytes.append(watermark);
        out.bytes.append(reinterpret_cast<const char *>(&size), sizeof(size));
        out.bytes.append(head, std::size_t(head_size));
        if (with)
            with->append_to(out.bytes);
        out.bytes.append(text);
        if (out.size() >= flush_size && !writing)
            write_out();
        flush_later();
    }
    void append_request(std::string_view text, std::optional<mark> with)
    {
        append(channel->msgBuf, c::pack_outgoing_rqst(channel, "", 0), text, with);
    }
    void append_heartbeat(int (*build)(tv_channel *, char *, int))
    {
        char head[512];
        if (!choked()) // else it would not be seen, and only fill the memory
            append(head, build(channel, head, sizeof(head)), {});
    }
    bool may_send(std::uint32_t call_id) const
    {
        return established && (pipelined || call_id == 0 || waiting_for == 0);
    }
    void transmit(std::uint32_t call_id, std::string_view text)
    {
        if (pipelined)
            return append_request(text, mark{call_id != 0 ? '?' : '!', call_id});
        if (call_id != 0)
            waiting_for = call_id;
        append_request(text, std::nullopt);
    }
    void submit(std::uint32_t call_id, std::string_view text)
    {
        if (held.empty() && may_send(call_id))
            return transmit(call_id, text);
        held.push_back({call_id, std::string(text)});
        held_size += text.size();
    }
    // Send what was held and may go now.
    void send_held()
    {
        while (!held.empty() && may_send(held.front().id)) {
            const auto next = std::move(held.front());
            held.pop_front();
            held_size -= next.text.size();
            transmit(next.id, next.text);
        }
    }
    status tell(std::string_view text)
    {
        const status result = check(text, !pipelined);
        if (result)
            submit(0, text);
        return result;
    }
    void ask(std::string_view text, milliseconds timeout, callback<void(response)> handler)
    {
        do
            last_id++;
        while (last_id == 0 || calls.count(last_id) != 0);
        status result = check(text, !pipelined);
        timer limit = timer::once(timeout, [this, number = last_id] { timed_out(number); });
        if (result && !limit)
            result = {std::errc::not_enough_memory, "no memory for the timeout"};
        if (!result)
            return post_result(std::move(handler), outcome::refused, result);
        calls[last_id] = {std::move(handler), std::move(limit)};
        submit(last_id, text);
    }
    // Reply to a request ('='), or decline it ('-').
    status answer(int connection_id, std::optional<mark> to, char kind, std::string_view text)
    {
        if (connection_id != id || id == -1)
            return {std::errc::not_connected, "the link of the request is closed"};
        const status result = kind == '=' ? check(text, !to) : status();
        if (!result)
            return result;
        if (to && (kind == '=' || !choked()))
            append_request(text, mark{kind, to->id});
        else if (kind == '=')
            append(channel->msgBuf, c::pack_outgoing_resp(channel, "", 0), text);
        serving = serving && to;
        if (!backlog.empty())
            serve_later();
        return result;
    }

    // ---- input

    // The length of the next message: 0 if it is incomplete, -1 if it is not valid.
    long next_frame()
    {
        if (in.size() < frame_header)
            return 0;
        std::uint32_t size;
        std::memcpy(&size, in.data() + frame_header - sizeof(size), sizeof(size));
        size = ntohl(size);
        if (std::memcmp(in.data(), watermark.data(), 15) != 0 || size == 0 ||
            size > TV_MSG_BUF_SIZE)
            return -1;
        return in.size() - frame_header < size ? 0 : long(size);
    }
    bool pending() { return (!serving && !backlog.empty()) || next_frame() > 0; }
    void receive()
    {
        const auto got = recv(fd, loop::received, sizeof(loop::received), MSG_DONTWAIT);
        if (got > 0)
            in.bytes.append(loop::received, std::size_t(got));
        else if (got == 0)
            failure = send_error == 0 ? "the other end closed the link" : std::strerror(send_error);
        else if (!try_later(errno))
            failure = std::strerror(errno);
    }
    void ready()
    {
        const int current = id;
        if (writing)
            flush();
        if (id == current && !pending())
            receive();
        for (int count = 0; id == current && count < served_per_turn && pending(); count++)
            serve_one();
        if (id != current)
            return;
        if (pending())
            serve_later();
        else if (next_frame() < 0 || backlog_size > opts.max_queued)
            end(reason::lost, "the other end broke the protocol");
        else if (!failure.empty())
            end(reason::lost, failure);
    }
    void serve_later()
    {
        if (std::exchange(service_due, true))
            return;
        loop::post([self = shared_from_this(), current = id] {
            if (self->id != current || current == -1)
                return;
            self->service_due = false;
            self->ready();
        });
    }
    void serve_one()
    {
        if (!serving && !backlog.empty()) {
            auto next = std::move(backlog.front());
            backlog.pop_front();
            backlog_size -= next.bytes.size();
            return deliver(std::nullopt, std::move(next));
        }
        const auto size = std::size_t(next_frame());
        message next{std::string(in.data() + frame_header, size)};
        in.consume(frame_header + size);
        if (c::tv_msg_received(channel, c::get_msg_sequence(next.bytes.data())) != 0)
            return;
        if (!choked())
            hear(); // a peer that sends, but does not read its replies, is not alive
        handle(std::move(next));
    }
    void handle(message &&received)
    {
        const int type = c::get_msg_type(received.bytes.data());
        const int size = int(received.bytes.size());
        int length = 0;
        const bool complete = c::get_msg_payload(received.bytes.data(), size, &length) != nullptr;
        received.start = std::size_t(size - length);
        if (type == TV_MSG_REQUEST && complete)
            request_received(std::move(received));
        else if (type == TV_MSG_REPLY)
            reply_received(std::move(received));
        else if (type == TV_MSG_HEARTBEAT)
            append_heartbeat(c::build_heartbeat_ack_msg);
        else
            handle_other(type, received);
    }
    void request_received(message &&received)
    {
        std::optional<mark> with;
        if (pipelined || (opts.pipelined && !established))
            with = mark::read(received.payload());
        if (with)
            received.start += mark::size;
        if (!with && serving) {
            backlog_size += received.bytes.size();
            backlog.push_back(std::move(received));
        } else if (!with || with->kind == '?' || with->kind == '!') {
            deliver(with, std::move(received));
        } else if (with->kind == '-') {
            finish(with->id, {outcome::declined,
                              {std::errc::operation_canceled, "the other end declined to reply"}});
        } else if (with->id == 0) {
            accepted_pipelined();
        } else {
            finish(with->id, {outcome::replied, {}, std::move(received)});
        }
    }
    void deliver(std::optional<mark> with, message &&received);
    // A reply, also one too late, ends a plain link's wait.
    void reply_received(message &&received)
    {
        if (waiting_for == 0)
            return;
        const int current = id;
        overdue.stop();
        finish(std::exchange(waiting_for, 0), {outcome::replied, {}, std::move(received)});
        if (id == current)
            send_held();
    }
    // Call the handler of a request, unless it has been called.
    void finish(std::uint32_t call_id, response &&result)
    {
        const auto found = calls.find(call_id);
        if (found == calls.end())
            return;
        const auto ended = std::move(found->second);
        calls.erase(found);
        ended.handler(std::move(result));
    }
    void timed_out(std::uint32_t call_id)
    {
        const auto found = std::find_if(held.begin(), held.end(),
                                        [&](auto &entry) { return entry.id == call_id; });
        if (found != held.end()) {
            held_size -= found->text.size();
            held.erase(found);
            flush_later();
        }
        if (call_id == waiting_for)
            overdue =
                timer::once(opts.late_reply, [this] { end(reason::lost, "a reply is overdue"); });
        finish(call_id, {outcome::timed_out, {std::errc::timed_out, "no reply in time"}});
    }

    options opts;
    std::shared_ptr<bool> alive = std::make_shared<bool>(true); // the client or server exists
    const bool reconnects; // a client's: what is sent without a connection is held
    bool stalled = false;  // drained() is due
    std::map<std::uint32_t, call> calls;
    std::list<held_request> held; // until the connection, or a plain link's turn
    std::size_t held_size = 0;
    std::uint32_t last_id = 0;
    std::string url;            // a server's link: the client's name, empty before its login
    std::shared_ptr<void> data; // the application's
    const void *data_type = nullptr;
};

template <class T> constexpr char type_tag = 0; // its address stands for the type

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
        if (link != nullptr)
            return link->ask(text, timeout, std::move(handler));
        loop::post([handler = std::move(handler)] { handler({outcome::refused, nobody()}); });
    }
    /** Send a one-way request, which gets no reply. Success means that it is queued: a link that is
     * lost loses what it had queued. Refused: a text that request() would refuse. A program on the
     * C interface must not answer it. */
    status tell(std::string_view text) const
    {
        return link != nullptr ? link->tell(text) : nobody();
    }
    /** The bytes that wait to be sent. */
    std::size_t queued() const { return link != nullptr ? link->queued() : 0; }

    /** For the layer itself: the end of a link, or of none. */
    explicit other_end(std::shared_ptr<detail::link> to = nullptr) : link(std::move(to)) {}

protected:
    static status nobody() { return {std::errc::not_connected, "an empty handle"}; }
    std::shared_ptr<detail::link> link;
};

/** One client of a server: a handle to copy and keep. It turns false when the client's connection
 * ends, and stays false: a client that connects again is another peer. Handles of the same
 * connection compare equal. */
class peer : public other_end
{
public:
    /** True while the client is connected. Then request() and tell() reach it; after that they are
     * refused. */
    explicit operator bool() const { return link != nullptr && link->id != -1; }
    /** The name that the client logged in with; empty before. Valid as long as a handle. */
    const std::string &url() const
    {
        static const std::string none;
        return link != nullptr ? link->url : none;
    }
    /** End the connection once what is queued is sent, at most connect_timeout later; the handle
     * turns false now. Requests under way get outcome::lost, and on_logout gets reason::closed. The
     * client may connect again. What is queued is sent only while the loop runs. */
    void close()
    {
        if (*this)
            link->end(reason::closed, {});
    }
    /** The application's own data of this client, made by T() on first use and destroyed after
     * on_logout has returned. Null then, for an empty handle, and for a type other than the
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
    friend bool operator==(const peer &a, const peer &b) { return a.link == b.link; }
    friend bool operator!=(const peer &a, const peer &b) { return a.link != b.link; }

    using other_end::other_end; // for the layer itself; without an argument, an empty handle
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
    std::string_view payload() const { return state != nullptr ? state->body.payload() : ""; }
    /** The client that sent it. In a client, a handle of its server, with an empty URL: it is true
     * while the client is connected, and true again after a reconnect. Meanwhile tell() and
     * request() queue. Once the client is destroyed they refuse. */
    peer from() const { return peer(state != nullptr ? state->link : nullptr); }
    /** True until it is answered or declined; false from the start for a one-way request on a
     * pipelined link. A plain link does not carry that: a peer that awaits no reply takes one
     * for the reply to its next request, so do not answer what is one-way in your protocol. */
    bool wants_reply() const { return state != nullptr && state->open; }
    /** Answer the request. Refused: it is answered already or wants no reply, the link has gone,
     * the payload is too long or not allowed on a plain link, or the queue is full. After a
     * refusal it may still be answered. */
    status reply(std::string_view text)
    {
        if (!wants_reply())
            return {std::errc::invalid_argument, "no reply is awaited"};
        const status result = state->answer('=', text);
        state->open = !result;
        return result;
    }
    /** Let the other end know that there will be no reply. On a plain link it finds out when its
     * timeout has passed. */
    void decline()
    {
        if (wants_reply())
            state->decline();
    }

private:
    friend struct detail::link;
    struct received {
        ~received()
        {
            if (open)
                decline();
        }
        void decline()
        {
            open = false;
            (void)answer('-', {});
        }
        status answer(char kind, std::string_view text) const
        {
            return link->answer(connection, with, kind, text);
        }
        std::shared_ptr<detail::link> link;
        int connection;
        std::optional<detail::mark> with;
        bool open; // to an answer
        detail::message body;
    };
    std::unique_ptr<received> state;
};

inline void detail::link::deliver(std::optional<mark> with, message &&received)
{
    request incoming;
    serving = serving || !with;
    const bool open = !with || with->kind != '!';
    incoming.state.reset(
        new request::received{shared_from_this(), id, with, open, std::move(received)});
    arrived(std::move(incoming));
}

// ---- client --------------------------------------------------------------------------------

namespace detail
{

inline bool is_address(const std::string &text)
{
    in_addr address;
    return text.find('\0') == std::string::npos && inet_pton(AF_INET, text.c_str(), &address) == 1;
}

struct client_state final : link {
    client_state(const options &settings, endpoint to, endpoint self)
        : link(settings, true), server(std::move(to)), name(std::move(self))
    {
    }
    void arrived(request received) override { on.request(std::move(received)); }
    void drained() override { on.drained(); }
    void attempt_after(milliseconds time)
    {
        step = timer::once(time, [this] { attempt(); });
    }
    // Begin a connection on a fresh channel: an old one would go on counting messages.
    void attempt()
    {
        step = timer::once(opts.connect_timeout,
                           [this] { end(reason::lost, "the server did not answer in time"); });
        connecting_ended(start_connecting());
    }
    void connecting_ended(int error)
    {
        if (error != 0)
            end(reason::lost, std::string("connecting failed: ") + std::strerror(error));
    }
    // Return 0 or an error number.
    int start_connecting()
    {
        tv_client_addr address{};
        server.host.copy(address.serverIp, sizeof(address.serverIp) - 1);
        address.serverPort = server.port;
        tv_channel *record = tv_get_channel(tv_create_client_channel(&address));
        if (record == nullptr)
            return ENOMEM;
        std::snprintf(record->url, TV_URL_SIZE, "%s", name.url().c_str()); // any length that fits
        open(record, socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        record->clientSocket->fd = fd;
        if (fd < 0)
            return errno;
        send_at_once(fd);
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(server.port);
        inet_pton(AF_INET, server.host.c_str(), &to.sin_addr);
        if (::connect(fd, reinterpret_cast<const sockaddr *>(&to), sizeof(to)) != 0 &&
            errno != EINPROGRESS)
            return errno;
        const auto connected = [self = shared_from_this(), this] { finish_connecting(); };
        return int(loop::watch(fd, connected, EPOLLOUT).error());
    }
    // TCP has connected, or has failed to. Log in, and send a heartbeat behind the login: a server
    // of this layer answers the login first, any other one answers the heartbeat only. Requests
    // wait for that, so none is sent to a server that has not accepted the connection.
    void finish_connecting()
    {
        int error = 0;
        socklen_t size = sizeof(error);
        if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) != 0)
            error = errno;
        if (error == 0 && connected_to_itself()) {
            const linger reset{1, 0}; // an orderly close would keep the server's port in use
            setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
            error = ECONNREFUSED;
        }
        loop::unwatch(fd);
        if (error == 0)
            error = int(watch().error());
        if (error != 0)
            return connecting_ended(error);
        const int length = c::build_login_msg(channel, channel->url);
        append(channel->msgBuf, length, opts.pipelined ? pipelined_offer : std::string_view());
        append_heartbeat(c::build_heartbeat_msg);
    }
    // While no server listens, a client on the same host that keeps trying may get the server's
    // port as its own one day. TCP connects it to itself then.
    bool connected_to_itself() const
    {
        const auto own = address_of(fd, getsockname), other = address_of(fd, getpeername);
        return own.sin_port == other.sin_port && own.sin_addr.s_addr == other.sin_addr.s_addr;
    }
    void handle_other(int type, const message &) override
    {
        if (type == TV_MSG_HEARTBEAT_ACK)
            establish(false);
    }
    void accepted_pipelined() override { establish(true); }
    // The server has read the login: it has answered the heartbeat behind it, or the offer in it.
    void establish(bool both_layers)
    {
        if (std::exchange(established, true))
            return;
        pipelined = both_layers;
        backoff = shortest;
        step.stop();
        supervise(opts.heartbeat);
        send_held();
        on.connected();
    }
    // A link was lost, or an attempt failed.
    void end(reason why, std::string text) override
    {
        if (why == reason::closed)
            return disconnect();
        close_now();
        step.stop();
        active = opts.reconnect;
        if (active) { // after a random half to whole of the back-off: 100 ms to 5 s
            const auto half = backoff.count() / 2;
            attempt_after(milliseconds(half + milliseconds::rep(random()) % (half + 1)));
            backoff = std::min(backoff * 2, longest);
        }
        fail_calls(active);
        lost_by = std::move(text);
        loop::post([self = shared_from_this(), this] {
            if (!lost_by.empty())
                on.lost(std::exchange(lost_by, {}));
        });
    }
    void disconnect()
    {
        step.stop();
        active = false;
        lost_by.clear();
        if (id != -1 && channel->msgSequence > 0) { // has logged in
            append(channel->msgBuf, c::build_logout_msg(channel, channel->url), {});
            close_when_sent();
        } else if (id != -1) {
            close_now();
        }
        fail_calls(false);
    }

    static constexpr milliseconds shortest{200}, longest{5000};
    const endpoint server, name;
    bool active = false;
    std::string lost_by; // the reason that on_lost has yet to get
    timer step;          // to the next attempt, or to the end of the one under way
    milliseconds backoff = shortest;
    std::minstd_rand random{std::uint32_t(clock::now().time_since_epoch().count() ^ getpid())};
    struct {
        callback<void()> connected, drained;
        callback<void(std::string_view)> lost;
        callback<void(tolvane::request)> request;
    } on; // cleared by ~client
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
        : other_end(
              std::make_shared<detail::client_state>(options, std::move(server), std::move(name))),
          state(static_cast<detail::client_state *>(link.get()))
    {
    }
    /** Disconnect. Handlers of requests under way are destroyed without a call. */
    ~client()
    {
        *state->alive = false;
        disconnect();
        const auto released = std::exchange(state->on, {}); // may hold handles of this client
        const auto data = std::exchange(state->data, nullptr);
    }
    client(client &&) = delete;

    /** Start connecting, and keep connecting until disconnect(), or, with options::reconnect off,
     * until on_lost. Refused on bad arguments only; on_connected and on_lost report everything
     * else. Does nothing while it is under way. */
    status connect()
    {
        const std::string own = state->name.url();
        const auto control = [](unsigned char letter) { return letter < ' '; };
        if (!detail::is_address(state->server.host) || state->server.port == 0)
            return {std::errc::invalid_argument,
                    "the server's address is no dotted IPv4 text, or its port is 0"};
        if (state->name.host.empty() || own.size() >= TV_URL_SIZE ||
            own.find(detail::reserved_text) != std::string::npos ||
            std::any_of(own.begin(), own.end(), control))
            return {std::errc::invalid_argument, "the client's name does not fit a URL"};
        if (!std::exchange(state->active, true))
            state->attempt_after(milliseconds(1));
        return {};
    }
    /** Log out and end the connection once what is queued is sent, at most connect_timeout later.
     * Requests under way or not sent yet get outcome::lost; on_lost is not called. What is queued is
     * sent only while the loop runs. */
    void disconnect() { state->disconnect(); }
    /** True while connected: from on_connected until the link is lost or closed. */
    explicit operator bool() const { return state->established; }
    /** Set what runs when the server has read the login. A full server does not read it. */
    void on_connected(callback<void()> handler) { state->on.connected = std::move(handler); }
    /** Set what runs when the link is lost, or an attempt to connect has failed, with the reason as
     * a text that is valid until the handler returns. The next attempt follows by itself, unless
     * options::reconnect is off. Requests not sent yet wait for it; those sent have got
     * outcome::lost. */
    void on_lost(callback<void(std::string_view why)> handler)
    {
        state->on.lost = std::move(handler);
    }
    /** Set what runs when the queue is empty again, after it was full or the system had not taken
     * all of it at once. */
    void on_drained(callback<void()> handler) { state->on.drained = std::move(handler); }
    /** Set what runs with each request of the server. Without one, requests are declined. */
    void on_request(callback<void(tolvane::request)> handler)
    {
        state->on.request = std::move(handler);
    }

private:
    detail::client_state *const state; // the link
};

// ---- server --------------------------------------------------------------------------------

namespace detail
{

struct server_state : std::enable_shared_from_this<server_state> {
    explicit server_state(const options &settings) : opts(settings) {}
    bool full() const { return pairs.size() + closing >= opts.max_clients; }
    // Accept clients while there is room. A full server leaves them in the system's backlog.
    void resume()
    {
        if (fd == -1 || retry || full())
            return;
        const status watched = loop::watch(fd, [self = shared_from_this()] { self->ready(); });
        if (!watched && watched.error() != std::errc::file_exists)
            pause();
    }
    void ready()
    {
        for (int count = 0; count < served_per_turn && !full(); count++) {
            const int accepted = accept4(fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
            if (accepted < 0 && (errno == EAGAIN || errno == EINTR || errno == ECONNABORTED))
                return;
            if (accepted < 0 || !add(accepted))
                return pause();
        }
        if (full())
            loop::unwatch(fd);
    }
    // Without descriptors or memory, try again after a while.
    void pause()
    {
        loop::unwatch(fd);
        retry = timer::once(milliseconds(100), [this] { resume(); });
    }
    bool add(int accepted);
    std::shared_ptr<link> find(const char *url) const
    {
        if (fd == -1)
            return nullptr;
        const tv_channel *found = c::get_channel_by_ip(&tv_service_server.pairList, url);
        const auto entry = pairs.find(found != nullptr ? found->channelId : -1);
        return entry != pairs.end() ? entry->second : nullptr;
    }
    const options opts;
    const std::shared_ptr<bool> alive = std::make_shared<bool>(true);
    std::map<int, std::shared_ptr<link>> pairs; // by channel id: in order of acceptance
    std::deque<callback<void()>> logouts;       // of links that have ended, in order
    std::size_t closing = 0;                    // connections that still send their last bytes
    int fd = -1;
    timer retry; // accepting is paused until it fires
    std::uint16_t port = 0;
    struct {
        callback<void(peer)> login, drained;
        callback<void(peer, reason)> logout;
        callback<void(tolvane::request)> request;
    } on; // cleared by ~server
};

// The server's end of one connection.
struct pair final : link {
    explicit pair(std::shared_ptr<server_state> owner)
        : link(owner->opts, false), server(std::move(owner))
    {
        alive = server->alive;
        established = true;
    }
    void arrived(request received) override { server->on.request(std::move(received)); }
    void drained() override
    {
        if (id != -1)
            server->on.drained(peer(shared_from_this()));
    }
    void handle_other(int type, const message &received) override
    {
        if (type == TV_MSG_LOGOUT)
            end(reason::logged_out, {});
        else if (type == TV_MSG_LOGIN && received.payload()[0] != '\0')
            login(received);
    }
    // As the library does, but with the handlers of the layer: an older link of the same name ends
    // first.
    void login(const message &received)
    {
        const std::string_view name = received.payload().data(); // up to its 0x00
        const int current = id;
        const auto older = [&] { return id == current ? server->find(name.data()) : nullptr; };
        for (auto found = older(); found != nullptr && found.get() != this; found = older())
            found->end(reason::replaced, {}); // its handler may let others log in
        char *copy = id == current ? strdup(received.bytes.c_str()) : nullptr;
        if (copy == nullptr)
            return;
        c::login_msg_received(channel, copy); // names the channel, and releases the copy
        url = channel->url;
        const auto rest = received.payload().substr(name.size());
        if (opts.pipelined && !pipelined && !rest.empty() && rest.substr(1) == pipelined_offer) {
            append_request({}, mark{'=', 0});
            pipelined = true;
            send_held();
        }
        run_all(server->logouts); // one of the same name may be among them
        if (id == current)
            server->on.login(peer(shared_from_this()));
    }
    void end(reason why, std::string) override
    {
        const auto self = shared_from_this();
        if (why == reason::replaced)
            announce(why); // what its handler tells the client is still sent
        if (id == -1)
            return;
        server->pairs.erase(id);
        if (why == reason::closed || why == reason::replaced) {
            server->closing++;
            close_when_sent([owner = server] {
                owner->closing--;
                owner->resume();
            });
        } else {
            close_now();
        }
        server->resume();
        fail_calls(false);
        server->logouts.push_back([self, this, why] {
            announce(why);
            data = nullptr; // it may hold handles and requests of this link
        });
        loop::post([owner = server] { run_all(owner->logouts); });
    }
    void announce(reason why)
    {
        if (*alive && !url.empty() && !std::exchange(announced, true))
            server->on.logout(peer(shared_from_this()), why);
    }
    bool announced = false;
    const std::shared_ptr<server_state> server;
};

inline bool server_state::add(int accepted)
{
    send_at_once(accepted);
    if (c::create_pair_channel(accepted) != 0)
        return false; // and closed
    const auto *newest = reinterpret_cast<const tv_channel_node *>(tv_service_server.pairList.prev);
    const auto added = std::make_shared<pair>(shared_from_this());
    added->open(newest->channel, accepted);
    added->supervise(opts.heartbeat);
    pairs[added->id] = added;
    if (added->watch())
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
    explicit server(loop &, options options = {})
        : state(std::make_shared<detail::server_state>(options))
    {
    }
    /** Stop. Handlers of requests under way are destroyed without a call, and on_logout does not
     * run. */
    ~server()
    {
        *state->alive = false;
        stop();
        detail::run_all(state->logouts);                    // which release the data only
        const auto released = std::exchange(state->on, {}); // may hold handles of this server
    }
    server(server &&) = delete;

    /** Listen on a dotted IPv4 address, "0.0.0.0" for all, and a port, 0 for one that the system
     * chooses. Refused: another text, an address that cannot be listened on, or a server that runs
     * in this process already, on the C interface or on this one. */
    status listen(const std::string &address, std::uint16_t at)
    {
        if (!detail::is_address(address))
            return {std::errc::invalid_argument, "the address is no dotted IPv4 text"};
        if (tv_service_server.serverChannel != nullptr)
            return {std::errc::device_or_resource_busy, "a server is running in this process"};
        errno = EADDRNOTAVAIL; // unless the system says otherwise
        if (tv_start_server(address.c_str(), at) == -1)
            return detail::system_refusal("the address cannot be listened on");
        state->fd = tv_get_server_polling_fd();
        fcntl(state->fd, F_SETFL,
              fcntl(state->fd, F_GETFL) | O_NONBLOCK); // a client may be gone when accepted
        ::listen(state->fd, SOMAXCONN);                // again, with a longer backlog
        state->port = ntohs(detail::address_of(state->fd, getsockname).sin_port);
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
    peer find(const std::string &url) const
    {
        return peer(url.empty() ? nullptr : state->find(url.c_str()));
    }
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
        std::size_t count = 0;
        for (auto &one : peers())
            count += one.tell(text) ? 1 : 0;
        return count;
    }
    /** Set what runs when a client has logged in, or has taken another name. */
    void on_login(callback<void(peer)> handler) { state->on.login = std::move(handler); }
    /** Set what runs when a client that had logged in is gone, for any reason. Its handle is false
     * by then; url() and data() still work. After reason::replaced the handle is true until the
     * handler returns, and a last message to the older client is still sent. */
    void on_logout(callback<void(peer, reason)> handler) { state->on.logout = std::move(handler); }
    /** Set what runs when a peer's queue is empty again, after it was full or the system had not
     * taken all of it at once. */
    void on_drained(callback<void(peer)> handler) { state->on.drained = std::move(handler); }
    /** Set what runs with each request of a client, one that has not logged in included. Without
     * one, requests are declined. */
    void on_request(callback<void(tolvane::request)> handler)
    {
        state->on.request = std::move(handler);
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

/** Hand every entry of the library's log to a handler, for example for spdlog or journald: one
 * entry a call, without the line feeds at its end, valid until the handler returns. It runs inside
 * whatever logs, so it must not destroy or close anything; what it causes to be logged itself is
 * not. An empty handler ends that. */
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
