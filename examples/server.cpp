// server.cpp - a server to start from: it answers the requests of client.cpp, and takes commands.
//
//   server [-l LOGFILE] ADDRESS PORT
//
// Port 0 lets the system choose; the first line printed tells which. Commands:
//
//   ask ADDRESS PORT TEXT   a request to the client that logged in as "tcp://ADDRESS:PORT"
//   all TEXT                a request to all clients, without awaiting replies
//   stop                    close all connections and end
//
// At the end of its input it goes on serving, so it can run with </dev/null.

#include "places.h"
#include "ruvo_timer.h"
#include "tolvane.h"

#include <ctype.h>
#include <memory>

static const int ioTimeout = 1000;  // of one message: as long as a slow client can hold up all
static const int askTimeout = 1000; // for a client's reply
static const int hbInterval = 1000; // a client silent for (hbCount + 1) * hbInterval
static const int hbCount = 2;       // is taken for lost
static const int laterDelay = 400;  // before the reply to "later"
static const int loseDelay = 1500;  // before the reply to "lose": longer than the client waits

// A pair has no URL before its client has logged in.
static const char *name_of(int id)
{
    const tv_channel *pair = tv_get_channel(id);
    return pair != nullptr && pair->url[0] != '\0' ? pair->url : "an unknown client";
}

// ---- clients come and go

static void on_connected(int, const char *url)
{
    tell("%s has logged in", url);
}

// After a logout the pair is gone. One that a newer login replaces is still there, and is told
// why it is about to be closed: it would take it for a lost link else, and log in again.
static void on_disconnected(int id, const char *url)
{
    if (get_channel_type(id) == TV_CHANNEL_NONE) {
        tell("%s has logged out", url);
        return;
    }
    tell("%s logs in anew, closing its older connection", url);
    tv_send_rqst(id, "replaced", sizeof("replaced") - 1, 0);
}

// Called after a failed send or receive and when the heartbeat gives up, which switches it off.
static void on_linkdown(int id, const char *)
{
    const bool silent = tv_get_channel(id)->hbMode == TV_HEARTBEAT_OFF;
    tell("%s %s", name_of(id), silent ? "has fallen silent, declared down" : "has lost its link");
    tv_close_client_connection(id);
}

// ---- requests of clients

// The delay is over. Channel ids do not recur soon, so an id that names nothing tells safely that
// the client has left.
static void answer_now(intptr_t id, intptr_t arg2)
{
    const std::unique_ptr<std::string> reply(reinterpret_cast<std::string *>(arg2));
    const int channelId = static_cast<int>(id);
    if (get_channel_type(channelId) == TV_CHANNEL_NONE)
        return;
    tell("answering %s now: %s", name_of(channelId), reply->c_str());
    if (tv_send_resp(channelId, reply->data(), static_cast<int>(reply->size())) != 0)
        tell("could not answer"); // on_linkdown has closed the pair
}

static int answer_after(int delay, int id, const std::string &reply)
{
    auto *copy = new std::string(reply); // answer_now frees it
    if (ruvo_start_timer(delay, answer_now, id, reinterpret_cast<intptr_t>(copy)) == -1)
        fail("could not start a timer");
    return TV_ACTOR_DEFERRED;
}

// Serves every request of a client. Must not close its pair.
static int on_rqst(int id, const char *payload, int len, char **respPayload, int *respLen)
{
    const std::string_view rqst(payload, len);
    if (rqst.size() > maxReply) { // not even copied
        tell("%s requests too much: %d B", name_of(id), len);
        return reply_at_once(rqst, respPayload, respLen);
    }
    const auto [verb, text] = split_word(std::string(rqst));
    std::string reply = text;
    for (char &letter : reply)
        letter = static_cast<char>(toupper(static_cast<unsigned char>(letter)));

    tell("%s requests: %s %s", name_of(id), verb.c_str(), text.c_str());
    if (verb == "later")
        return answer_after(laterDelay, id, reply);
    if (verb == "lose")
        return answer_after(loseDelay, id, reply);
    return verb == "say" ? reply_at_once(reply, respPayload, respLen) : TV_ACTOR_PASS;
}

// ---- requests to clients

static void on_reply(int id, const char *payload, int len)
{
    tell("reply of %s: %.*s", name_of(id), len, payload != nullptr ? payload : "");
}

static void on_timeout(int id)
{
    tell("no reply of %s within %d ms", name_of(id), askTimeout);
}

static void ask(const std::string &line)
{
    const auto [ip, rest] = split_word(line);
    const auto [port, text] = split_word(rest);
    const int id = tv_get_client_channel(ip.c_str(), atoi(port.c_str()));
    if (id == -1) {
        tell("no such client: %s %s", ip.c_str(), port.c_str());
        return;
    }
    tell("asking %s: %s", name_of(id), text.c_str());
    const std::string rqst = "ask " + text;
    if (tv_send_rqst(id, rqst.data(), static_cast<int>(rqst.size()), askTimeout) != 0)
        tell("not sent"); // too long, an earlier request awaits its reply, or the link is lost
}

static void tell_all(const std::string &text)
{
    tell("telling all: %s", text.c_str());
    const std::string rqst = "all " + text;
    tv_broadcast_rqst_to_client(rqst.data(), static_cast<int>(rqst.size()));
}

// ---- commands

__attribute__((noreturn)) static void stop()
{
    stop_listening();
    tv_stop_server();
    tell("stopped");
    exit(EXIT_SUCCESS); // tv_main_loop has no other end
}

static void run_command(const std::string &line)
{
    const auto [verb, text] = split_word(line);
    if (verb == "ask")
        ask(text);
    else if (verb == "all")
        tell_all(text);
    else if (verb == "stop")
        stop();
    else
        tell("commands: ask ADDRESS PORT TEXT, all TEXT, stop");
}

static int on_terminal(int fd, intptr_t, intptr_t)
{
    if (!run_lines(fd, run_command)) {
        tv_unregister_polling_fd(fd);
        listen_again(); // one more place is free
    }
    return 0;
}

// ---- start

static void start(const char *ip, int port)
{
    const int server = tv_start_service_server(ip, port, on_reply, on_timeout, on_connected);
    if (server == -1)
        fail("cannot listen on %s port %d: %s (%s)", ip, port, strerror(errno), why().c_str());
    if (tv_register_actor(server, on_rqst) != 0 || tv_set_poll_timeout(server, ioTimeout) != 0)
        fail("could not set the server up");
    tv_register_disconnected_callback(server, on_disconnected);
    tv_service_enable_heartbeat(hbInterval, hbCount, on_linkdown);
    start_listening();
}

int main(int argc, char **argv)
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    speaker = "server";
    set_log_option(argc, argv);
    if (argc - optind != 2)
        fail("arguments: [-l LOGFILE] ADDRESS PORT");
    start(to_address(argv[optind]), to_port(argv[optind + 1]));
    if (tv_register_polling_fd(STDIN_FILENO, on_terminal, 0, 0) != 0)
        fail("the event loop is full");
    tv_main_loop();
    return EXIT_FAILURE; // only when poll() fails
}
