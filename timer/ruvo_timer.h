/** @file
 * One-shot and periodic timers for a poll() loop, on one thread.
 *
 * The public header of libruvo_timer.so, for C11 and C++17. libtolvane.so calls only these five
 * functions, so a site may replace libruvo_timer.so with its own.
 *
 * A loop waits for at most ruvo_timer_get_expected_interval() milliseconds, serves the ready
 * descriptors, and then calls ruvo_fire_timer(). In this order a reply that has arrived is not
 * counted as late:
 *
 *     for (;;) {
 *         int ready = poll(list, count, ruvo_timer_get_expected_interval());
 *         ... serve the ready descriptors ...
 *         ruvo_fire_timer();
 *     }
 *
 * Times are milliseconds on the monotonic clock. There are no locks: one thread makes all calls.
 * Memory grows with the largest number of timers pending at once and is kept for later timers. */
#ifndef RUVO_TIMER_H
#define RUVO_TIMER_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Runs when a timer is due, inside ruvo_fire_timer(). May start timers, which do not fire in the
 * same pass, and stop any timer, including its own.
 *
 * @param arg1  as given to the start
 * @param arg2  as given to the start */
typedef void (*ruvo_timer_cb)(intptr_t arg1, intptr_t arg2);

/** Starts a timer that fires once.
 *
 * The id becomes invalid when the timer fires, before the callback runs. It is reused only after
 * more than 2^30 other starts.
 *
 * @param interval  milliseconds until it fires, 1 or more
 * @param callback  not null
 * @param arg1      passed to the callback
 * @param arg2      passed to the callback
 * @return the timer's id, 0 or more; or -1: interval below 1, null callback, or no memory */
int ruvo_start_timer(int interval, ruvo_timer_cb callback, intptr_t arg1, intptr_t arg2);

/** Starts a timer that fires every interval until it is stopped.
 *
 * It is due 1, 2, 3, ... intervals after the start. If several of these times have passed, it fires
 * once and continues with the next one still to come.
 *
 * @param interval  milliseconds, 1 or more
 * @param callback  not null
 * @param arg1      passed to the callback
 * @param arg2      passed to the callback
 * @return the timer's id, as for ruvo_start_timer(); or -1 */
int ruvo_start_periodic_timer(int interval, ruvo_timer_cb callback, intptr_t arg1, intptr_t arg2);

/** Stops a timer: its callback does not run again.
 *
 * @return 0, or -1 if no timer has the id */
int ruvo_stop_timer(int timerId);

/** Returns how long poll() may wait: the milliseconds until the next timer is due, rounded up; 0 if
 * one is due already; -1 if no timer is pending. */
int ruvo_timer_get_expected_interval(void);

/** Runs the callbacks of all timers that are due by the clock, earliest first; timers due at the
 * same time run in the order in which they were started. */
void ruvo_fire_timer(void);

#ifdef __cplusplus
}
#endif

#endif
