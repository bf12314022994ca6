#include "hand_timer.h"

#include <algorithm>
#include <stdlib.h>
#include <time.h>

long long hand_timer_now = 5000000000123456;

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
static const int firstId = lastId = INT_MAX - 5000; // they begin again during a test

void hand_timer_reset()
{
    while (heapCount > 0)
        ruvo_stop_timer(heap[0]);
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
