// server.cpp - a server to start from: it answers the requests of client.cpp and takes commands.
//
//   server [-l LOGFILE] ADDRESS PORT
//
// Port 0 lets the system choose; the first line printed says which. Commands:
//
//   ask ADDRESS PORT TEXT   a request to the client that logged in as "tcp://ADDRESS:PORT"
//   all TEXT                a request to all clients, without awaiting replies
//   stop                    close all connections and end
//
// At the end of its input it keeps serving, so it can run with </dev/null.

#include <tolvane.hpp>

#include <algorithm>
#include <ctype.h>
#include <list>
#include <map>
#include <stdio.h>
#include <stdlib.h>
#include <string>
#include <unistd.h>

using namespace std::chrono_literals;
using text = std::string;

static const auto askTimeout = 1000ms; // for a client's reply
static const auto laterDelay = 400ms;  // before the reply to "later"
static const auto loseDelay = 1500ms;  // before the reply to "lose": longer than the client waits

// One heartbeat per second; a client that leaves two unanswered is lost, 3 s after its last
// message.
static const tolvane::options settings{1000ms};

// Print a whole line at once, so that lines of several processes do not mix.
static void say(const text &line)
{
    const text whole = "server: " + line + "\n";
    fwrite(whole.data(), 1, whole.size(), stdout);
    fflush(stdout);
}

// A client has no name before its login.
static text name_of(const tolvane::peer &client)
{
    return client.url().empty() ? "an unknown client" : client.url();
}

// Split "say good morning" into "say" and "good morning".
static std::pair<text, text> split_word(const text &line)
{
    const size_t end = std::min(line.find(' '), line.size());
    return {line.substr(0, end), line.substr(std::min(end + 1, line.size()))};
}

class shouter
{
public:
    explicit shouter(tolvane::loop &loop) : loop(loop), server(loop, settings)
    {
        server.on_login([](tolvane::peer client) { say(name_of(client) + " has logged in"); });
        server.on_logout([](tolvane::peer client, tolvane::reason why) { goodbye(client, why); });
        server.on_request([this](tolvane::request request) { serve(std::move(request)); });
    }

    tolvane::status listen(const text &address, uint16_t port)
    {
        tolvane::status listening = server.listen(address, port);
        if (listening)
            say("listening on port " + std::to_string(server.port()));
        return listening;
    }

    void run_command(const text &line)
    {
        const auto [verb, rest] = split_word(line);
        if (verb == "ask") {
            ask(rest);
        } else if (verb == "all") {
            say("telling everyone: " + rest);
            server.broadcast("all " + rest);
        } else if (verb == "stop") {
            server.stop();
            say("stopped");
            loop.stop();
        } else {
            say("commands: ask ADDRESS PORT TEXT, all TEXT, stop");
        }
    }

private:
    static void goodbye(tolvane::peer client, tolvane::reason why)
    {
        static const std::map<tolvane::reason, const char *> lines{
            {tolvane::reason::logged_out, " has logged out"},
            {tolvane::reason::replaced, " logs in again, closing its older connection"},
            {tolvane::reason::lost, " has lost its link"},
            {tolvane::reason::silent, " has fallen silent, declared down"},
            {tolvane::reason::closed, " is closed"}};
        say(name_of(client) + lines.at(why));
        // Tell the older client why, or it would log in again and replace the newer one.
        if (why == tolvane::reason::replaced && !client.tell("replaced"))
            say("could not notify the older client");
    }

    void serve(tolvane::request request)
    {
        const auto [verb, rest] = split_word(text(request.payload()));
        say(name_of(request.from()) + " requests: " + verb + " " + rest);
        text reply = rest;
        std::transform(reply.begin(), reply.end(), reply.begin(),
                       [](unsigned char letter) { return static_cast<char>(toupper(letter)); });
        if (verb == "say")
            answer(request, reply);
        else if (verb == "later" || verb == "lose")
            answer_after(verb == "later" ? laterDelay : loseDelay, std::move(request), reply);
        else
            request.decline();
    }

    static void answer(tolvane::request &request, const text &reply)
    {
        const tolvane::status answered = request.reply(reply);
        if (answered.error() == std::errc::message_size) {
            answer(request, "too long to be answered"); // rather than nothing at all
        } else if (!answered) {
            say("could not answer " + name_of(request.from()) + ": " + answered.what());
            request.from().close(); // it reads nothing, or has left
        }
    }

    // The request stays valid until it is answered, even if its client leaves meanwhile.
    void answer_after(tolvane::milliseconds delay, tolvane::request request, const text &reply)
    {
        delays.remove_if([](const tolvane::timer &timer) { return !timer; });
        delays.push_back(
            tolvane::timer::once(delay, [request = std::move(request), reply]() mutable {
                if (!request.from())
                    return;
                say("answering " + name_of(request.from()) + " now: " + reply);
                answer(request, reply);
            }));
    }

    void ask(const text &line)
    {
        const auto [address, rest] = split_word(line);
        const auto [port, words] = split_word(rest);
        const text question = words; // lambdas capture structured bindings only from C++20 on
        tolvane::peer client = server.find("tcp://" + address + ":" + port);
        if (!client)
            return say("no such client: " + address + " " + port);
        say("asking " + name_of(client) + ": " + question);
        client.request("ask " + question, askTimeout, [client, question](tolvane::response reply) {
            if (reply)
                say("reply from " + name_of(client) + ": " + text(reply.payload()));
            else if (reply.outcome() == tolvane::outcome::timed_out)
                say("no reply from " + name_of(client) + " within 1000 ms");
            else
                say("not answered by " + name_of(client) + ": " + question);
        });
    }

    tolvane::loop &loop;
    tolvane::server server;
    std::list<tolvane::timer> delays;
};

// Run the lines that can be read now; the beginning of an incomplete one stays in rest. Returns
// false at the end of the input.
static bool run_lines(text &rest, shouter &server)
{
    char chunk[4096];
    const ssize_t got = read(STDIN_FILENO, chunk, sizeof(chunk));
    if (got > 0)
        rest.append(chunk, static_cast<size_t>(got));
    for (size_t end; (end = rest.find('\n')) != text::npos; rest.erase(0, end + 1))
        server.run_command(rest.substr(0, end));
    return got > 0;
}

int main(int argc, char **argv)
{
    for (int option; (option = getopt(argc, argv, "l:")) != -1;)
        if (option == 'l')
            tv_set_log_file(optarg);
    if (argc - optind != 2) {
        fprintf(stderr, "arguments: [-l LOGFILE] ADDRESS PORT\n");
        return EXIT_FAILURE;
    }
    tolvane::loop loop;
    shouter server(loop);
    const auto listening =
        server.listen(argv[optind], static_cast<uint16_t>(atoi(argv[optind + 1])));
    if (!listening) {
        fprintf(stderr, "server: %s (%s)\n", listening.what(),
                std::make_error_code(listening.error()).message().c_str());
        return EXIT_FAILURE;
    }
    text rest;
    const auto watching = loop.watch(STDIN_FILENO, [&] {
        if (!run_lines(rest, server))
            loop.unwatch(STDIN_FILENO);
    });
    if (!watching)
        say(text("no commands: ") + watching.what());
    return loop.run() ? EXIT_SUCCESS : EXIT_FAILURE;
}
