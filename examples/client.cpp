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
//   quit         end without a logout: the server sees a lost link
//
// After a lost link, tolvane.hpp tries to reconnect until the server is back.

#include <tolvane.hpp>

#include <stdio.h>
#include <stdlib.h>
#include <string>
#include <unistd.h>

using namespace std::chrono_literals;
using text = std::string;

static const auto rqstTimeout = 1000ms; // for the reply to a request

// One heartbeat per second; a server that leaves two unanswered is lost. An attempt to connect may
// take 1 s.
static const tolvane::options settings{1000ms, 1000ms};

class talker
{
public:
    talker(tolvane::loop &loop, tolvane::endpoint server, tolvane::endpoint name, text label)
        : loop(loop), client(loop, std::move(server), name, settings), label(std::move(label))
    {
        client.on_connected([this, name] {
            retrying = false;
            say("logged in as " + name.url());
        });
        client.on_lost([this](std::string_view why) { lost(why); });
        client.on_request([this](tolvane::request request) { serve(std::move(request)); });
    }

    tolvane::status connect() { return client.connect(); }

    void run_command(const text &line)
    {
        const text verb = line.substr(0, line.find(' '));
        if (verb == "say" || verb == "later" || verb == "lose")
            send(line);
        else if (verb == "logout")
            log_out();
        else if (verb == "quit")
            exit(EXIT_SUCCESS); // no destructor runs, so nothing is sent
        else
            say("commands: say TEXT, later TEXT, lose TEXT, logout, quit");
    }

    void log_out()
    {
        client.disconnect();
        say("logged out");
        loop.stop();
    }

    // Print a whole line at once, so that lines of several processes do not mix.
    void say(const text &line) const
    {
        const text whole = label + ": " + line + "\n";
        fwrite(whole.data(), 1, whole.size(), stdout);
        fflush(stdout);
    }

private:
    void send(const text &line)
    {
        say("request: " + line);
        client.request(line, rqstTimeout, [this, line](tolvane::response reply) {
            switch (reply.outcome()) {
            case tolvane::outcome::replied:
                return say("reply: " + text(reply.payload()));
            case tolvane::outcome::timed_out:
                return say("no reply within 1000 ms");
            case tolvane::outcome::lost:
                return say("the link was lost before the reply: " + line);
            default:
                return say("declined or refused: " + line);
            }
        });
    }

    // Serves the server's requests.
    void serve(tolvane::request request)
    {
        const text rqst(request.payload());
        const text rest = rqst.substr(std::min(rqst.find(' '), rqst.size() - 1) + 1);
        if (rqst.rfind("ask ", 0) == 0) {
            say("the server asks: " + rest);
            if (const auto answered = request.reply(label + " is well"); !answered)
                say(text("could not answer: ") + answered.what());
        } else if (rqst.rfind("all ", 0) == 0) { // a broadcast: nobody awaits a reply
            say("the server tells everyone: " + rest);
        } else if (rqst == "replaced") {
            // Coming back would replace the newer client, which would come back in turn.
            say("replaced by a newer login under this name, ending");
            exit(EXIT_FAILURE);
        }
    }

    // Called for each lost link and each failed attempt to connect; only the first one is news.
    void lost(std::string_view why)
    {
        if (!retrying)
            say("no link to the server, trying again (" + text(why) + ")");
        retrying = true;
    }

    tolvane::loop &loop;
    tolvane::client client;
    text label;
    bool retrying = false;
};

// Run the lines that can be read now; the beginning of an incomplete one stays in rest. Returns
// false at the end of the input.
static bool run_lines(text &rest, talker &client)
{
    char chunk[4096];
    const ssize_t got = read(STDIN_FILENO, chunk, sizeof(chunk));
    if (got > 0)
        rest.append(chunk, static_cast<size_t>(got));
    for (size_t end; (end = rest.find('\n')) != text::npos; rest.erase(0, end + 1))
        client.run_command(rest.substr(0, end));
    return got > 0;
}

static uint16_t to_port(const char *text)
{
    return static_cast<uint16_t>(atoi(text));
}

int main(int argc, char **argv)
{
    for (int option; (option = getopt(argc, argv, "l:")) != -1;)
        if (option == 'l')
            tv_set_log_file(optarg);
    argv += optind;
    if (argc - optind < 4 || argc - optind > 5) {
        fprintf(stderr, "arguments: [-l LOGFILE] SERVER_ADDRESS SERVER_PORT OWN_ADDRESS OWN_PORT "
                        "[LABEL]\n");
        return EXIT_FAILURE;
    }
    tolvane::loop loop;
    talker client(loop, {argv[0], to_port(argv[1])}, {argv[2], to_port(argv[3])},
                  argc - optind > 4 ? argv[4] : argv[2]);
    tolvane::status started = client.connect();
    text rest;
    if (started)
        started = loop.watch(STDIN_FILENO, [&] {
            if (!run_lines(rest, client))
                client.log_out();
        });
    if (!started) {
        client.say(started.what());
        return EXIT_FAILURE;
    }
    return loop.run() ? EXIT_SUCCESS : EXIT_FAILURE;
}
