// hand_timer.h - the timer library on a clock that is moved by hand, in place of libruvo_timer.so:
// part of the one file that includes it.
#ifndef HAND_TIMER_H
#define HAND_TIMER_H

#include <stdlib.h>
#include <time.h>

// The monotonic clock in nanoseconds, free to be moved on. That alone fires nothing: it is left to
// the next ruvo_fire_timer, as in a loop.
static long long hand_timer_now = 5000000000123456;

static int read_clock(clockid_t clock, struct timespec *time)
{
    if (clock != CLOCK_MONOTONIC)
        abort();
    *time = {(time_t)(hand_timer_now / 1000000000), (long)(hand_timer_now % 1000000000)};
    return 0;
}

// The library itself, but for its clock.
#define clock_gettime read_clock
#include "ruvo_timer.cpp"
#undef clock_gettime

// Let the ids begin again soon.
[[maybe_unused]] static const int begin = lastId = INT_MAX - 5000;

#endif
