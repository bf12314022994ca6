// hand_timer.h - the timer library on a clock that is moved by hand, in place of libruvo_timer.so.
#ifndef HAND_TIMER_H
#define HAND_TIMER_H

#include "ruvo_timer.h"

#include <vector>

// The monotonic clock in nanoseconds, free to be moved on. That alone fires nothing: it is left to
// the next ruvo_fire_timer, as in a loop.
extern long long hand_timer_now;

// Stop all timers.
void hand_timer_reset();

// Move the clock on and fire each timer at its own time, in order of those times.
void hand_timer_advance(int ms);

// How many milliseconds each pending timer has left, the shortest first.
std::vector<int> hand_timer_pending();

#endif
