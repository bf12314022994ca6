// tolvane.hpp - clients and servers that never block: the C++17 layer over tolvane.h.
//
// A program needs one loop, and on it any number of clients and at most one server. Callbacks are
// lambdas; destroying an object ends its work. The layer is header-only and optional. Link with
// libtolvane.so and libruvo_timer.so. The other end may use this layer or the C interface.
//
//   loop      waits for descriptors, timers and posted work, and runs every callback
//   timer     runs a callback once or periodically
//   link      (internal) one end of a connection, kept over reconnects: buffers, frames,
//             heartbeats, outstanding requests
//   peer      a server's handle of one client; other_end is the base class of peer and client
//   request   one received request, answered now or later
//   client    a link that connects, logs in and reconnects
//   server    a listening socket and a link per client
//
// Each part is built on those before it. Wire format, channel records, sequence numbers and timers
// are the library's; sockets are read and written here, so that no call waits for a peer.
//
// CONVENTIONS, true of every entry below unless it says otherwise
//
// Callbacks  run only inside run() and run_once(). They may call anything, and may destroy or close
//            any object, including the one that they belong to. The handler of log_to() is an
//            exception: it runs inside the call that logs, and must not destroy or close anything.
//            The end of a link or a request is reported from the loop, never from inside the call
//            that ended it. A C++ exception that leaves a callback ends the program.
// Results    operations that can be refused return a status. Nothing throws but std::bad_alloc.
// Blocking   nothing blocks but run() and run_once(). What the system does not take at once waits
//            in the link's queue, which is full at options::max_queued bytes.
// Time       milliseconds on the monotonic clock. A time below 1 ms counts as 1 ms, one above
//            24.8 days as 24.8 days.
// Threads    all calls come from one thread, except loop::post(), which any thread may call.
// Links      if both ends support pipelined links, as this layer does (options::pipelined, the
//            default), the link is pipelined: any number of requests may be outstanding in both
//            directions. Any other link is plain: one request at a time awaits its reply in each
//            direction, and further ones queue.
#ifndef TOLVANE_HPP
#define TOLVANE_HPP

#if !defined(TOLVANE_H) && !defined(TOLVANE_APPLICATION_ONLY)
#define TOLVANE_APPLICATION_ONLY // leaves names such as get_channel and log_file free
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

/** The longest request or reply in bytes. It fits into one message on every link, with any URL. */
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

/** The result of an operation: true, or a code and a text that say why it was refused. A refused
 * operation has changed nothing. full() is true if the queue has no room now: try again after
 * on_drained. After any other refusal, waiting for on_drained does not help; what() says why.
 * what() is always valid. Nothing else reports a refused message, so check every status; cast it to
 * void where the loss does not matter. */
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

/** An address and a port. A server's host is a dotted IPv4 address; names are not resolved. A
 * client's own endpoint is the name that it logs in with, and need not be a real address. Its host
 * must not be empty. Its URL, "tcp://host:port", has at most 63 characters, no control characters
 * and no "velun_tolvane_". */
struct endpoint {
    std::string host;
    std::uint16_t port = 0;

    std::string url() const { return "tcp://" + host + ":" + std::to_string(port); }
};

/** Settings of a client, or of a server and all its clients' links. */
struct options {
    /// silence after which a heartbeat is sent; 0: none but the one that follows a login
    milliseconds heartbeat{5000};
    /// limit for one attempt, including the login; and for sending queued output on close
    milliseconds connect_timeout{5000};
    /// on a plain link, how long a reply may be overdue
    milliseconds late_reply{1000};
    /// unanswered heartbeats after which a link counts as lost
    int missed_heartbeats = 2;
    /// offer pipelined links as a client, accept them as a server
    bool pipelined = true;
    /// client only: connect again 100 ms to 5 s after a lost link
    bool reconnect = true;
    /// unsent bytes at which a link's queue is full
    std::size_t max_queued = 8 << 20;
    /// server only: connections; further clients wait in the backlog
    std::size_t max_clients = 1000;
};

/** What became of a request: the other end replied; no reply arrived in time; the link was lost or
 * closed before the reply; the other end declined to reply (pipelined links only); or the request
 * was refused at this end and not sent. */
enum class outcome { replied, timed_out, lost, declined, refused };

/** Why a client has gone: it logged out; a newer client logged in with its name; its link was lost;
 * it stopped answering heartbeats, or did not read while its queue was full; or the server closed
 * it. */
enum class reason { logged_out, replaced, lost, silent, closed };

class peer;
class request;

// Functions of the library's lower layers. They are declared here because tolvane.h hides them from
// application programs; a second declaration does no harm.
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

// Messages served, or clients accepted, before others get their turn.
constexpr int served_per_turn = 64;
// A link with this many unsent bytes sends at once instead of at the end of its turn.
constexpr std::size_t flush_size = 65536;
// Bytes that a closing link reads and discards before it gives up.
constexpr std::size_t max_discarded = 8 << 20;
constexpr std::size_t frame_header = 36; // watermark and length
constexpr std::string_view watermark{"TCP_WATER_MARK\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 32};
constexpr std::string_view reserved_text = "velun_tolvane_";     // begins every tag
constexpr std::string_view pipelined_offer{"\0pipelined\0", 11}; // follows the URL of a login

inline bool try_later(int error)
{
    return error == EAGAIN || error == EINTR || error == ENOBUFS || error == ENOMEM;
}

// The address of an endpoint. Its family is not set if the host is not a dotted IPv4 address.
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

// A byte queue. Consumed bytes stay in front until they are more than half of it. An empty queue
// holds no memory, so an idle link costs little.
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

/** The event loop, which runs the callbacks of all timers, clients and servers. A process has one
 * loop: all loop objects refer to it, and it closes when the last of them is destroyed. Clients,
 * servers, timers and requests may outlive it, but do nothing without it. */
class loop
{
public:
    /** Opens the loop. If the system has no descriptor left, the loop stays closed: run() returns
     * false at once, and watch() is refused. */
    loop()
    {
        if (objects++ > 0)
            return;
        stopped = nested = false;
        alarm = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
        wakeup = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        epoll = epoll_create1(EPOLL_CLOEXEC);
        for (const int counter : {wakeup, alarm}) { // edge-triggered, so neither is ever read
            if (!watch(counter, nullptr, EPOLLIN | EPOLLET))
                close();
        }
    }
    ~loop()
    {
        if (--objects == 0)
            close();
    }
    loop(loop &&) = delete;

    /** Serves until stop() is called, and returns true then. Returns false if the loop is closed or
     * waiting fails. */
    bool run()
    {
        bool open = true;
        while (open && !std::exchange(stopped, false))
            open = run_once(milliseconds(-1));
        return open;
    }
    /** Makes run() return when the round in progress is complete. If calls of run() are nested, the
     * innermost returns. If run() is not in progress, its next call returns at once. */
    void stop() { stopped = true; }
    /** Runs one round: waits for work for at most `limit` (0: does not wait; negative: waits
     * without limit), then reads what has arrived, runs posted work, fires timers and sends. May be
     * called inside a callback. Returns false if the loop is closed or waiting fails. */
    bool run_once(milliseconds limit)
    {
        // one for each descriptor, so that all ready ones are served before timers fire
        events.resize(watched.size() + 1);
        waiting = true;
        const int count = epoll_wait(epoll, events.data(), int(events.size()), wait_time(limit));
        waiting = false;
        if (count < 0 && errno != EINTR)
            return false;
        // A callback may run a nested round, which serves what was reported to this one. This round
        // then drops its remaining events: a descriptor that is still ready is reported again.
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
    /** Runs a callback whenever a descriptor is readable, or ready for the epoll events `wanted`,
     * until unwatch() is called. The program still owns the descriptor and closes it. A regular
     * file is always ready, so its callback runs in every round. Refused: a descriptor that is
     * watched already or is not open. */
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
    /** Stops watching a descriptor, effective immediately. Call it before you close the descriptor.
     * Does nothing if the descriptor is not watched. */
    static void unwatch(int fd)
    {
        const auto found = watched.find(fd);
        if (found == watched.end())
            return;
        const auto released = std::move(found->second); // its destructor may call back
        watched.erase(found);
        epoll_ctl(epoll, EPOLL_CTL_DEL, fd, nullptr);
    }
    /** Runs a callback from the loop, in the running round or the next one, never inside this call.
     * Any thread may call this while there is a loop. */
    static void post(callback<void()> task)
    {
        const std::lock_guard<std::mutex> lock(guard);
        if (epoll >= 0)
            posted.push_back(std::move(task));
        wake();
    }
    /** Returns a descriptor for nesting this loop in another one, or -1 if the loop is closed.
     * Watch it in the other loop, and call run_once(0ms) whenever it is readable. This loop closes
     * it. */
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
        epoll_event event; // its data: the descriptor, and a number unique to this registration
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
    // Wakes the loop, or the loop around it, if it is waiting: work has been added.
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
        // As unsigned, -1 (no limit) is the largest.
        return posted.empty() ? int(std::min(unsigned(longest), unsigned(due))) : 0;
    }
    // Returns false if the registration has ended, even if its descriptor's number is in use again.
    static bool serve(std::uint64_t key)
    {
        const auto found = watched.find(int(key));
        if (found == watched.end() || found->second.event.data.u64 != key)
            return false;
        found->second.handler();
        return true;
    }
    // epoll refuses regular files; they count as ready in every round.
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
    // Makes fd() readable as soon as run_once(0ms) has work.
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
    static inline char received[detail::flush_size]; // receive buffer of all links
};

// ---- timer ---------------------------------------------------------------------------------

/** Runs a callback later. Move-only. Keep the object: its destructor stops the timer. */
class [[nodiscard]] timer
{
public:
    /** A timer that is not pending. */
    timer() = default;
    /** Runs a callback once, after a time. */
    static timer once(milliseconds after, callback<void()> task)
    {
        return timer(after, std::move(task), false);
    }
    /** Runs a callback after every period. If several periods have passed, it runs once and
     * continues with the next one still to come. */
    static timer every(milliseconds period, callback<void()> task)
    {
        return timer(period, std::move(task), true);
    }
    /** Cancels the next run. Does nothing if the timer is not pending. */
    void stop() { state.reset(); }
    /** True while the timer is pending: false after stop(), once its only run has begun, and if the
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

/** What a request's handler receives. True if there is a reply. */
class response
{
public:
    /** For the layer itself, and for testing handlers. */
    response(tolvane::outcome what, tolvane::status why, detail::buffer reply = {})
        : result(what), cause(why), body(std::move(reply))
    {
    }
    /** What became of the request. */
    tolvane::outcome outcome() const { return result; }
    /** Success if there is a reply; otherwise the reason why there is none. */
    tolvane::status status() const { return cause; }
    /** The reply, or nothing. Never null; followed by a 0x00; valid as long as the response. */
    std::string_view payload() const { return body.view(); }
    explicit operator bool() const { return result == tolvane::outcome::replied; }

private:
    tolvane::outcome result;
    tolvane::status cause;
    detail::buffer body;
};

namespace detail
{

// The ten bytes before the payload of every message on a pipelined link: kind, correlation ID in
// hexadecimal, and 0x00. On the wire each such message is a request without a reply; see
// docs/protocol.md.
struct pipeline_header {
    static constexpr std::size_t size = 10;
    static constexpr std::string_view kinds = "?=!-"; // request, reply, one-way, declined

    static pipeline_header read(std::string_view payload)
    {
        pipeline_header found;
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
    char kind = '\0'; // '\0': no such header, as on a plain link
    std::uint32_t id = 0;
};

// Sends what the system takes at once. Returns the number of bytes sent, or a negative error
// number.
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
// descriptor. If it were closed at once, later input would reset the connection, and the other end
// could lose what it has not read.
struct closing_socket {
    ~closing_socket()
    {
        read(); // closing with unread input would reset the connection
        close(fd);
    }
    ssize_t read() const { return recv(fd, loop::received, sizeof(loop::received), MSG_DONTWAIT); }
    void ready()
    {
        send_some(fd, out);
        if (out.size() == 0)
            shutdown(fd, SHUT_WR);
        const auto got = read();
        discarded += std::size_t(std::max<ssize_t>(got, 0));
        if (got == 0 || discarded > max_discarded || (got < 0 && !try_later(errno)))
            loop::unwatch(fd); // and this object with it
        else
            loop::change(fd, out.size() > 0 ? EPOLLIN | EPOLLOUT : EPOLLIN);
    }
    std::shared_ptr<void> slot; // see listener
    int fd = -1;
    buffer out;
    timer limit;
    std::size_t discarded = 0; // bytes from a peer that continues to send
};

// What a client or a server shares with its links: options and callbacks. Destroying the client or
// server empties it.
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

// The state that is reset when a connection ends.
struct connection {
    tv_channel *channel = nullptr;
    int id = -1; // the channel's id, unique to this connection; -1: closed
    int fd = -1;
    bool established = false, pipelined = false; // established: requests may be sent
    bool writing = false;                        // output is left, so EPOLLOUT is watched
    buffer in, out;
    int send_error = 0;
    // plain link: correlation ID of the request that was sent, which may have timed out
    std::uint32_t waiting_for = 0;
    bool serving = false; // plain link: a received request is not answered yet
    buffer backlog; // plain link: frames of further requests, served when that one is answered
    timer heartbeat, overdue;
    clock::time_point heard = clock::now();
    std::shared_ptr<void> slot; // a server's link: see listener
};

// One end of a connection, and the outstanding requests on it. A client keeps one link for all its
// connections.
//
// A plain link has one outstanding request, and serves one received request at a time. When the
// request times out, waiting_for stays set, and the next request is sent only after the late reply
// has arrived. Otherwise the late reply could be taken for the reply to the new request. A
// pipelined link has no such limits.
struct link : connection, std::enable_shared_from_this<link> {
    struct call {
        callback<void(response)> handler;
        timer limit;
    };

    link(std::shared_ptr<handlers> by, bool reconnecting)
        : on(std::move(by)), reconnects(reconnecting)
    {
    }
    virtual ~link() = default;

    // ---- what clients and servers do differently

    // Closes the connection and posts the report.
    virtual void end(reason, std::string) {}
    // Every message but requests, awaited replies and heartbeats.
    virtual void handle_other(int, const buffer &) {}

    // The closed link of an empty handle. It outlives all static objects.
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
        const int copy = fcntl(fd, F_DUPFD_CLOEXEC, 0); // because close_now() closes fd
        const std::shared_ptr<closing_socket> last(new closing_socket{
            std::move(slot), copy, std::move(out),
            timer::once(on->opts.connect_timeout, [copy] { loop::unwatch(copy); })});
        close_now();
        const auto served = [last] { last->ready(); };
        (void)loop::watch(copy, served, EPOLLIN | EPOLLOUT); // if refused, the rest is not sent
    }
    // Reports a request's outcome from the loop, never from inside the application's call.
    void post_result(callback<void(response)> handler, outcome what, status why)
    {
        loop::post([owner = on, handler = std::move(handler), what, why] {
            if (owner->alive)
                handler({what, why});
        });
    }
    // Reports the outstanding requests as lost; with keep_held, only those that were sent.
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
        channel->hbSequence = 0; // unanswered heartbeats
    }
    // Sends a heartbeat after each period of silence. Ends the link if too many are unanswered.
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
    // Gives this link a turn before the loop waits again.
    void turn_later()
    {
        if (!std::exchange(turn_due, true))
            loop::post([self = shared_from_this()] { self->turn(false); });
    }
    // Receives, serves at most served_per_turn messages so that other links get their turn, and
    // sends.
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
    // Whether the output queue is full because the other end does not read. Held requests do not
    // count.
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
        if (sent < 0) { // first read what has arrived; then the link ends
            send_error = send_error != 0 ? send_error : int(-sent);
            shutdown(fd, SHUT_RDWR);
        }
        if (sent > 0 && was_choked)
            hear();
    }
    // Queues one frame: the head of a message in msgBuf, a pipeline header if `with` is one, and
    // the payload.
    void append(int head_size, std::string_view text, pipeline_header with = {})
    {
        const std::size_t extra = with.kind != '\0' ? pipeline_header::size : 0;
        const auto size = htonl(std::uint32_t(std::size_t(head_size) + extra + text.size()));
        if (out.bytes.empty())
            out.bytes.reserve(256 + text.size());
        out.bytes.append(watermark);
        out.bytes.append(reinterpret_cast<const char *>(&size), sizeof(size));
        out.bytes.append(channel->msgBuf, std::size_t(head_size));
        if (extra != 0)
            with.append_to(out.bytes);
        out.bytes.append(text);
        if (out.size() >= flush_size && !writing)
            write_out();
        turn_later();
    }
    void append_heartbeat(int (*build)(tv_channel *, char *, int))
    {
        if (!choked()) // otherwise it could not be sent now, and would only use memory
            append(build(channel, channel->msgBuf, TV_MSG_BUF_SIZE), {});
    }
    // Numbers order the messages; their lower 32 bits are the correlation ID. Numbers are odd, so
    // the ID is never 0. A number is skipped if an outstanding request has the same ID.
    std::uint64_t next_number()
    {
        do
            last_number += 2;
        while (is_outstanding(last_number));
        return last_number;
    }
    // False for the number of a one-way message.
    bool is_outstanding(std::uint64_t number) const
    {
        return calls.count(std::uint32_t(number)) != 0;
    }
    bool may_send(std::uint64_t number) const
    {
        return established && (pipelined || waiting_for == 0 || !is_outstanding(number));
    }
    void transmit(std::uint64_t number, std::string_view text)
    {
        const bool awaits_reply = is_outstanding(number);
        pipeline_header with;
        if (pipelined)
            with = {awaits_reply ? '?' : '!', awaits_reply ? std::uint32_t(number) : 0};
        else if (awaits_reply)
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
    // Sends the held messages that may be sent now.
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
    // Replies to a request ('='), or declines it ('-').
    status answer(int connection_id, pipeline_header to, char kind, std::string_view text)
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

    // Returns the size of the first frame: 0 if it is incomplete, -1 if it is not valid.
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
            hear(); // a peer that sends but does not read its replies does not count as alive
        const int type = c::get_msg_type(next.data());
        int length = 0;
        const char *payload = c::get_msg_payload(next.data(), int(next.size()), &length);
        next.start = size - std::size_t(length);
        if (type == TV_MSG_REQUEST && payload != nullptr) {
            request_received(std::move(next));
        } else if (type == TV_MSG_REPLY && waiting_for != 0) { // a late reply ends the wait, too
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
    // Calls the handler of a request, unless it has been called already.
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
    const bool reconnects;               // a client's: without a connection, messages are held
    bool turn_due = false;               // turn() is posted
    bool stalled = false;                // on_drained is due
    std::map<std::uint32_t, call> calls; // outstanding requests, by correlation ID
    // Messages that wait for a connection, or on a plain link for a reply; by number.
    std::map<std::uint64_t, std::string> held;
    std::size_t held_size = 0;
    std::uint64_t last_number = 1;
    std::string url; // a server's link: the client's name, empty before its login
    std::any data;   // the shared_ptr of peer::data()
};

}

// ---- peer ----------------------------------------------------------------------------------

/** What a server's peer and a client have in common: sending to the other end of a link. */
class other_end
{
public:
    /** Sends a request.
     *
     *   text     at most max_payload bytes of any kind; copied. On a plain link, and while there is
     *            no connection, it must not contain "velun_tolvane_"
     *   timeout  for the reply, counted from this call, including time in the queue
     *   handler  runs exactly once, unless the client or server is destroyed first
     *
     * If the request is refused, the handler gets outcome::refused, and response::status() says
     * why. On a plain link, the request after a timed-out one waits for the late reply. If that
     * does not arrive within options::late_reply, the link is closed. */
    void request(std::string_view text, milliseconds timeout,
                 callback<void(response)> handler) const
    {
        link->ask(text, timeout, std::move(handler));
    }
    /** Sends a one-way request, which gets no reply. Success means that the request is queued. A
     * client without a connection keeps it until there is one; a request that was handed to a
     * connection is lost with that connection. Refused: a text that request() would refuse. A
     * program on the C interface must not answer it. */
    status tell(std::string_view text) const { return link->tell(text); }
    /** Returns the number of bytes that wait to be sent. */
    std::size_t queued() const { return link->queued(); }

    /** For the layer itself. */
    explicit other_end(std::shared_ptr<detail::link> to) : link(std::move(to)) {}
    // A move copies, so that every handle always has a link.
    other_end(const other_end &) = default;
    other_end &operator=(const other_end &) = default;

protected:
    std::shared_ptr<detail::link> link;
};

/** A handle of one client of a server, which may be copied and kept. It becomes false when the
 * client's connection ends, and stays false: a client that connects again is another peer. Handles
 * of the same connection compare equal. */
class peer : public other_end
{
public:
    /** An empty handle. */
    peer() : other_end(detail::link::none()) {}
    /** True while the client is connected. Afterwards request() and tell() are refused. */
    explicit operator bool() const { return link->id != -1; }
    /** The URL that the client logged in with; empty before. Valid as long as a handle exists. */
    const std::string &url() const { return link->url; }
    /** Closes the connection. The handle becomes false at once, outstanding requests get
     * outcome::lost, and on_logout gets reason::closed. Queued output is still sent while the loop
     * runs, for at most connect_timeout. The client may connect again. */
    void close() { link->end(reason::closed, {}); }
    /** The application's own data for this client: made by T() when it is first asked for, and
     * destroyed after on_logout has returned. Null for an empty handle, for a type other than the
     * first one, after the data was destroyed, and if it is first asked for after the connection
     * has ended. */
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

/** One received request. Move-only. Answer it now, or keep it and answer later: it may outlive its
 * link, the client or server, and the loop. If it is destroyed unanswered, it is declined. On a
 * plain link, the next request of the same peer is served when this one is answered or declined. */
class request
{
public:
    /** No request. */
    request() = default;

    /** What the other end sent. Never null; followed by a 0x00; valid as long as the request. */
    std::string_view payload() const { return state != nullptr ? state->body.view() : ""; }
    /** The client that sent it. In a client, this is a handle of its server, with an empty URL, and
     * follows other rules: it is true while a connection is open or being opened, so it may become
     * true again after a reconnect. While it is false, tell() and request() queue; once the client
     * is destroyed, they are refused. close() on it does what client::disconnect() does. */
    peer from() const { return state != nullptr ? peer(state->link) : peer(); }
    /** True until it is answered or declined; false from the start for a one-way request on a
     * pipelined link. A plain link does not say whether a reply is awaited, so this is true for
     * every request there. Do not answer requests that your protocol defines as one-way: the peer
     * would mistake the reply for the reply to its next request. */
    bool wants_reply() const { return state != nullptr && state->open; }
    /** Answers the request. Refused: it has been answered or declined already, or wants no reply;
     * its connection has ended; the payload is too long, or not allowed on a plain link; or the
     * queue is full. If the payload or the queue is the reason, it may still be answered. */
    status reply(std::string_view text)
    {
        if (state == nullptr)
            return {std::errc::invalid_argument, "an empty request"};
        return state->answer('=', text);
    }
    /** Tells the other end that there will be no reply. On a plain link nothing is sent, and the
     * other end times out. */
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
        detail::pipeline_header with;
        bool open; // an answer is awaited
        detail::buffer body;
    };
    std::unique_ptr<received> state;
};

inline void detail::link::request_received(buffer &&received)
{
    pipeline_header with;
    if (pipelined || (on->opts.pipelined && !established))
        with = pipeline_header::read(received.view());
    if (with.kind == '\0' && serving) {
        backlog.bytes += received.bytes;
        return;
    }
    received.start += with.kind != '\0' ? pipeline_header::size : 0;
    if (with.kind == '-') {
        const status why{std::errc::operation_canceled, "the other end declined to reply"};
        finish(with.id, {outcome::declined, why});
    } else if (with.kind == '=' && with.id == 0) { // accepts the offer in the login
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
    // Begins a connection. It needs a new channel, because an old one would continue its sequence
    // numbers. The login and a heartbeat are sent once TCP has connected. A server that accepts
    // pipelined links answers the login, any other server only the heartbeat. Requests wait for
    // this answer, so none is sent to a server that has not accepted the connection.
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
        // Set here: the host in tv_client_addr is too short for some names.
        std::snprintf(record->url, TV_URL_SIZE, "%s", name.c_str());
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
    // Once the server acknowledges the heartbeat or accepts the offer, it has read the login.
    void handle_other(int type, const buffer &) override
    {
        if (type == TV_MSG_LOGIN) {
            // This is the client's own login: while no server listens, TCP may choose the server's
            // port as the source port of a client on the same host, and connect it to itself. An
            // orderly close would keep the port in use.
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
        if (active) { // after a random time between half of the back-off and all of it
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
    std::string lost_by; // the reason for a posted on_lost; empty after disconnect()
    timer step;          // the pause before the next attempt, or the limit of the current one
    milliseconds backoff = shortest;
};

}

/** A client: one link to a server. It reconnects until disconnect() is called. While there is no
 * connection, requests and one-way requests wait for one. */
class client : public other_end
{
public:
    /** Sets a client up; connect() starts it.
     *
     *   loop    the process's loop
     *   server  where the server listens
     *   name    the name for the login; a newer client of the same name replaces an older one
     */
    client(loop &, endpoint server, endpoint name, options options = {})
        : other_end(std::make_shared<detail::client_state>(options, server, name)),
          state(static_cast<detail::client_state *>(link.get()))
    {
    }
    /** Disconnects. Handlers of outstanding requests are destroyed without being called. */
    ~client()
    {
        disconnect();
        const auto released = std::exchange(*state->on, {}); // may hold handles of this client
        const auto data = std::exchange(state->data, {});
    }
    client(client &&) = delete;

    /** Starts connecting. From then on the client connects and reconnects until disconnect(); with
     * options::reconnect off, until on_lost. Refused only if the server's address or the name is
     * not valid; on_connected and on_lost report everything else. Does nothing if the client has
     * been started already. */
    status connect()
    {
        const std::string &own = state->name;
        const auto control = [](unsigned char letter) { return letter < ' '; };
        if (state->server.sin_family != AF_INET || state->server.sin_port == 0)
            return {std::errc::invalid_argument,
                    "the server's address is not a dotted IPv4 address, or its port is 0"};
        if (own.find("//:") != own.npos || own.size() >= TV_URL_SIZE ||
            own.find(detail::reserved_text) != own.npos ||
            std::any_of(own.begin(), own.end(), control))
            return {std::errc::invalid_argument, "the client's name does not fit a URL"};
        if (!std::exchange(state->active, true))
            state->step = timer::once(milliseconds(1), [to = state] { to->attempt(); });
        return {};
    }
    /** Logs out and closes the connection. Outstanding requests, including those not sent yet, get
     * outcome::lost; on_lost does not run. Output queued for the connection is still sent while the
     * loop runs, for at most connect_timeout. */
    void disconnect() { state->end(reason::closed, {}); }
    /** True while connected: from on_connected until the link is lost or closed. */
    explicit operator bool() const { return state->established; }
    /** Sets what runs when the server has read the login. A full server leaves the connection in
     * its backlog; if no client leaves in time, the attempt times out and on_lost runs. */
    void on_connected(callback<void()> run) { state->on->connected = std::move(run); }
    /** Sets what runs when the link is lost or an attempt to connect has failed. It gets the reason
     * as a text, which is valid until the handler returns. Requests that were sent get
     * outcome::lost; those not sent yet wait for the next attempt, which follows automatically.
     * With options::reconnect off there is no next attempt, and all outstanding requests get
     * outcome::lost. */
    void on_lost(callback<void(std::string_view why)> run) { state->on->lost = std::move(run); }
    /** Sets what runs when the queue is empty again, after it was full or the system did not take
     * all of it at once. */
    void on_drained(callback<void()> run) { state->on->drained = std::move(run); }
    /** Sets what runs for each request of the server. Without a handler, requests are declined. */
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
            if (std::size_t(slot.use_count()) > on->opts.max_clients)
                return pause();
            const int accepted = accept4(fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
            if (accepted < 0 && (errno == EAGAIN || errno == EINTR || errno == ECONNABORTED))
                return;
            if (accepted < 0 || !add(accepted))
                return pause();
        }
    }
    // Stops accepting for a while, because the server is full or has no descriptors or memory left.
    // Clients wait in the system's backlog.
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
    std::deque<callback<void()>> logouts;       // reports of links that have ended, in order
    // Every connection holds a copy, also a closed one that still sends its last bytes. Their
    // number is use_count() - 1.
    const std::shared_ptr<void> slot = std::make_shared<int>();
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
    // Does what the library does at a login, but calls the layer's handlers. An older link of the
    // same name ends first.
    void login(std::string_view payload)
    {
        const int current = id;
        const std::string name = payload.data(); // up to its 0x00
        for (auto older = server->find(name.c_str());
             id == current && older->id != -1 && older.get() != this;
             older = server->find(name.c_str()))
            older->end(reason::replaced, {}); // its handler may run the loop, and others log in
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
        server->report_logouts(); // one with this name may be among them
        if (id == current)
            on->login(peer(shared_from_this()));
    }
    void end(reason why, std::string) override
    {
        const auto self = shared_from_this();
        if (why == reason::replaced)
            announce(why); // before the close, so that its handler can send a last message
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
        return false; // it has closed the descriptor
    const auto *newest = reinterpret_cast<const tv_channel_node *>(tv_service_server.pairList.prev);
    const auto added = std::make_shared<pair>(shared_from_this());
    added->slot = slot;
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

/** A server: listens, and has a peer for each client. A process may run one at a time. */
class server
{
public:
    /** Sets a server up on the process's loop; listen() starts it. */
    explicit server(loop &, options opts = {}) : state(std::make_shared<detail::listener>(opts)) {}
    /** Stops. Handlers of outstanding requests are destroyed without being called, and on_logout
     * does not run. */
    ~server()
    {
        stop();
        const auto released = std::exchange(*state->on, {}); // may hold handles of this server
        state->report_logouts(); // calls no handler any more, but releases the peers' data
    }
    server(server &&) = delete;

    /** Listens on a dotted IPv4 address ("0.0.0.0": all interfaces) and a port (0: the system
     * chooses one). Refused: any other form of address; an address or port that the system refuses;
     * or a server is already running in this process, on this or on the C interface. */
    status listen(const std::string &address, std::uint16_t at)
    {
        if (detail::socket_address({address, at}).sin_family != AF_INET)
            return {std::errc::invalid_argument, "the address is not a dotted IPv4 address"};
        if (tv_service_server.serverChannel != nullptr)
            return {std::errc::device_or_resource_busy, "a server is running in this process"};
        errno = EADDRNOTAVAIL; // unless a system call sets another one
        if (tv_start_server(address.c_str(), at) == -1)
            return {std::errc(errno), std::strerror(errno)};
        state->fd = tv_get_server_polling_fd();
        fcntl(state->fd, F_SETFL, O_NONBLOCK); // accept must not block if the client has left
        ::listen(state->fd, SOMAXCONN);        // again, with a longer backlog
        sockaddr_in own{};
        socklen_t size = sizeof(own);
        getsockname(state->fd, reinterpret_cast<sockaddr *>(&own), &size);
        state->port = ntohs(own.sin_port);
        state->resume();
        return {};
    }
    /** The port that the server listens on, or 0. */
    std::uint16_t port() const { return state->port; }
    /** Stops listening and closes all peers as peer::close() does: their queued output is still
     * sent while the loop runs. listen() may be called again. */
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
    /** Sends a one-way request to all clients that have logged in. Returns the number of clients
     * for which it was queued; the others' queues are full, or their links cannot carry this
     * payload. */
    std::size_t broadcast(std::string_view text)
    {
        const auto all = peers();
        const auto told = [&](const peer &one) { return bool(one.tell(text)); };
        return std::size_t(std::count_if(all.begin(), all.end(), told));
    }
    /** Sets what runs after each login. A connection may log in again, under the same name or
     * another. */
    void on_login(callback<void(peer)> run) { state->on->login = std::move(run); }
    /** Sets what runs when a client that had logged in has gone, for any reason. Its handle is
     * false by then, but url() and data() still work. With reason::replaced the handle is true
     * until the handler returns, so the handler can send a last message to the older client. */
    void on_logout(callback<void(peer, reason)> run) { state->on->logout = std::move(run); }
    /** Sets what runs when a peer's queue is empty again, after it was full or the system did not
     * take all of it at once. */
    void on_drained(callback<void(peer)> run) { state->on->peer_drained = std::move(run); }
    /** Sets what runs for each request of a client, even of one that has not logged in. Without a
     * handler, requests are declined. */
    void on_request(callback<void(tolvane::request)> run) { state->on->request = std::move(run); }

private:
    std::shared_ptr<detail::listener> state;
};

// ---- log -----------------------------------------------------------------------------------

/** Passes every log entry to a handler, for example for spdlog or journald. An entry comes without
 * its final line feeds and is valid until the handler returns. The handler runs inside the call
 * that logs, so it must not destroy or close anything; nothing that it causes is logged. An empty
 * handler switches this off. */
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
