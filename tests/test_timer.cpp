// test_timer.cpp - the timer library, on a monotonic clock that is moved by hand.

#include "hand_timer.h"

#include <gtest/gtest.h>

#include <functional>
#include <limits.h>
#include <map>
#include <random>
#include <set>

static const long long ms = 1000000;

using Fired = std::vector<intptr_t>;
static Fired fired; // the first arguments, in order

static void record(intptr_t name, intptr_t action)
{
    fired.push_back(name);
    if (action != 0)
        (*(const std::function<void()> *)action)();
}

// What fires in one pass, ns later.
static Fired after(long long ns)
{
    hand_timer_now += ns;
    fired.clear();
    ruvo_fire_timer();
    return fired;
}

TEST(Timer, CallbacksStopAndStartTimers)
{
    int first = -1, victim = -1, own = -1;
    const std::function<void()> stopOthers = [&] {
        EXPECT_EQ(ruvo_stop_timer(victim), 0);
        EXPECT_EQ(ruvo_stop_timer(first), -1); // has fired
    };
    const std::function<void()> stopOwn = [&] { EXPECT_EQ(ruvo_stop_timer(own), 0); };
    const std::function<void()> startSlowly = [&] {
        ruvo_start_timer(1, record, 5, 0);
        hand_timer_now += 3 * ms;
    };
    first = ruvo_start_timer(10, record, 1, (intptr_t)&stopOthers);
    victim = ruvo_start_timer(10, record, 2, 0);
    own = ruvo_start_periodic_timer(10, record, 3, (intptr_t)&stopOwn);
    ruvo_start_timer(10, record, 4, (intptr_t)&startSlowly);
    EXPECT_EQ(after(10 * ms), (Fired{1, 3, 4}));
    EXPECT_EQ(after(0), Fired{5});
    EXPECT_EQ(after(100 * ms), Fired());
}

TEST(Timer, RefusesWhatItCannotDo)
{
    for (const int interval : {0, INT_MIN})
        EXPECT_EQ(ruvo_start_periodic_timer(interval, record, 0, 0), -1);
    EXPECT_EQ(ruvo_start_timer(1, nullptr, 0, 0), -1);
    EXPECT_EQ(ruvo_timer_get_expected_interval(), -1);
    const int id = ruvo_start_timer(INT_MAX, record, 0, 0);
    EXPECT_EQ(ruvo_timer_get_expected_interval(), INT_MAX);
    for (const int unknown : {id ^ 0x40000000, id + 1, -1, INT_MIN, INT_MAX})
        EXPECT_EQ(ruvo_stop_timer(unknown), -1);
    EXPECT_EQ(ruvo_stop_timer(id), 0);
    EXPECT_EQ(ruvo_stop_timer(id), -1);
}

// Order, ties, the wait for the next one, the grid of late periodic timers, growth, and ids that do
// not come round soon.
TEST(Timer, AThousandTimersAsInASimpleModel)
{
    struct Model {
        int id, period;
    };
    std::map<std::pair<long long, intptr_t>, Model> model; // by due time and start
    std::set<int> seen;
    std::mt19937 random(77);
    for (intptr_t name = 0; name < 20000; name++) {
        if (model.size() < 1000) {
            const int interval = 1 + random() % 300, period = random() % 4 ? 0 : interval;
            const auto start = period ? ruvo_start_periodic_timer : ruvo_start_timer;
            const int id = start(interval, record, name, 0);
            EXPECT_TRUE(id >= 0 && seen.insert(id).second);
            model[{hand_timer_now + interval * ms, name}] = {id, period};
        }
        if (model.size() > 1 && random() % 4 == 0) {
            const auto victim = std::next(model.begin(), random() % model.size());
            EXPECT_EQ(ruvo_stop_timer(victim->second.id), 0);
            model.erase(victim);
        }
        hand_timer_now += random() % 16 ? 0 : random() % (4 * ms);
        const long long wait = std::max(0LL, model.begin()->first.first - hand_timer_now);
        ASSERT_EQ(ruvo_timer_get_expected_interval(), (wait + ms - 1) / ms); // rounded up
        const Fired actual = after(0);
        Fired expected;
        while (!model.empty() && model.begin()->first.first <= hand_timer_now) {
            auto timer = model.extract(model.begin());
            expected.push_back(timer.key().second);
            while (timer.mapped().period > 0 && timer.key().first <= hand_timer_now)
                timer.key().first += timer.mapped().period * ms;
            if (timer.mapped().period > 0)
                model.insert(std::move(timer));
        }
        ASSERT_EQ(actual, expected);
    }
    EXPECT_GT(model.size(), 500u);
}
