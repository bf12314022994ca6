#include "hand_timer.h"

#include <algorithm>
#include <stdlib.h>
#include <time.h>

long long hand_timer_now = 5000000000123456;
static bool failStarts = false;

static int read_clock(clockid_t clock, struct timespec *time)
{
    if (clock != CLOCK_MONOTONIC)
        abort();
    *time = {(time_t)(hand_timer_now / 1000000000), (long)(hand_timer_now % 1000000000)};
    return 0;
}

// The library itself, but for its clock and the way into a start.
#define clock_gettime             read_clock
#define ruvo_start_timer          start_one_shot
#define ruvo_start_periodic_timer start_periodic
#include "ruvo_timer.cpp"
static const int firstId = lastId = INT_MAX - 5000; // they begin again during a test
#undef ruvo_start_timer
#undef ruvo_start_periodic_timer

int ruvo_start_timer(int interval, ruvo_timer_cb callback, intptr_t arg1, intptr_t arg2)
{
    return failStarts ? -1 : start_one_shot(interval, callback, arg1, arg2);
}

int ruvo_start_periodic_timer(int interval, ruvo_timer_cb callback, intptr_t arg1, intptr_t arg2)
{
    return failStarts ? -1 : start_periodic(interval, callback, arg1, arg2);
}

void hand_timer_reset()
{
    while (heapCount > 0)
        ruvo_stop_timer(heap[0]);
    failStarts = false;
}

void hand_timer_advance(int ms)
{
    const long long end = hand_timer_now + ms * nsPerMs;
    while (heapCount > 0 && entry_of(heap[0])->due <= end) {
        hand_timer_now = std::max<long long>(hand_timer_now, entry_of(heap[0])->due);
        ruvo_fire_timer();
    }
    hand_timer_now = end;
}

std::vector<int> hand_timer_pending()
{
    std::vector<int> left;
    for (uint32_t i = 0; i < heapCount; i++)
        left.push_back((int)((entry_of(heap[i])->due - hand_timer_now) / nsPerMs));
    std::sort(left.begin(), left.end());
    return left;
}

void hand_timer_fail_starts(bool fail)
{
    failStarts = fail;
}
