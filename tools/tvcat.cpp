// tvcat.cpp - requests and replies at the terminal and in scripts.
//
//   tvcat [-t MILLISECONDS] ADDRESS PORT [NAME]   a client: sends every line, prints its reply
//   tvcat -l [-a ANSWER] ADDRESS PORT             a server: prints every request, answers it with
//                                                 ANSWER, or with the request itself
//
// tvcat.1 is its manual. It lives with the 16 places of the library's loop.

#include "../examples/places.h"
#include "tolvane.h"

#include <getopt.h>
#include <limits.h>
#include <queue>

static const char *const usage = "tvcat [-t MILLISECONDS] ADDRESS PORT [NAME]\n"
                                 "tvcat -l [-a ANSWER] ADDRESS PORT\n"
                                 "tvcat --help, tvcat --version";
static const int ioTimeout = 5000; // of a connect, and of one message on the wire
static const int hbInterval = 1000;
static const int hbCount = 4;

static void print_line(const char *payload, int len)
{
    if (len > 0)
        fwrite(payload, 1, len, stdout);
    putchar('\n');
}

// ---- client

static int client;
static int rqstTimeout = 5000;
static std::queue<std::string> lines; // read and not sent yet
static bool ended;                    // no more lines will come

static int on_input(int fd, intptr_t, intptr_t);

// Read on only when all lines have been answered: a file of any size takes little memory.
static void send_next()
{
    if (lines.empty() && ended) {
        tv_disconnect_server(client);
        exit(EXIT_SUCCESS);
    }
    if (lines.empty()) {
        tv_register_polling_fd(STDIN_FILENO, on_input, 0, 0);
        return;
    }
    const std::string line = lines.front();
    lines.pop();
    if (tv_send_rqst(client, line.data(), static_cast<int>(line.size()), rqstTimeout) != 0)
        fail("a line is too long to be sent"); // a lost link has ended the program
}

static void keep_line(const std::string &line)
{
    lines.push(line);
}

static int on_input(int fd, intptr_t, intptr_t)
{
    ended = !run_lines(fd, keep_line);
    tv_unregister_polling_fd(fd);
    send_next();
    return 0;
}

static void on_reply(int, const char *payload, int len)
{
    print_line(payload, len);
    send_next();
}

// A late reply could not be told from the next request's.
static void on_timeout(int)
{
    fail("no reply within %d ms", rqstTimeout);
}

static void on_linkdown(int, const char *)
{
    fail("the link is lost: %s", why().c_str());
}

static void start_client(const char *ip, int port, const char *name)
{
    tv_client_addr address = {};
    copy_name(address.serverIp, ip);
    copy_name(address.clientIp, name);
    address.serverPort = static_cast<uint16_t>(port);
    address.clientPort =
        static_cast<uint16_t>(getpid()); // two of one name do not replace each other
    client = tv_create_client_channel(&address);
    tv_set_poll_timeout(client, ioTimeout);
    tv_set_connect_timeout(client, ioTimeout);
    tv_register_resp_handler(client, on_reply);
    tv_register_timeout_handler(client, on_timeout);
    tv_client_enable_heartbeat(client, hbInterval, hbCount, on_linkdown);
    if (tv_connect_server(client) != 0)
        fail("cannot connect to %s port %d: %s", ip, port, why().c_str());
    tv_register_polling_fd(tv_get_polling_fd(client), tv_channel_fd_handler, client, 0);
    tv_register_polling_fd(STDIN_FILENO, on_input, 0, 0);
}

// ---- server

static const char *answer; // null: the request itself

static int on_rqst(int, const char *payload, int len, char **respPayload, int *respLen)
{
    print_line(payload, len);
    const std::string_view echo(payload, len);
    return reply_at_once(answer != nullptr ? answer : echo, respPayload, respLen);
}

static void on_client_lost(int id, const char *)
{
    tv_close_client_connection(id);
}

static void start_server(const char *ip, int port)
{
    const int server = tv_start_server(ip, port);
    if (server == -1)
        fail("cannot listen on %s port %d: %s (%s)", ip, port, strerror(errno), why().c_str());
    tv_register_actor(server, on_rqst);
    tv_set_poll_timeout(server, ioTimeout);
    tv_service_enable_heartbeat(hbInterval, hbCount, on_client_lost);
    start_listening();
}

int main(int argc, char **argv)
{
    speaker = "tvcat";
    voice = stderr; // the other one is for payloads
    keep_log();
    setvbuf(stdout, nullptr, _IOLBF, 0);
    bool server = false;
    const char *timeout = nullptr;
    static const option words[] = {
        {"help", no_argument, nullptr, 'h'}, {"version", no_argument, nullptr, 'v'}, {}};
    for (int letter; (letter = getopt_long(argc, argv, "la:t:", words, nullptr)) != -1;) {
        if (letter == 'l')
            server = true;
        else if (letter == 'a')
            answer = optarg;
        else if (letter == 't')
            timeout = optarg;
        else if (letter == 'h' || letter == 'v')
            return puts(letter == 'h' ? usage : "tvcat " TV_VERSION) < 0;
        else // getopt_long() has said what is wrong
            fail("see tvcat --help");
    }
    if (server && timeout != nullptr)
        fail("-t %s: a server does not wait for replies, see tvcat --help", timeout);
    if (!server && answer != nullptr)
        fail("-a %s: an answer wants a server, -l, see tvcat --help", answer);
    if (timeout != nullptr)
        rqstTimeout = to_number(timeout, "a time-out in milliseconds", 1, INT_MAX);
    const int most = server ? 2 : 3;
    if (argc - optind < 2)
        fail("ADDRESS and PORT are wanted, see tvcat --help");
    if (argc - optind > most)
        fail("%s: one argument too many, see tvcat --help", argv[optind + most]);
    const char *const ip = to_address(argv[optind]);
    const int port = to_port(argv[optind + 1]);
    if (server)
        start_server(ip, port);
    else
        start_client(ip, port, argc - optind == 3 ? argv[optind + 2] : "tvcat");
    tv_main_loop();
    return EXIT_FAILURE; // only when poll() fails
}
