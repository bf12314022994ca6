// fault_injection.cpp - makes every allocation and every system call of the library fail in turn, in
// each way that it can: once, and from then on.
//
// Every run plays a scenario; simulated_os.h lists the faults, and what the application, its peers
// and the log must show of each. The last lines of the output say what went wrong.

#include "scenario.h"

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

// Play the scenario with a later call failing each time, until it makes fewer calls than that.
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
    const std::string pair = "a: peer_logs_in a; advance 40\n",
                      client = "create_client; set_connect_timeout 100; connect\n";
    const std::vector<Scenario> linkScenarios = read_scenarios("faults_link.txt");
    for (const auto &[name, steps] : read_scenarios("faults.txt"))
        inject_all(steps);
    for (const std::string &start : {pair, client}) {
        for (const auto &[name, steps] : linkScenarios)
            inject_all(start + steps);
        for (const std::string &callback : callbacks) // which closes its channel
            inject_all("on " + callback + ": close\n" + start + linkScenarios[0].steps);
    }
    for (size_t i = 0; i < std::size(faults); i++)
        if (injectedBy[i] == 0)
            complain(faults[i].calls[0] + " was never called");
    printf("%d faults injected, %d wrong\n", injected, wrong);
    return wrong != 0;
}
