// parts.cpp - what the small parts of a message cost: building, classifying, reading, timers, log.
//
// Classifying is shown beside one strstr() per tag, on ordinary text and on payloads made to be
// slow: near misses of the tags, and nothing but the tags' common prefix.

#include "ruvo_timer.h"
#include "tolvane.h"

#include <benchmark/benchmark.h>
#include <cstring>
#include <list>
#include <string>
#include <vector>

static const size_t whole = 65535; // a received message with its 0x00 in 64 KiB

struct pattern {
    const char *name;
    const char *text; // repeated
};
static const pattern patterns[] = {
    {"ordinary", "{\"sensor\": 17, \"value\": 20.5, \"ok\": true, \"level\": \"verbose\"}, "},
    {"prefixes", "velun_tolvane_"},
    {"near_tags", "velun_tolvane_repl_"},
    {"near_prefixes", "velun_tolvane-"},
    {"first_letter", "v"},
    {"first_two_letters", "ve"},
    {"last_and_first_letter", "__________v"},
};

static std::string message(const char *pattern, size_t len)
{
    std::string text = "1000\nvelun_tolvane_reply\ntcp://127.0.0.1:6000\nvelun_tolvane_payload\n";
    while (text.size() < len)
        text += pattern;
    return text.substr(0, len);
}

static void Build(benchmark::State &state)
{
    static tv_channel channel;
    init_channel(&channel, 0);
    strcpy(channel.url, "tcp://127.0.0.1:6000");
    const std::string payload(state.range(0), 'x');
    for (auto _ : state)
        benchmark::DoNotOptimize(pack_outgoing_rqst(&channel, payload.data(), payload.size()));
}
BENCHMARK(Build)->Arg(5)->Arg(64)->Arg(4096)->Arg(whole - 100);

static void Read(benchmark::State &state)
{
    const std::string text = message(patterns[0].text, state.range(0));
    for (auto _ : state) {
        int len;
        benchmark::DoNotOptimize(get_msg_sequence(text.c_str()));
        benchmark::DoNotOptimize(get_msg_payload(text.c_str(), text.size(), &len));
    }
}
BENCHMARK(Read)->Arg(128)->Arg(whole);

static int type_by_strstr(const char *text)
{
    static const char *const tags[] = {
        "velun_tolvane_login\n", "velun_tolvane_logout\n",    "velun_tolvane_request\n",
        "velun_tolvane_reply\n", "velun_tolvane_heartbeat\n", "velun_tolvane_heartbeatack\n",
    };
    int type = 0;
    while (type < TV_MSG_UNKNOWN && strstr(text, tags[type]) == nullptr)
        type++;
    return type;
}

static void classify(benchmark::State &state, int (*classifier)(const char *), const char *text)
{
    if (get_msg_type(text) != type_by_strstr(text))
        state.SkipWithError("the two disagree");
    for (auto _ : state)
        benchmark::DoNotOptimize(classifier(text));
}

static void register_classifiers(const pattern &p, size_t len)
{
    const std::string name = p.name + ("/" + std::to_string(len));
    static std::list<std::string> texts; // the same bytes at the same place for both
    texts.push_back(message(p.text, len));
    const char *text = texts.back().c_str();
    benchmark::RegisterBenchmark(("Classify/" + name).c_str(), classify, get_msg_type, text);
    benchmark::RegisterBenchmark(("Strstr/" + name).c_str(), classify, type_by_strstr, text);
}

// ---- timers

static void ignore(intptr_t, intptr_t)
{
}

struct pending_timers {
    explicit pending_timers(long count)
    {
        for (long i = 0; i < count; i++)
            ids.push_back(ruvo_start_periodic_timer(100000 + i % 97, ignore, 0, 0));
    }
    ~pending_timers()
    {
        for (int id : ids)
            ruvo_stop_timer(id);
    }
    std::vector<int> ids;
};

// What every accepted message does to its channel's heartbeat.
static void TimerRestart(benchmark::State &state)
{
    pending_timers timers(state.range(0));
    size_t i = 0;
    for (auto _ : state) {
        int &id = timers.ids[i++ * 7919 % timers.ids.size()];
        ruvo_stop_timer(id);
        id = ruvo_start_periodic_timer(100000, ignore, 0, 0);
    }
}
BENCHMARK(TimerRestart)->Arg(10)->Arg(100)->Arg(1000)->Arg(10000);

// A request's timer: started, and stopped by the reply.
static void TimerStartStop(benchmark::State &state)
{
    pending_timers timers(state.range(0));
    for (auto _ : state)
        ruvo_stop_timer(ruvo_start_timer(1000, ignore, 0, 0));
}
BENCHMARK(TimerStartStop)->Arg(10)->Arg(100)->Arg(1000)->Arg(10000);

static void TimerNothingToFire(benchmark::State &state)
{
    pending_timers timers(state.range(0));
    for (auto _ : state)
        ruvo_fire_timer();
}
BENCHMARK(TimerNothingToFire)->Arg(10)->Arg(10000);

// ---- log

// This operation does nothing but log its call.
static void LogWithoutSink(benchmark::State &state)
{
    for (auto _ : state)
        disable_polling_timer();
}
BENCHMARK(LogWithoutSink);

int main(int argc, char **argv)
{
    for (const pattern &p : patterns)
        register_classifiers(p, whole);
    register_classifiers(patterns[0], 128);
    register_classifiers(patterns[0], 4096);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
