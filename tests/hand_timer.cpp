#include "hand_timer.h"

#include <algorithm>

namespace
{
struct hand_timer {
    int id;
    long long due;
    int interval;
    bool periodic;
    ruvo_timer_cb callback;
    intptr_t arg1;
    intptr_t arg2;
};

std::vector<hand_timer> timers; // in order of their starts
long long now = 0;
int nextId = 0;
bool failStarts = false;

std::vector<hand_timer>::iterator find_timer(int id)
{
    return std::find_if(timers.begin(), timers.end(),
                        [id](const hand_timer &timer) { return timer.id == id; });
}

std::vector<hand_timer>::iterator first_due()
{
    return std::min_element(timers.begin(), timers.end(),
                            [](const hand_timer &a, const hand_timer &b) { return a.due < b.due; });
}

int start(int interval, bool periodic, ruvo_timer_cb callback, intptr_t arg1, intptr_t arg2)
{
    if (failStarts || interval < 1 || callback == nullptr)
        return -1;
    timers.push_back({nextId, now + interval, interval, periodic, callback, arg1, arg2});
    return nextId++;
}

void fire(std::vector<hand_timer>::iterator timer)
{
    const hand_timer fired = *timer; // the callback may stop it
    if (fired.periodic)
        timer->due += (now - timer->due) / fired.interval * fired.interval + fired.interval;
    else
        timers.erase(timer);
    fired.callback(fired.arg1, fired.arg2);
}
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
    for (auto timer = first_due(); timer != timers.end() && timer->due <= end;
         timer = first_due()) {
        now = std::max(now, timer->due);
        fire(timer);
    }
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

extern "C" {
int ruvo_start_timer(int interval, ruvo_timer_cb callback, intptr_t arg1, intptr_t arg2)
{
    return start(interval, false, callback, arg1, arg2);
}

int ruvo_start_periodic_timer(int interval, ruvo_timer_cb callback, intptr_t arg1, intptr_t arg2)
{
    return start(interval, true, callback, arg1, arg2);
}

int ruvo_stop_timer(int timerId)
{
    const auto timer = find_timer(timerId);
    if (timer == timers.end())
        return -1;
    timers.erase(timer);
    return 0;
}

int ruvo_timer_get_expected_interval(void)
{
    const auto timer = first_due();
    return timer == timers.end() ? -1 : (int)std::max(0LL, timer->due - now);
}

// A timer started in a callback is due later than now and has to wait for the next pass.
void ruvo_fire_timer(void)
{
    for (auto timer = first_due(); timer != timers.end() && timer->due <= now; timer = first_due())
        fire(timer);
}
}
