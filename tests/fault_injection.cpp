// fault_injection.cpp - makes the library's calls listed in simulated_os.h fail, one after the
// other, in each way that they can. In one run only that call fails; in another, those after it
// fail, too.
//
// Every run plays a scenario; simulated_os.h lists the faults, and what the application, its peers
// and the log must show of each. The last lines of the output say what went wrong.

#include "scenario.h"

#include <iostream>

static const std::string callbacks[] = {"response",     "timeout", "link_down", "connected",
                                        "disconnected", "fd_open", "fd_close",  "actor0"};
static int injected, wrong;
static std::set<const Fault *> reached;
static char *log;
static size_t logSize;
static FILE *const logStream = open_memstream(&log, &logSize);

static void expect(bool holds, const std::string &what)
{
    if (!holds)
        std::cout << what << std::endl;
    wrong += !holds;
}

// Returns what the application and its peers have observed.
static std::string play(const std::string &scenario)
{
    const bool toFile = injection.fault != nullptr && injection.fault->log == nullptr;
    tv_set_log_fd(toFile ? nullptr : logStream);
    rewind(logStream);
    begin();
    run(scenario);
    end();
    fflush(logStream);
    std::string seen;
    for (const std::string &each : notes)
        seen += each + "\n";
    return seen;
}

// Play the scenario with a later call failing each time, until it makes fewer calls than that.
static void inject(const std::string &scenario, const std::string &undisturbed)
{
    const Fault &fault = *injection.fault;
    std::cout << scenario << "\n"
              << *fault.calls.begin() << " fails with " << injection.way
              << (injection.lasting ? ", lasting" : "") << std::endl; // flushed: a call may crash
    alarm(30);
    for (injection.first = 1;; injection.first++, injected++) {
        const std::string seen = play(scenario);
        if (injection.failed == 0)
            break;
        reached.insert(&fault);
        const bool same = seen == undisturbed, down = seen.find("link_down") != std::string::npos;
        const bool allowed[] = {same, same || injection.lasting, !same || down, down, true};
        const std::string call = "call " + std::to_string(injection.first);
        expect(allowed[fault.effect], call + " led to\n" + seen + "\ninstead of\n" + undisturbed);
        expect(fault.log == nullptr ||
                   std::string(log, logSize).find(fault.log) != std::string::npos,
               call + " is not in the log");
    }
}

static void inject_all(const std::string &scenario)
{
    injection = {};
    for (const std::string act : {"close", "stop_server", "close_server"})
        for (const std::string &callback : callbacks)
            play("on " + callback + ": " + act + "\n" + scenario);
    const std::string undisturbed = play(scenario);
    for (const Fault &fault : faults) {
        for (const int way : fault.ways) {
            for (const bool lasting : {false, true}) {
                injection = {&fault, way, 1, lasting};
                inject(scenario, undisturbed);
            }
        }
    }
}

int main()
{
    closesOnLinkDown = true;
    tv_set_log_file("/dev/null");
    for (const auto &[name, steps] : read_scenarios("faults.txt"))
        inject_all(steps);
    const std::vector<Scenario> linkScenarios = read_scenarios("faults_link.txt");
    for (const std::string start :
         {"a: peer_logs_in a; advance 40\n", "create_client; set_connect_timeout 100; connect\n"}) {
        for (const auto &[name, steps] : linkScenarios)
            inject_all(start + steps);
        // again, with that callback closing its channel
        for (const std::string &callback : callbacks)
            inject_all("on " + callback + ": close\n" + start + linkScenarios[0].second);
    }
    for (const Fault &fault : faults)
        expect(reached.count(&fault) == 1, *fault.calls.begin() + " was never called");
    std::cout << injected << " faults injected, " << wrong << " wrong\n";
    return wrong != 0;
}
