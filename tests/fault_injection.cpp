// fault_injection.cpp - lets every allocation and every system call of the library fail in turn, in
// each way that it can: a single time, and from then on.
//
// Every run plays a scenario; simulated_os.h lists the faults, and what the application, its peers
// and the log must see of each. The last lines of the output name what went wrong.

#include "scenario.h"

static const std::string pair = "a: peer_logs_in a; advance 40;";
static const std::string client = "create_client; set_connect_timeout 100; connect;";
static const std::string exchange = R"(
    actors handle:ok pass; peer_sends request x; send_request y 20; peer_sends reply z
    peer_sends heartbeatack {}; advance 120)";

// Played on a pair, and on a client.
static const std::string plots[] = {
    exchange + "; peer_sends logout a~; advance 120",
    R"(
    actors defer pass; peer_sends request x; peer_sends request y
    send_request z 20; advance 200; peer_sends reply late
    actors handle:ok pass; send_reply late; advance 200)",
    R"(
    peer_sends request; peer_sends reply; drop_frames 1; peer_sends request z
    drop_frames -2; peer_sends request; peer_sends_empty_frame; advance 40)",
    "enable_heartbeat 300 2; peer_sends heartbeatack {}; advance 1200",
};

static const std::string others[] = {
    client + exchange + "; disconnect; advance 120",
    "enable_all_heartbeats 300 2;" + pair + R"(
    peer_sends heartbeatack {}; peer_sends heartbeat {}; advance 1200)",
    pair + R"(
    b: peer_logs_in b; advance 40; c: peer_logs_in c; advance 40
    a: peer_closes; broadcast all; advance 120)",
    pair + R"(
    b: peer_logs_in a; advance 40; c: create_client; connect
    d: create_client; set_connect_timeout 100; connect; advance 120)",
    pair + R"(
    on actor0: peer_closes
    actors handle:ok pass; peer_sends request x; advance 40)",
    client + R"(
    peer_buffers request x; peer_buffers request y; actors defer pass
    on actor0: serve
    serve; send_reply late; send_reply late; advance 40)",
    R"(
    start_timers; next_timer; start_server; advance 120; stop_server; start_server
    b: create_client; set_connect_timeout 100; connect; a: peer_logs_in a; advance 40
    close_server; advance 40)",
};

static const std::string callbacks[] = {"response",     "timeout", "link_down", "connected",
                                        "disconnected", "fd_open", "fd_close",  "actor0"};
static int injected, wrong;
static int injectedBy[std::size(faults)];

static void complain(const std::string &what)
{
    fwrite(what.data(), what.size(), 1, stdout); // it may contain 0x00
    putchar('\n');
    wrong++;
}

// The log since the last call.
static std::string take_log()
{
    static char *text;
    static size_t size;
    static FILE *const stream = open_memstream(&text, &size);
    const bool toFile = injection.fault != nullptr && injection.fault->log == nullptr;
    tv_set_log_fd(toFile ? nullptr : stream);
    fflush(stream);
    const std::string log(text, size);
    rewind(stream);
    return log;
}

// Returns what the application and its peers have observed.
static std::string play(const std::string &scenario)
{
    take_log();
    begin();
    run(scenario);
    end();
    std::string seen;
    for (const std::string &each : notes)
        seen += each + "\n";
    return seen;
}

// Play the scenario again and again, until the call that is to fail is not reached any more.
static void inject(const std::string &scenario, const std::string &undisturbed, int number)
{
    const Fault &fault = *injection.fault;
    printf("%s\n%s fails with %d%s\n", scenario.c_str(), fault.calls[0].c_str(), injection.way,
           injection.lasting ? ", lasting" : "");
    fflush(stdout); // in case the program ends here
    alarm(30);
    for (injection.first = 1;; injection.first++) {
        const std::string seen = play(scenario), call = std::to_string(injection.first);
        if (injection.failed == 0)
            break;
        injected++;
        injectedBy[number]++;
        const bool same = seen == undisturbed, down = seen.find("link_down") != std::string::npos;
        const bool allowed[] = {same, same || injection.lasting, !same || down, down, true};
        if (!allowed[fault.effect])
            complain("call " + call + " led to\n" + seen + "\ninstead of\n" + undisturbed);
        if (fault.log != nullptr && take_log().find(fault.log) == std::string::npos)
            complain("call " + call + " is not in the log");
    }
}

static void inject_all(const std::string &scenario)
{
    injection = {};
    for (const std::string act : {"close", "stop_server", "close_server"})
        for (const std::string &callback : callbacks)
            play("on " + callback + ": " + act + "\n" + scenario);
    const std::string undisturbed = play(scenario);
    for (size_t i = 0; i < std::size(faults); i++) {
        for (const int way : faults[i].ways) {
            for (const bool lasting : {false, true}) {
                injection = {&faults[i], way, 1, lasting};
                inject(scenario, undisturbed, i);
            }
        }
    }
}

int main()
{
    closesOnLinkDown = true;
    tv_set_log_file("/dev/null");
    for (const std::string &start : {pair, client})
        for (const std::string &plot : plots)
            inject_all(start + plot);
    for (const std::string &scenario : others)
        inject_all(scenario);
    for (const std::string &callback : callbacks) // which closes its channel
        for (const std::string &start : {pair, client})
            inject_all("on " + callback + ": close\n" + start + plots[0]);
    for (size_t i = 0; i < std::size(faults); i++)
        if (injectedBy[i] == 0)
            complain(faults[i].calls[0] + " was never called");
    printf("%d faults injected, %d wrong\n", injected, wrong);
    return wrong != 0;
}
