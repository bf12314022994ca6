// fault_injection.cpp - every allocation and every system call of the library fails, one after the
// other, in each way that it can: once, and from then on.
//
// Each run of a scenario is the same on the system of frail_system.h, where also stands what the
// application, its peers and the log have to see of a failure. The last line of the output tells what
// ended it, if it does not end well.

#include "scenario.h"

static const std::string pair = "a: login a & after 40 &", client = "client & within 100 & dial &",
                         exchange = "actors Hok P & gets request x & ask y 20 & gets reply z &"
                                    "gets heartbeatack {} & after 120",
                         deferral = "actors D P & gets request x & gets request y & ask z 20 &"
                                    "after 200 & gets reply late & actors Hok P & respond late &"
                                    "after 200",
                         oddity = "gets request & gets reply & lose 1 0 & gets request z &"
                                  "lose -2 0 & gets request & empty & after 40";
static const std::string scenarios[] = {
    pair + exchange + "& gets logout a~ & after 120",
    client + exchange + "& logout & after 120",
    pair + deferral,
    "client & dial &" + deferral,
    pair + oddity,
    client + oddity,
    "watch 300 2 &" + pair + "gets heartbeatack {} & gets heartbeat {} & after 1200",
    client + "supervise 300 2 & gets heartbeatack {} & after 1200",
    pair + "b: login b & after 40 & c: login c & after 40 & a: end & broadcast all & after 120",
    pair + "b: login a & after 40 & c: client & dial & d: " + client + "after 120",
    pair + "actors Hok P & in actor0 end; gets request x & after 40",
    client + "says request x & says request y & actors D P & in actor0 serve;"
             "serve & respond late & respond late & after 40",
    "timers & left & start & after 120 & stop & start & b: " + client + pair + "shut & after 40",
};

// The log since the last call.
static std::string take_log()
{
    static char *text;
    static size_t size;
    static FILE *const stream = open_memstream(&text, &size);
    tv_set_log_fd(active != nullptr && active->log == nullptr ? nullptr : stream);
    fflush(stream);
    const std::string log(text, size);
    rewind(stream);
    return log;
}

static const std::string callbacks[] = {"resp",         "timeout", "linkdown", "connected",
                                        "disconnected", "fd-open", "fd-close", "actor0"};
static int injected, wrong;

static void complain(const std::string &what)
{
    fwrite(what.data(), what.size(), 1, stdout); // with the bytes that were sent
    putchar('\n');
    wrong++;
}

static std::string seen; // by the application and its peers

static std::string play(const std::string &scenario)
{
    take_log();
    begin();
    run(scenario);
    end();
    seen.clear();
    for (const std::string &each : notes)
        seen += each + "\n";
    return seen;
}

// Let each of the calls fail in turn while a scenario is played.
static void inject(const std::string &scenario, const std::string &undisturbed)
{
    printf("%s,%sfail with %d%s\n", scenario.c_str(), active->calls.c_str(), way,
           lasting ? " on" : "");
    fflush(stdout); // whatever comes now
    alarm(30);
    const bool soft = active->effect == SAME || (active->effect == SAME_IF_ONCE && !lasting);
    for (target = 1;; target++) {
        const bool same = play(scenario) == undisturbed;
        const bool down = seen.find("linkdown") != std::string::npos;
        if (failed == 0)
            break;
        injected++;
        if (soft ? !same : active->effect == DOWN ? !down : active->effect == SEEN && same && !down)
            complain(std::to_string(target) + " shows as\n" + seen + "\nbeside\n" + undisturbed);
        if (active->log != nullptr && take_log().find(active->log) == std::string::npos)
            complain(std::to_string(target) + " is not in the log");
    }
}

static void inject_all(const std::string &scenario)
{
    active = nullptr;
    for (const std::string inside : {"close", "stop", "shut"})
        for (const std::string &callback : callbacks)
            play("in " + callback + " " + inside + ";" + scenario);
    const std::string undisturbed = play(scenario);
    for (const fault &fault : faults) {
        active = &fault;
        for (const int each : fault.ways) {
            way = each;
            for (const bool on : {false, true}) {
                lasting = on;
                inject(scenario, undisturbed);
            }
        }
    }
}

int main()
{
    tv_set_log_file("/dev/null");
    for (const std::string &scenario : scenarios)
        inject_all(scenario);
    for (const std::string &callback : callbacks) // which closes its channel
        for (int kind = 0; kind < 2; kind++)
            inject_all("in " + callback + " close;" + scenarios[kind]);
    for (const std::string &call : unreached)
        complain(call + " is never called");
    printf("%d faults injected, %d wrong\n", injected, wrong);
    return wrong != 0;
}
