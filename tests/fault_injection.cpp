// fault_injection.cpp - every allocation and every system call of the library fails, one after the
// other, in each way that it can: once, and from then on.
//
// Scenarios are played by the target of fuzz_channels.cpp, with all that it requires, on a system in
// which each run is the same. What the application, its peers and the log have to see of a failure
// stands in frail_system.h. The last line of the output tells what ended it, if it does not end well.

#include "fuzz_channels.cpp"

#include <sstream>

// A word is a step and its place; a number is what an actor does: 1 takes the request, 2 answers it
// later, 5 at once. After "in" stands what the first callback of that number does; after "odd01" a
// message with another number, after "odd02" one without a payload, after "odd08" one that is not
// served yet, and after "odd0p" an empty one.
static const std::string scenarios[] = {
    "accept0 run1 login0a ask0x 5 read0 request012 read0 reply0y ack0{} run3 logout0 read0 run3",
    "connect01 read0 ask0x 5 read0 request012 read0 reply0y run3 leave0 read0 run3",
    "accept0 run1 login0a ask0x 2 ask0y request012 run5 reply0late respond04 5 read0 run5",
    "connect00 read0 ask0x 2 ask0y request012 read0 run5 reply0late respond04 5 read0 run5",
    "accept0 run1 login0a odd02 ask0 odd02 reply0 odd01 ask0z ask0 odd0p ask0 run1",
    "connect00 odd02 ask0 odd02 reply0 odd01 ask0z ask0 odd0p ask0 run1",
    "supervise03200 accept0 run1 login0a ack0{} beat0{sequence:1} run9 run9 run9",
    "connect01 supervise00032 read0 run9 ack0{} run9 run9 run9",
    "accept0 run1 accept1 run1 accept2 run1 login0a login1b end0 all0 read1 read2 run3",
    "accept0 run1 accept1 run1 login0a login1a run1 connect00 connect01 run3",
    "accept0 run1 login0a in7 end0 ask0x 5 run1",
    "connect01 odd08 ask0x odd08 ask0y in7 serve0 serve0 2 2 respond04 read0 respond04 run1",
    "start0 timers0 run3 stop0 start0 connect01 accept1 run1 shut0 run1",
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

// The input that makes these steps: a word is the name of one with its argument and text, or what an
// actor does.
static std::string input_of(const std::string &text)
{
    std::istringstream words(text);
    std::string input;
    for (std::string word; words >> word; input += " " + word) {
        const std::string name = word.substr(0, word.find_first_of("0123456789"));
        for (size_t i = 0; i < std::size(steps); i++)
            if (name == steps[i].first)
                word.replace(0, name.size(), 1, (char)i);
    }
    return input;
}

static int injected, wrong;

static void complain(const std::string &what)
{
    fwrite(what.data(), what.size(), 1, stdout); // with the bytes that were sent
    putchar('\n');
    wrong++;
}

static std::string run_words(const std::string &words)
{
    const std::string input = input_of(words);
    take_log();
    run_input((const uint8_t *)input.data(), input.size());
    return seen;
}

// Let each of the calls fail in turn while a scenario is played.
static void inject(const std::string &words, const std::string &undisturbed)
{
    printf("%s,%sfail with %d%s\n", words.c_str(), active->calls.c_str(), way,
           lasting ? " on" : "");
    fflush(stdout); // whatever comes now
    alarm(30);
    const bool soft = active->effect == SAME || (active->effect == SAME_IF_ONCE && !lasting);
    for (target = 1;; target++) {
        const bool same = run_words(words) == undisturbed;
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

static void inject_all(const std::string &words)
{
    active = nullptr;
    for (const std::string inside : {"close0", "stop0", "shut0"})
        for (int callback = 0; callback < 8; callback++)
            run_words("in" + std::to_string(callback) + " " + inside + " " + words);
    const std::string undisturbed = run_words(words);
    for (const fault &fault : faults) {
        active = &fault;
        for (const int each : fault.ways) {
            way = each;
            for (const bool on : {false, true}) {
                lasting = on;
                inject(words, undisturbed);
            }
        }
    }
}

int main()
{
    tv_set_log_file("/dev/null");
    for (const std::string &words : scenarios)
        inject_all(words);
    for (int callback = 0; callback < 8; callback++) // which closes its channel
        for (int kind = 0; kind < 2; kind++)
            inject_all("in" + std::to_string(callback) + " close0 " + scenarios[kind]);
    for (const std::string &call : unreached)
        complain(call + " is never called");
    printf("%d faults injected, %d wrong\n", injected, wrong);
    return wrong != 0;
}
