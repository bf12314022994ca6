// hand_timer.h - a timer service whose clock is moved by hand, in place of libruvo_timer.so.
#ifndef HAND_TIMER_H
#define HAND_TIMER_H

#include "ruvo_timer.h"

#include <vector>

// Forget all timers, let starts succeed, and hand out ids from 0 again.
void hand_timer_reset();

// Move the clock on and fire each timer at its own time, in order of those times.
void hand_timer_advance(int ms);

// Move the clock on without firing: that is left to the next ruvo_fire_timer, as in the loop.
void hand_timer_let_pass(int ms);

// The intervals of the pending timers, in order of their starts.
std::vector<int> hand_timer_intervals();

// Let every start fail with -1 from now on, or succeed again.
void hand_timer_fail_starts(bool fail);

#endif
