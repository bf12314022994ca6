// ruvo_timer.cpp - one-shot and periodic timers on the monotonic clock.
//
// Callers  libtolvane.so and applications, on one thread; a library of its own.
// Method   a table holds the timers, each in the slot given by its id modulo the table's size. A
//          binary heap orders their ids by due time, then by start. A start takes the next id whose
//          slot is free, so no id is reused soon, and an id leads straight to its timer. The table
//          is at most half full, so a free slot is about two steps away on average.
// Cost     O(log n) to stop; amortised O(log n) to start.
// Failure  if memory runs out, a start returns -1 and changes nothing.
// State    the table and the heap, which grow but never shrink.

#include "ruvo_timer.h"

#include <limits.h>
#include <stdlib.h>
#include <time.h>

struct timer_entry {
    int id; // -1: free
    uint32_t heapIndex;
    int64_t due;    // nanoseconds on the monotonic clock
    uint64_t rank;  // the order of the starts
    int64_t period; // nanoseconds; 0: one-shot
    ruvo_timer_cb callback;
    intptr_t arg1;
    intptr_t arg2;
};

static const int64_t nsPerMs = 1000000;
static const uint32_t firstTableSize = 64;

static timer_entry *table; // tableSize entries, a power of two
static uint32_t tableSize;
static int *heap; // ids, room for tableSize / 2
static uint32_t heapCount;
static int lastId = -1;
static uint64_t nextRank;

static int64_t monotonic_ns(void)
{
    struct timespec now = {0, 0}; // should the clock ever fail
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * (1000 * nsPerMs) + now.tv_nsec;
}

static timer_entry *entry_of(int id)
{
    return &table[(uint32_t)id & (tableSize - 1)];
}

// ---- the heap

static bool is_before(int id, int otherId)
{
    const timer_entry *entry = entry_of(id);
    const timer_entry *other = entry_of(otherId);
    return entry->due != other->due ? entry->due < other->due : entry->rank < other->rank;
}

static void put(uint32_t index, int id)
{
    heap[index] = id;
    entry_of(id)->heapIndex = index;
}

// Move the timer at index towards the root, then towards the leaves, until the order holds.
static void settle(uint32_t index)
{
    const int id = heap[index];
    while (index > 0 && is_before(id, heap[(index - 1) / 2])) {
        put(index, heap[(index - 1) / 2]);
        index = (index - 1) / 2;
    }
    for (uint32_t child = 2 * index + 1; child < heapCount; child = 2 * index + 1) {
        if (child + 1 < heapCount && is_before(heap[child + 1], heap[child]))
            child++;
        if (!is_before(heap[child], id))
            break;
        put(index, heap[child]);
        index = child;
    }
    put(index, id);
}

static void remove_entry(timer_entry *entry)
{
    const uint32_t index = entry->heapIndex;
    entry->id = -1;
    heapCount--;
    if (index < heapCount) {
        heap[index] = heap[heapCount];
        settle(index);
    }
}

// ---- the table

// Make room for one more timer. Ids that differ modulo the old size also differ modulo twice that
// size, so no two timers share a slot of the new table.
static bool make_room(void)
{
    if (heapCount < tableSize / 2)
        return true;
    const uint32_t size = tableSize == 0 ? firstTableSize : 2 * tableSize;
    timer_entry *grown = (timer_entry *)malloc(size * sizeof(timer_entry));
    int *grownHeap = (int *)realloc(heap, size / 2 * sizeof(int));
    if (grownHeap != nullptr)
        heap = grownHeap;
    if (grown == nullptr || grownHeap == nullptr) {
        free(grown);
        return false;
    }
    for (uint32_t i = 0; i < size; i++)
        grown[i].id = -1;
    for (uint32_t i = 0; i < heapCount; i++)
        grown[(uint32_t)heap[i] & (size - 1)] = *entry_of(heap[i]);
    free(table);
    table = grown;
    tableSize = size;
    return true;
}

static int start(int interval, int64_t period, ruvo_timer_cb callback, intptr_t arg1, intptr_t arg2)
{
    if (interval < 1 || callback == nullptr || !make_room())
        return -1;
    do {
        lastId = lastId == INT_MAX ? 0 : lastId + 1;
    } while (entry_of(lastId)->id != -1);

    const int64_t due = monotonic_ns() + interval * nsPerMs;
    *entry_of(lastId) = {lastId, heapCount, due, nextRank++, period, callback, arg1, arg2};
    heap[heapCount] = lastId;
    settle(heapCount++);
    return lastId;
}

// ---- the interface

int ruvo_start_timer(int interval, ruvo_timer_cb callback, intptr_t arg1, intptr_t arg2)
{
    return start(interval, 0, callback, arg1, arg2);
}

int ruvo_start_periodic_timer(int interval, ruvo_timer_cb callback, intptr_t arg1, intptr_t arg2)
{
    return start(interval, interval * nsPerMs, callback, arg1, arg2);
}

int ruvo_stop_timer(int timerId)
{
    if (timerId < 0 || tableSize == 0 || entry_of(timerId)->id != timerId)
        return -1;
    remove_entry(entry_of(timerId));
    return 0;
}

int ruvo_timer_get_expected_interval(void)
{
    if (heapCount == 0)
        return -1;
    const int64_t remaining = entry_of(heap[0])->due - monotonic_ns();
    return remaining <= 0 ? 0 : (int)((remaining + nsPerMs - 1) / nsPerMs);
}

void ruvo_fire_timer(void)
{
    if (heapCount == 0)
        return;
    // The clock is read once, so a timer that a callback starts is not due in this pass.
    const int64_t now = monotonic_ns();
    while (heapCount > 0 && entry_of(heap[0])->due <= now) {
        timer_entry *entry = entry_of(heap[0]);
        const timer_entry due = *entry; // a copy: the callback may stop timers or grow the table
        if (due.period == 0) {
            remove_entry(entry);
        } else {
            entry->due += ((now - due.due) / due.period + 1) * due.period;
            settle(0);
        }
        due.callback(due.arg1, due.arg2);
    }
}
