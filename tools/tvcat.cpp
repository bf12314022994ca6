// tvcat.cpp - requests and replies at the terminal and in scripts.
//
//   tvcat [-t MILLISECONDS] ADDRESS PORT [NAME]   a client: sends every line, prints its reply
//   tvcat -l [-a ANSWER] ADDRESS PORT             a server: prints every request, answers it with
//                                                 ANSWER, or with the request itself
//
// tvcat.1 is its manual. It lives with the 16 places of the library's loop.

#include "../examples/common.h"
#include "tolvane.h"

#include <queue>

static const char *const usage = "arguments: [-t MILLISECONDS] ADDRESS PORT [NAME]\n"
                                 "       or: -l [-a ANSWER] ADDRESS PORT";
static const int ioTimeout = 5000; // of a connect, and of one message on the wire
static const int hbInterval = 1000;
static const int hbCount = 4;

static void print_line(const char *payload, int len)
{
    if (len > 0)
        fwrite(payload, 1, len, stdout);
    putchar('\n');
}

__attribute__((noreturn)) static void stop(const char *text)
{
    fprintf(stderr, "tvcat: %s\n", text);
    exit(EXIT_FAILURE);
}

static void watch(int fd, tv_fd_handler handler, int arg1)
{
    if (tv_register_polling_fd(fd, handler, arg1, 0) != 0)
        stop("more clients than there are places in the loop");
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
        watch(STDIN_FILENO, on_input, 0);
        return;
    }
    const std::string line = lines.front();
    lines.pop();
    if (tv_send_rqst(client, line.data(), static_cast<int>(line.size()), rqstTimeout) != 0)
        stop("a line is too long to be sent"); // a lost link has ended the program
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
    stop("no reply");
}

static void on_linkdown(int, const char *)
{
    stop("the link is lost");
}

static void start_client(const char *ip, int port, const char *name)
{
    tv_client_addr address = {};
    snprintf(address.serverIp, sizeof(address.serverIp), "%s", ip);
    snprintf(address.clientIp, sizeof(address.clientIp), "%s", name);
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
        stop("cannot connect");
    watch(tv_get_polling_fd(client), tv_channel_fd_handler, client);
    watch(STDIN_FILENO, on_input, 0);
}

// ---- server

static const char *answer; // null: the request itself

static int on_rqst(int, const char *payload, int len, char **respPayload, int *respLen)
{
    print_line(payload, len);
    const std::string reply = answer != nullptr ? answer : std::string(payload, len);
    return reply_at_once(reply, respPayload, respLen);
}

static void on_open(int fd)
{
    watch(fd, tv_pair_fd_handler, 0);
}

static void on_close(int fd)
{
    tv_unregister_polling_fd(fd);
}

static void on_client_lost(int id, const char *)
{
    tv_close_client_connection(id);
}

static void start_server(const char *ip, int port)
{
    const int server = tv_start_server(ip, port);
    if (server == -1)
        stop("cannot listen on that address and port");
    tv_register_actor(server, on_rqst);
    tv_set_poll_timeout(server, ioTimeout);
    tv_register_client_fd_open_callback(on_open);
    tv_register_client_fd_close_callback(on_close);
    tv_service_enable_heartbeat(hbInterval, hbCount, on_client_lost);
    const int listenFd = tv_get_server_polling_fd();
    watch(listenFd, tv_server_fd_handler, 0);
    fprintf(stderr, "tvcat: listening on port %d\n", port_of(listenFd));
}

int main(int argc, char **argv)
{
    speaker = "tvcat";
    setvbuf(stdout, nullptr, _IOLBF, 0);
    bool listening = false;
    for (int option; (option = getopt(argc, argv, "la:t:")) != -1;) {
        if (option == 'l')
            listening = true;
        else if (option == 'a')
            answer = optarg;
        else if (option == 't')
            rqstTimeout = atoi(optarg);
        else
            stop(usage);
    }
    const int count = argc - optind;
    if (count < 2 || count > (listening ? 2 : 3) || rqstTimeout < 1)
        stop(usage);
    char **arguments = argv + optind;
    if (listening)
        start_server(arguments[0], to_port(arguments[1]));
    else
        start_client(arguments[0], to_port(arguments[1]), count > 2 ? arguments[2] : "tvcat");
    tv_main_loop();
    return EXIT_FAILURE; // only when poll() fails
}
