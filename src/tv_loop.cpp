// tv_loop.cpp - the descriptor table and the main loop.
//
// Callers  the application; tcp_impl.cpp and tv_server_api.cpp call note_input_taken(). The library
//          itself registers no descriptor.
// Method   poll() over a table of 16. After each poll() that a signal did not interrupt, due timers
//          fire, as tv_main_loop() documents; then ready descriptors are served in slot order.
//          (Applications with their own loop should serve first, see ruvo_timer.h.) Handlers may
//          register, unregister and close descriptors, so the slot of a ready descriptor is looked
//          up just before it is served.
// Stale    when a descriptor's turn comes, poll()'s report may be out of date: the number may have
//          been reused for another descriptor, or the input may already have been read. The handler
//          would then block, so the loop polls the descriptor again whenever either may have
//          happened.
// Failure  the loop ends when poll() fails with anything but EINTR.
// State    the table.

#include "tv_internal.h"
#include "tv_log.h"

#include "ruvo_timer.h"

#include <errno.h>

struct fd_handler_slot {
    int fd = -1; // -1: free
    intptr_t arg1 = 0;
    intptr_t arg2 = 0;
    tv_fd_handler handler = nullptr;
};

static int fdHandlerCount;
static fd_handler_slot fdHandlerTable[TV_MAX_POLLING_FDS];

// Whether the reports of the last poll() may be out of date.
static bool reportsStale;

// The descriptor whose handler is running and has not taken its input yet, or -1.
static int servedFd = -1;

// The two timer functions that the loop calls. A site's own timer library may declare each of them
// with one int parameter, so pass one: the number of polled descriptors, and poll()'s result.
// ruvo_timer.cpp ignores them.
extern "C" {
int expected_interval(int listed) __asm__("ruvo_timer_get_expected_interval");
void fire_timer(int ready) __asm__("ruvo_fire_timer");
}

// Return the lowest slot that holds fd, or null.
static fd_handler_slot *find_slot(int fd)
{
    for (fd_handler_slot &slot : fdHandlerTable) {
        if (slot.fd == fd)
            return &slot;
    }
    return nullptr;
}

int reserve_fd_index(void)
{
    if (fdHandlerCount >= TV_MAX_POLLING_FDS) {
        TV_LOG("failed on reserve_fd_index, fdHandlerCount[%d]", fdHandlerCount);
        return TV_MAX_POLLING_FDS;
    }
    fdHandlerCount++;
    return (int)(find_slot(-1) - fdHandlerTable); // every slot in use is counted, so one is free
}

int tv_register_polling_fd(int fd, tv_fd_handler handler, intptr_t arg1, intptr_t arg2)
{
    const int index = reserve_fd_index();
    if (index >= TV_MAX_POLLING_FDS) {
        TV_LOG("tv_register_polling_fd, failed on reserve_fd_index");
        return -1;
    }
    fdHandlerTable[index] = {fd, arg1, arg2, handler};
    reportsStale = true;
    TV_LOG("tv_register_polling_fd, fd[%d]", fd);
    return 0;
}

int tv_unregister_polling_fd(int fd)
{
    fd_handler_slot *slot = fd == -1 ? nullptr : find_slot(fd); // -1 would find a free slot
    if (slot == nullptr) {
        TV_LOG("faield on tv_unregister_polling_fd, fd[%d]", fd);
        return -1;
    }
    *slot = {};
    fdHandlerCount--;
    TV_LOG("tv_unregister_polling_fd, fd[%d]", fd);
    return 0;
}

int build_polling_fd_list(struct pollfd *list, int size)
{
    int count = 0;
    for (const fd_handler_slot &slot : fdHandlerTable) {
        if (slot.fd == -1)
            continue;
        if (count >= size) {
            TV_LOG("build_external_fd_list, size is too small, for sanity, should never reach "
                   "here!!!");
            return count;
        }
        list[count++] = {slot.fd, POLLIN, 0};
    }
    return count;
}

void note_input_taken(int fd)
{
    if (fd != servedFd)
        reportsStale = true;
    servedFd = -1; // a report covers only one message or connection
}

static void handle_polling_socket(int fd)
{
    const fd_handler_slot *slot = find_slot(fd);
    if (slot == nullptr) {
        TV_LOG("unknown socket[%d], not registerd", fd);
        return;
    }
    struct pollfd entry = {fd, POLLIN, 0};
    if (reportsStale && poll(&entry, 1, 0) <= 0)
        return;
    servedFd = fd;
    slot->handler(fd, slot->arg1, slot->arg2);
    servedFd = -1;
}

static void serve_ready(const struct pollfd *list, int count)
{
    for (int i = 0; i < count; i++) {
        if (list[i].revents == 0)
            continue;
        for (int earlier = 0; earlier < i; earlier++) // a descriptor may be registered twice
            reportsStale |= list[earlier].fd == list[i].fd;
        handle_polling_socket(list[i].fd);
    }
}

void tv_main_loop(void)
{
    for (;;) {
        struct pollfd list[TV_MAX_POLLING_FDS];
        const int count = build_polling_fd_list(list, TV_MAX_POLLING_FDS);
        const int ready = poll(list, count, expected_interval(count));
        reportsStale = false;
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready < 0) {
            perror("poll");
            reportsStale = true; // for an outer loop, if this one is nested
            return;
        }
        fire_timer(ready);
        if (ready > 0)
            serve_ready(list, count);
    }
}

void tv_set_polling_interval(int interval)
{
    TV_LOG("tv_set_polling_interval, interval is %d", interval);
}

void disable_polling_timer(void)
{
    TV_LOG("disable_polling_timer");
}
