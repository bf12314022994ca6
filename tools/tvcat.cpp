// tvcat.cpp - requests and replies at the terminal and in scripts.
//
//   tvcat [-t MILLISECONDS] ADDRESS PORT [NAME]   a client: sends every line, prints its reply
//   tvcat -l [-a ANSWER] ADDRESS PORT             a server: prints every request, answers it with
//                                                 ANSWER, or with the request itself
//
// tvcat.1 is its manual.

#include <tolvane.hpp>

#include <getopt.h>
#include <limits.h>
#include <optional>
#include <queue>
#include <stdio.h>
#include <stdlib.h>
#include <string>
#include <unistd.h>

using text = std::string;

static const char *const usage = "tvcat [-t MILLISECONDS] ADDRESS PORT [NAME]\n"
                                 "tvcat -l [-a ANSWER] ADDRESS PORT\n"
                                 "tvcat --help, tvcat --version";

[[noreturn]] static void fail(const text &why)
{
    fflush(stdout);
    fprintf(stderr, "tvcat: %s\n", why.c_str());
    exit(EXIT_FAILURE);
}

static void print_line(std::string_view payload)
{
    fwrite(payload.data(), 1, payload.size(), stdout);
    putchar('\n');
    fflush(stdout);
}

static tolvane::options settings()
{
    tolvane::options options;
    options.heartbeat = tolvane::milliseconds(1000);
    options.missed_heartbeats = 4;
    options.reconnect = false;
    return options;
}

class sender
{
public:
    sender(tolvane::loop &loop, tolvane::endpoint server, tolvane::endpoint name, int timeout)
        : loop(loop), client(loop, server, name, settings()), timeout(timeout)
    {
        client.on_connected([this] {
            connected = true;
            send_next();
        });
        client.on_lost([this, server](std::string_view why) {
            fail((connected ? "the link is lost: "
                            : "cannot connect to " + server.host + " port " +
                                  std::to_string(server.port) + ": ") +
                 text(why));
        });
        if (const tolvane::status started = client.connect(); !started)
            fail(started.what());
    }

private:
    // Read on only when all lines have been answered, so a file of any size takes little memory.
    void send_next()
    {
        if (!lines.empty()) {
            client.request(lines.front(), timeout,
                           [this](tolvane::response reply) { hear(reply); });
            lines.pop();
        } else if (!ended) {
            if (const tolvane::status watched = loop.watch(STDIN_FILENO, [this] { read_lines(); });
                !watched)
                fail(text("cannot read the input: ") + watched.what());
        } else {
            client.disconnect();
            loop.stop();
        }
    }

    void hear(const tolvane::response &reply)
    {
        switch (reply.outcome()) {
        case tolvane::outcome::replied:
            print_line(reply.payload());
            return send_next();
        case tolvane::outcome::timed_out:
            fail("no reply within " + std::to_string(timeout.count()) + " ms");
        case tolvane::outcome::declined:
            fail("the server declines a line");
        case tolvane::outcome::refused:
            fail(text("a line was not sent: ") + reply.status().what());
        case tolvane::outcome::lost:
            return; // on_lost says why
        }
    }

    void read_lines()
    {
        char chunk[4096];
        const ssize_t got = read(STDIN_FILENO, chunk, sizeof(chunk));
        if (got > 0)
            rest.append(chunk, static_cast<size_t>(got));
        ended = got <= 0;
        for (size_t end; (end = rest.find('\n')) != text::npos; rest.erase(0, end + 1))
            lines.push(rest.substr(0, end));
        if (ended && !rest.empty()) // a last line without a line feed
            lines.push(rest);
        loop.unwatch(STDIN_FILENO);
        send_next();
    }

    tolvane::loop &loop;
    tolvane::client client;
    tolvane::milliseconds timeout;
    std::queue<text> lines; // read and not sent yet
    text rest;              // the beginning of a line
    bool connected = false;
    bool ended = false; // no more lines will come
};

static void serve(tolvane::server &server, const text &address, int port, const char *answer)
{
    server.on_request([answer](tolvane::request request) {
        print_line(request.payload());
        if (!request.reply(answer != nullptr ? answer : request.payload()) &&
            !request.reply("too long to be answered"))
            request.decline();
    });
    const auto listening = server.listen(address, static_cast<uint16_t>(port));
    if (!listening)
        fail(text("cannot listen: ") + listening.what() + " (" +
             std::make_error_code(listening.error()).message() + ")");
    fprintf(stderr, "tvcat: listening on port %d\n", server.port());
}

// Read a number, or fail: atoi() would take "http" for 0, which means any port.
static int to_number(const char *text, const char *what, int least, int most)
{
    char *end = nullptr;
    const long long number = strtoll(text, &end, 10);
    if (end == text || *end != '\0' || number < least || number > most)
        fail(std::string(text) + ": " + what + " is a number from " + std::to_string(least) +
             " to " + std::to_string(most));
    return static_cast<int>(number);
}

int main(int argc, char **argv)
{
    bool listens = false;
    const char *answer = nullptr, *timeout = nullptr;
    static const option words[] = {
        {"help", no_argument, nullptr, 'h'}, {"version", no_argument, nullptr, 'v'}, {}};
    for (int letter; (letter = getopt_long(argc, argv, "la:t:", words, nullptr)) != -1;) {
        if (letter == 'l')
            listens = true;
        else if (letter == 'a')
            answer = optarg;
        else if (letter == 't')
            timeout = optarg;
        else if (letter == 'h' || letter == 'v')
            return puts(letter == 'h' ? usage : "tvcat " TV_VERSION) < 0;
        else // getopt_long() has printed what is wrong
            fail("see tvcat --help");
    }
    if (listens && timeout != nullptr)
        fail(text("-t ") + timeout + ": a server does not wait for replies, see tvcat --help");
    if (!listens && answer != nullptr)
        fail(text("-a ") + answer + ": only a server (-l) gives answers, see tvcat --help");
    const int wait =
        timeout == nullptr ? 5000 : to_number(timeout, "a timeout in milliseconds", 1, INT_MAX);
    const int most = listens ? 2 : 3;
    if (argc - optind < 2)
        fail("ADDRESS and PORT are required, see tvcat --help");
    if (argc - optind > most)
        fail(text(argv[optind + most]) + ": one argument too many, see tvcat --help");
    const text address = argv[optind];
    const int port = to_number(argv[optind + 1], "a port", 0, 65535);

    tolvane::loop loop;
    tolvane::server server(loop, settings());
    std::optional<sender> client;
    if (listens)
        serve(server, address, port, answer);
    else // the process id in the URL keeps clients of one name from replacing each other
        client.emplace(loop, tolvane::endpoint{address, static_cast<uint16_t>(port)},
                       tolvane::endpoint{argc - optind == 3 ? argv[optind + 2] : "tvcat",
                                         static_cast<uint16_t>(getpid())},
                       wait);
    return loop.run() ? EXIT_SUCCESS : EXIT_FAILURE;
}
