// tolvane.hpp - the C++17 layer over tolvane.h (complete interface; its inside follows).
#ifndef TOLVANE_HPP
#define TOLVANE_HPP

#ifndef TOLVANE_H
#define TOLVANE_APPLICATION_ONLY
#endif
#include "ruvo_timer.h"
#include "tolvane.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>
#include <utility>
#include <vector>

namespace tolvane
{

using std::chrono::milliseconds;

constexpr std::size_t max_payload = 65398;

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
    void operator()(Args... args) const
    {
        if (const auto running = target)
            invoke(running.get(), std::forward<Args>(args)...);
    }

private:
    std::shared_ptr<void> target;
    void (*invoke)(void *, Args...) = nullptr;
};

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

struct endpoint {
    std::string host;
    std::uint16_t port = 0;
    std::string url() const;
};

struct options {
    milliseconds heartbeat{5000}, connect_timeout{5000}, late_reply{1000};
    int missed_heartbeats = 2;
    bool pipelined = true, reconnect = true;
    std::size_t max_queued = 8 << 20, max_clients = 1000;
};

enum class outcome { replied, timed_out, lost, declined, refused };
enum class reason { logged_out, replaced, lost, closed };

namespace detail
{
struct loop_state;
struct link;
struct pair;
struct client_state;
struct server_state;
struct timer_state;
}

class loop
{
public:
    loop();
    ~loop();
    loop(const loop &) = delete;
    loop &operator=(const loop &) = delete;
    bool run();
    void stop();
    bool run_once(milliseconds limit);
    status watch(int fd, callback<void()> readable);
    void unwatch(int fd);
    void post(callback<void()> task);
    int fd() const;

private:
    std::shared_ptr<detail::loop_state> state;
};

class timer
{
public:
    static timer once(milliseconds after, callback<void()> task);
    static timer every(milliseconds period, callback<void()> task);
    timer();
    timer(timer &&) noexcept;
    timer &operator=(timer &&) noexcept;
    ~timer();
    void stop();
    explicit operator bool() const;

private:
    std::unique_ptr<detail::timer_state> state;
};

class response
{
public:
    response(tolvane::outcome outcome, tolvane::status status, std::string_view payload = {});
    tolvane::outcome outcome() const;
    tolvane::status status() const; // ok after replied; else why not, as a text and a code
    std::string_view payload() const;
    explicit operator bool() const; // replied
};

class peer
{
public:
    peer() = default;
    explicit operator bool() const;
    const std::string &url() const;
    std::size_t queued() const;
    void request(std::string_view text, milliseconds timeout, callback<void(response)> handler);
    status tell(std::string_view text);
    void close();
    template <class T> T *data();
    friend bool operator==(const peer &a, const peer &b)
    {
        return a.link == b.link;
    }
    friend bool operator!=(const peer &a, const peer &b)
    {
        return a.link != b.link;
    }

private:
    std::shared_ptr<detail::pair> link;
};

class request
{
public:
    request();
    request(request &&) noexcept;
    request &operator=(request &&) noexcept;
    ~request();
    std::string_view payload() const;
    peer from() const; // empty in a client, where the server is the sender
    bool wants_reply() const;
    status reply(std::string_view text);
    void decline();
    explicit operator bool() const; // may still be answered
};

class client
{
public:
    client(loop &loop, endpoint server, endpoint name, options options = {});
    ~client();
    client(const client &) = delete;
    client &operator=(const client &) = delete;
    status connect();
    void disconnect();
    void request(std::string_view text, milliseconds timeout, callback<void(response)> handler);
    status tell(std::string_view text);
    std::size_t queued() const;
    void on_connected(callback<void()> handler);
    void on_lost(callback<void(std::string_view)> handler);
    void on_drained(callback<void()> handler);
    void on_request(callback<void(tolvane::request)> handler);

private:
    std::shared_ptr<detail::client_state> state;
};

class server
{
public:
    explicit server(loop &loop, options options = {});
    ~server();
    server(const server &) = delete;
    server &operator=(const server &) = delete;
    status listen(const std::string &address, std::uint16_t port);
    std::uint16_t port() const;
    void stop();
    peer find(const std::string &url) const;
    std::vector<peer> peers() const;
    std::size_t broadcast(std::string_view text);
    void on_login(callback<void(peer)> handler);
    void on_logout(callback<void(peer, reason)> handler);
    void on_drained(callback<void(peer)> handler);
    void on_request(callback<void(tolvane::request)> handler);

private:
    std::shared_ptr<detail::server_state> state;
};

void log_to(callback<void(std::string_view entry)> sink);

}

#endif
