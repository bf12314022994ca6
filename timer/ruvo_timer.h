/* ruvo_timer.h - one-shot and periodic timers for a poll() loop, on one thread.
 *
 * The public header of libruvo_timer.so, for C11 and C++17. libtolvane.so calls these five
 * functions and nothing else of a timer library, so a site may put its own libruvo_timer.so in
 * this one's place.
 *
 * A loop waits for at most ruvo_timer_get_expected_interval() and calls ruvo_fire_timer()
 * afterwards:
 *
 *     for (;;) {
 *         poll(list, count, ruvo_timer_get_expected_interval());
 *         ruvo_fire_timer();
 *         ... serve the ready descriptors ...
 *     }
 *
 * Times are milliseconds on the monotonic clock. Nothing is locked: one thread makes all calls.
 * Memory grows with the largest number of timers pending at once, and is kept for the next ones.
 */
#ifndef RUVO_TIMER_H
#define RUVO_TIMER_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Called by ruvo_fire_timer when a timer is due, with the two arguments of its start. May start
 * timers, which do not fire in the same pass, and stop any, its own included. */
typedef void (*ruvo_timer_cb)(intptr_t arg1, intptr_t arg2);

/* Start a timer.
 *
 *   interval  milliseconds, 1 or more, until it fires; for a periodic one also between two times
 *   callback  not null
 *
 * Returns the timer's id, 0 or more, or -1: an interval below 1, a null callback, or no memory.
 * An id comes round again only after more than 2^30 starts. A one-shot timer's id names nothing
 * from the moment it fires. A periodic timer keeps to the grid of its start; one that is late by
 * several periods fires once and goes on with the next point of the grid. */
int ruvo_start_timer(int interval, ruvo_timer_cb callback, intptr_t arg1, intptr_t arg2);
int ruvo_start_periodic_timer(int interval, ruvo_timer_cb callback, intptr_t arg1, intptr_t arg2);

/* Stop a timer: its callback is not called again. Returns 0, or -1 when the id names none. */
int ruvo_stop_timer(int timerId);

/* Return the milliseconds until the next timer is due, rounded up, 0 when it is due already, or
 * -1 when no timer is pending: what poll() takes as its time-out. */
int ruvo_timer_get_expected_interval(void);

/* Call the callbacks of all timers that are due by the clock, earliest first, those due at the
 * same time in the order of their starts. */
void ruvo_fire_timer(void);

#ifdef __cplusplus
}
#endif

#endif
