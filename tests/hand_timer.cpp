#include "hand_timer.h"

#include <algorithm>

struct hand_timer {
    int id;
    int interval;
    bool periodic;
    long long due;
    ruvo_timer_cb callback;
    intptr_t arg1, arg2;
};

static std::vector<hand_timer> timers; // in order of their starts
static long long now = 0;
static int nextId = 0;
static bool failStarts = false;

// The timer that is due first, the one started first among equals.
static std::vector<hand_timer>::iterator first_due()
{
    return std::min_element(timers.begin(), timers.end(),
                            [](const hand_timer &a, const hand_timer &b) { return a.due < b.due; });
}

static void fire_until(long long end)
{
    for (auto timer = first_due(); timer != timers.end() && timer->due <= end;
         timer = first_due()) {
        const hand_timer fired = *timer; // the callback may stop it
        now = std::max(now, fired.due);
        if (fired.periodic)
            timer->due += ((now - fired.due) / fired.interval + 1) * fired.interval;
        else
            timers.erase(timer);
        fired.callback(fired.arg1, fired.arg2);
    }
}

static int start(bool periodic, int interval, ruvo_timer_cb callback, intptr_t arg1, intptr_t arg2)
{
    if (failStarts || interval < 1)
        return -1;
    timers.push_back({nextId, interval, periodic, now + interval, callback, arg1, arg2});
    return nextId++;
}

void hand_timer_reset()
{
    timers.clear();
    nextId = 0;
    failStarts = false;
}

void hand_timer_advance(int ms)
{
    const long long end = now + ms;
    fire_until(end);
    now = end;
}

void hand_timer_let_pass(int ms)
{
    now += ms;
}

std::vector<int> hand_timer_intervals()
{
    std::vector<int> intervals;
    for (const hand_timer &timer : timers)
        intervals.push_back(timer.interval);
    return intervals;
}

void hand_timer_fail_starts(bool fail)
{
    failStarts = fail;
}

int ruvo_start_timer(int interval, ruvo_timer_cb callback, intptr_t arg1, intptr_t arg2)
{
    return start(false, interval, callback, arg1, arg2);
}

int ruvo_start_periodic_timer(int interval, ruvo_timer_cb callback, intptr_t arg1, intptr_t arg2)
{
    return start(true, interval, callback, arg1, arg2);
}

int ruvo_stop_timer(int timerId)
{
    const auto timer = std::find_if(timers.begin(), timers.end(),
                                    [=](const hand_timer &t) { return t.id == timerId; });
    if (timer == timers.end())
        return -1;
    timers.erase(timer);
    return 0;
}

int ruvo_timer_get_expected_interval(void)
{
    return timers.empty() ? -1 : (int)std::max(0LL, first_due()->due - now);
}

// A timer started in a callback is due later than now and has to wait for the next pass.
void ruvo_fire_timer(void)
{
    fire_until(now);
}
