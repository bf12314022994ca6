// parts.cpp - what handling a message takes: building, classifying, finding its channel, timers, log.

#include "ruvo_timer.h"
#include "tolvane.h"

#include <benchmark/benchmark.h>
#include <cstring>
#include <string>
#include <vector>

static void Build(benchmark::State &state)
{
    static tv_channel channel;
    init_channel(&channel, 0);
    strcpy(channel.url, "tcp://127.0.0.1:6000");
    const std::string payload(state.range(0), 'x');
    for (auto _ : state)
        benchmark::DoNotOptimize(pack_outgoing_rqst(&channel, payload.data(), payload.size()));
}
BENCHMARK(Build)->Arg(5)->Arg(65000);

// Ordinary text, and a hostile payload: only the prefix that all tags share.
static void Classify(benchmark::State &state, const char *repeated)
{
    std::string text = "1000\nvelun_tolvane_reply\ntcp://127.0.0.1:6000\nvelun_tolvane_payload\n";
    while (text.size() < (size_t)state.range(0))
        text += repeated;
    for (auto _ : state)
        benchmark::DoNotOptimize(get_msg_type(text.c_str()));
}
BENCHMARK_CAPTURE(Classify, ordinary, "{\"sensor\": 17, \"level\": \"verbose\"}, ")
    ->Arg(128)
    ->Arg(65000);
BENCHMARK_CAPTURE(Classify, hostile, "velun_tolvane_")->Arg(65000);

// Find a channel by its id among 10 or 10,000.
static void Find(benchmark::State &state)
{
    const size_t count = state.range(0);
    std::vector<tv_channel> channels(count);
    for (tv_channel &channel : channels) {
        init_channel(&channel, tv_get_channel_id());
        tv_add_channel(&channel);
    }
    size_t i = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(tv_get_channel(channels[i++ * 7919 % count].channelId));
    for (tv_channel &channel : channels)
        tv_remove_channel(&channel);
}
BENCHMARK(Find)->Arg(10)->Arg(10000);

static void ignore(intptr_t, intptr_t) {}

// Restart a heartbeat timer among others, as every accepted message does.
static void RestartTimer(benchmark::State &state)
{
    std::vector<int> ids;
    for (int i = 0; i < state.range(0); i++)
        ids.push_back(ruvo_start_periodic_timer(100000 + i % 97, ignore, 0, 0));
    size_t i = 0;
    for (auto _ : state) {
        int &id = ids[i++ * 7919 % ids.size()];
        ruvo_stop_timer(id);
        id = ruvo_start_periodic_timer(100000, ignore, 0, 0);
    }
    for (int id : ids)
        ruvo_stop_timer(id);
}
BENCHMARK(RestartTimer)->Arg(10)->Arg(10000);

static void LogWithoutSink(benchmark::State &state)
{
    for (auto _ : state)
        disable_polling_timer(); // does nothing but log its call
}
BENCHMARK(LogWithoutSink);

BENCHMARK_MAIN();
