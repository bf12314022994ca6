// test_timer.cpp - the timer library, on a monotonic clock that the test moves.

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>
#include <time.h>

static const long long ms = 1000000;
static long long now = 5000000000123456; // on that clock

static int read_clock(clockid_t clock, struct timespec *time)
{
    EXPECT_EQ(clock, CLOCK_MONOTONIC);
    *time = {(time_t)(now / (1000 * ms)), (long)(now % (1000 * ms))};
    return 0;
}

static int failing; // 1: malloc(), 2: realloc()

// The library itself, with its clock and its allocations replaced.
#define clock_gettime        read_clock
#define malloc(size)         (failing == 1 ? nullptr : malloc(size))
#define realloc(block, size) (failing == 2 ? nullptr : realloc(block, size))
#include "ruvo_timer.cpp"

TEST(Timer, RefusesWhatItCannotDo)
{
    static int calls = 0;
    const auto callback = [](intptr_t, intptr_t) { calls++; };
    EXPECT_EQ(ruvo_stop_timer(0), -1); // before any was started
    for (const int interval : {0, INT_MIN})
        EXPECT_EQ(ruvo_start_periodic_timer(interval, callback, 0, 0), -1);
    EXPECT_EQ(ruvo_start_timer(1, nullptr, 0, 0), -1);
    EXPECT_EQ(ruvo_timer_get_expected_interval(), -1);
    ruvo_fire_timer();
    const int id = ruvo_start_timer(INT_MAX, callback, 0, 0);
    EXPECT_EQ(ruvo_timer_get_expected_interval(), INT_MAX);
    for (const int unknown : {id ^ 0x40000000, id + 1, -1, INT_MIN, INT_MAX})
        EXPECT_EQ(ruvo_stop_timer(unknown), -1);
    now += INT_MAX * ms;
    ruvo_fire_timer();
    EXPECT_EQ(calls, 1); // none of the refused timers fired
    EXPECT_EQ(ruvo_stop_timer(id), -1);
}

// Pending timers: due time and number of the start, then id and period (0: fires once).
static std::map<std::pair<long long, intptr_t>, std::pair<int, long long>> model;
static std::mt19937 draw(77);
static long long passStart;

static void fired(intptr_t name, intptr_t negative);

static void start_one()
{
    static intptr_t name = 0;
    static std::set<int> seen; // ids must not repeat soon
    const int interval = 1 + draw() % 300;
    const bool periodic = draw() % 4 == 0;
    const auto start = periodic ? ruvo_start_periodic_timer : ruvo_start_timer;
    for (failing = heapCount == tableSize / 2 ? 2 : 0; failing > 0; failing--)
        EXPECT_EQ(start(interval, fired, 0, 0), -1); // and the table stays as it is
    name++;
    const int id = start(interval, fired, name, -name);
    EXPECT_TRUE(id >= 0 && seen.insert(id).second);
    model[{now + interval * ms, name}] = {id, periodic ? interval * ms : 0};
}

// Stops any timer, or the one that is due next.
static void stop_one()
{
    const size_t among = draw() % 2 ? model.size() : 1;
    const auto victim = std::next(model.begin(), draw() % among);
    EXPECT_EQ(ruvo_stop_timer(victim->second.first), 0);
    model.erase(victim);
}

// The timer must be the first one of the model; a periodic one keeps to the grid of its start. At
// random it stops itself, stops another one, starts one, or takes a while.
static void fired(intptr_t name, intptr_t negative)
{
    ASSERT_FALSE(model.empty());
    auto timer = model.extract(model.begin());
    const auto [id, period] = timer.mapped();
    EXPECT_LE(timer.key().first, passStart);
    EXPECT_EQ(timer.key().second, name);
    EXPECT_EQ(negative, -name);
    if (period == 0 || draw() % 8 == 0) {
        EXPECT_EQ(ruvo_stop_timer(id), period == 0 ? -1 : 0);
    } else {
        while (timer.key().first <= passStart)
            timer.key().first += period;
        model.insert(std::move(timer));
    }
    if (draw() % 4 == 0 && !model.empty())
        stop_one();
    if (draw() % 4 == 0)
        start_one();
    if (draw() % 16 == 0)
        now += 3 * ms;
}

// Order, ties, the wait for the next one, the grid of late periodic timers, growth, and what
// callbacks do.
TEST(Timer, AThousandTimersAsInASimpleModel)
{
    lastId = INT_MAX - 5000; // ids wrap around during the test
    for (int step = 0; step < 20000; step++) {
        if (model.size() < 1000)
            start_one();
        if (model.size() > 1 && draw() % 8 == 0)
            stop_one();
        now += draw() % 16 ? 0 : draw() % (4 * ms);
        const long long wait = std::max(0LL, model.begin()->first.first - now);
        ASSERT_EQ(ruvo_timer_get_expected_interval(), (wait + ms - 1) / ms); // rounded up
        passStart = now;
        ruvo_fire_timer();
        ASSERT_TRUE(model.empty() || model.begin()->first.first > passStart);
        ASSERT_FALSE(HasFailure());
    }
    EXPECT_GT(model.size(), 500u);
}
