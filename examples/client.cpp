// client.cpp - a client to start from: lines typed at the terminal become requests to server.cpp.
//
//   client [-l LOGFILE] SERVER_ADDRESS SERVER_PORT OWN_ADDRESS OWN_PORT [LABEL]
//
// The client's own address and port name it to the server, as "tcp://OWN_ADDRESS:OWN_PORT". They
// need not be real: "alice 1" will do. LABEL begins the lines it prints. Commands:
//
//   say TEXT     a request that the server answers at once
//   later TEXT   one that it answers after a while
//   lose TEXT    one that it answers when this client has given up waiting
//   logout       log out and end; so does the end of the input
//   quit         end without a word: the server sees a lost link
//
// A lost link is replaced by a new one, again and again, until the server is back.

#include "common.h"
#include "ruvo_timer.h"
#include "tolvane.h"

static const int rqstTimeout = 1000;  // for the reply to a request
static const int ioTimeout = 1000;    // of a connect, and of one message on the wire
static const int retryInterval = 500; // between two tries to connect
static const int hbInterval = 1000;   // a server silent for (hbCount + 1) * hbInterval
static const int hbCount = 2;         // is taken for lost

static tv_client_addr address;
static int channel = -1; // -1: no link, a timer will try again
static bool retrying;    // the loss has been told, the tries after it are silent
static bool replaced;    // another process has logged in under our name

static void connect_now(intptr_t, intptr_t);

static void close_link()
{
    // Unregister first: once it is closed, the descriptor's number may soon be another one's.
    const int fd = tv_get_polling_fd(channel);
    if (fd != -1) // a connect that failed leaves none
        tv_unregister_polling_fd(fd);
    tv_close_channel(channel);
    channel = -1;
}

// Called after a failed send or receive and when the heartbeat gives up; by connect_now, too.
static void on_linkdown(int id, const char *)
{
    if (id != channel)
        return;
    close_link();
    // Coming back would throw out the other process, which would come back in turn.
    if (replaced)
        fail("replaced by a newer login under this name, ending");
    if (!retrying)
        tell("no link to the server, trying again every %d ms (%s)", retryInterval, why().c_str());
    retrying = true;
    if (ruvo_start_timer(retryInterval, connect_now, 0, 0) == -1)
        fail("could not start a timer");
}

static void on_reply(int, const char *payload, int len)
{
    tell("reply: %.*s", len, payload != nullptr ? payload : "");
}

// The late reply is discarded, unless the next request awaits one by then and gets it instead: a
// program that sends on at once puts a number into its requests, for the replies to repeat.
static void on_timeout(int)
{
    tell("no reply within %d ms", rqstTimeout);
}

// Serves the server's requests. Must not close the channel.
static int on_rqst(int, const char *payload, int len, char **respPayload, int *respLen)
{
    const std::string_view rqst(payload, len);
    if (rqst.size() > maxReply) // not even copied
        return reply_at_once(rqst, respPayload, respLen);
    const auto [verb, text] = split_word(std::string(rqst));
    if (verb == "ask") {
        tell("the server asks: %s", text.c_str());
        return reply_at_once(speaker + " is well", respPayload, respLen);
    }
    if (verb == "all") { // a broadcast: nobody awaits a reply
        tell("the server tells all: %s", text.c_str());
        return TV_ACTOR_HANDLED;
    }
    if (verb == "replaced") { // the server closes the connection next: on_linkdown ends the program
        replaced = true;
        return TV_ACTOR_HANDLED;
    }
    return TV_ACTOR_PASS;
}

// Every link is a channel of its own, since a channel goes on numbering its messages and the
// server begins again. The URL makes it the same client to the server.
static void connect_now(intptr_t, intptr_t)
{
    const int id = channel = tv_create_client_channel(&address);
    if (id == -1 || tv_register_actor(id, on_rqst) != 0 || tv_set_poll_timeout(id, ioTimeout) != 0)
        fail("could not create a channel");
    tv_register_resp_handler(id, on_reply);
    tv_register_timeout_handler(id, on_timeout);
    tv_set_connect_timeout(id, ioTimeout);
    tv_client_enable_heartbeat(id, hbInterval, hbCount, on_linkdown);
    if (tv_connect_server(id) != 0) {
        on_linkdown(id, ""); // it has run already if only the login failed; does nothing then
        return;
    }
    if (tv_register_polling_fd(tv_get_polling_fd(id), tv_channel_fd_handler, id, 0) != 0)
        fail("the event loop is full");
    retrying = false;
    tell("connected, logging in as %s", tv_get_channel(id)->url);
}

static void send_line(const std::string &line)
{
    if (channel == -1) {
        tell("not sent, there is no link: %s", line.c_str());
        return;
    }
    tell("request: %s", line.c_str());
    const int id = channel;
    if (tv_send_rqst(id, line.data(), static_cast<int>(line.size()), rqstTimeout) == 0)
        return;
    if (channel == id) // else the link was lost and on_linkdown has told so
        tell("not sent: the line is too long, or an earlier request still awaits its reply");
}

__attribute__((noreturn)) static void log_out()
{
    if (channel != -1 && tv_disconnect_server(channel) == 0)
        tell("logged out");
    if (channel != -1) // a logout that failed has called on_linkdown
        close_link();
    exit(EXIT_SUCCESS); // tv_main_loop has no other end
}

static void run_command(const std::string &line)
{
    const std::string verb = split_word(line).first;
    if (verb == "say" || verb == "later" || verb == "lose")
        send_line(line);
    else if (verb == "logout")
        log_out();
    else if (verb == "quit")
        exit(EXIT_SUCCESS);
    else
        tell("commands: say TEXT, later TEXT, lose TEXT, logout, quit");
}

static int on_terminal(int fd, intptr_t, intptr_t)
{
    if (!run_lines(fd, run_command))
        log_out();
    return 0;
}

int main(int argc, char **argv)
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    speaker = "client";
    set_log_option(argc, argv);
    if (argc - optind < 4 || argc - optind > 5)
        fail("arguments: [-l LOGFILE] SERVER_ADDRESS SERVER_PORT OWN_ADDRESS OWN_PORT [LABEL]");
    copy_name(address.serverIp, to_address(argv[optind]));
    address.serverPort = static_cast<uint16_t>(to_port(argv[optind + 1]));
    copy_name(address.clientIp, argv[optind + 2]);
    address.clientPort = static_cast<uint16_t>(to_port(argv[optind + 3]));
    speaker = argv[argc - optind > 4 ? optind + 4 : optind + 2];

    if (tv_register_polling_fd(STDIN_FILENO, on_terminal, 0, 0) != 0)
        fail("the event loop is full");
    connect_now(0, 0);
    tv_main_loop();
    return EXIT_FAILURE; // only when poll() fails
}
