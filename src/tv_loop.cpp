// tv_loop.cpp - the descriptor table and the main loop.
//
// Place    called by the application only; the library registers no descriptor itself.
// Method   poll() over a table of 16, in slot order; timers fire after every poll() and before any
//          descriptor is served. Handlers may register, unregister and close descriptors, so a
//          slot is searched anew for every ready descriptor.
// Failure  the loop ends when poll() fails with anything but EINTR.
// State    the table, in static storage, set up on first use.

#include "tv_log.h"

#include "ruvo_timer.h"

#include <errno.h>

struct fd_handler_slot {
    int fd; // -1: free
    intptr_t arg1;
    intptr_t arg2;
    tv_fd_handler handler;
};

static uint8_t fdTableInitialized;
static int fdHandlerCount;
static fd_handler_slot fdHandlerTable[TV_MAX_POLLING_FDS];

// Set by every registration, cleared before every poll(): whether a number that poll() reported
// may belong to another descriptor by now.
static bool registeredSincePoll;

static const fd_handler_slot freeSlot = {-1, 0, 0, NULL};

static void init_fd_handler_table(void)
{
    if (fdTableInitialized)
        return;
    fdTableInitialized = 1;
    fdHandlerCount = 0;
    for (fd_handler_slot &slot : fdHandlerTable)
        slot = freeSlot;
}

// The lowest slot that holds fd, or null.
static fd_handler_slot *find_slot(int fd)
{
    for (fd_handler_slot &slot : fdHandlerTable) {
        if (slot.fd == fd)
            return &slot;
    }
    return NULL;
}

int reserve_fd_index(void)
{
    init_fd_handler_table();
    if (fdHandlerCount >= TV_MAX_POLLING_FDS) {
        TV_LOG("failed on reserve_fd_index, fdHandlerCount[%d]", fdHandlerCount);
        return TV_MAX_POLLING_FDS;
    }
    const fd_handler_slot *slot = find_slot(-1);
    if (slot == NULL) {
        TV_LOG("failed on reserve_fd_index, no slot found");
        return TV_MAX_POLLING_FDS;
    }
    fdHandlerCount++;
    return (int)(slot - fdHandlerTable);
}

int tv_register_polling_fd(int fd, tv_fd_handler handler, intptr_t arg1, intptr_t arg2)
{
    const int index = reserve_fd_index();
    if (index >= TV_MAX_POLLING_FDS) {
        TV_LOG("tv_register_polling_fd, failed on reserve_fd_index");
        return -1;
    }
    fdHandlerTable[index] = {fd, arg1, arg2, handler};
    registeredSincePoll = true;
    TV_LOG("tv_register_polling_fd, fd[%d]", fd);
    return 0;
}

int tv_unregister_polling_fd(int fd)
{
    init_fd_handler_table();
    fd_handler_slot *slot = fd == -1 ? NULL : find_slot(fd); // -1 would find a free slot
    if (slot == NULL) {
        TV_LOG("faield on tv_unregister_polling_fd, fd[%d]", fd);
        return -1;
    }
    *slot = freeSlot;
    if (fdHandlerCount > 0) {
        TV_LOG("tv_unregister_polling_fd, fd[%d]", fd);
        fdHandlerCount--;
    }
    return 0;
}

int build_polling_fd_list(struct pollfd *list, int size)
{
    init_fd_handler_table();
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

// An earlier handler of this pass may have closed the descriptor that was reported, and another
// one may have got its number: its handler must not run and block for data that is not there.
static bool is_still_ready(int fd)
{
    if (!registeredSincePoll)
        return true;
    struct pollfd entry = {fd, POLLIN, 0};
    return poll(&entry, 1, 0) > 0;
}

static void handle_polling_socket(int fd)
{
    const fd_handler_slot *slot = find_slot(fd);
    if (slot == NULL)
        TV_LOG("unknown socket[%d], not registerd", fd);
    else if (is_still_ready(fd))
        slot->handler(fd, slot->arg1, slot->arg2);
}

void tv_main_loop(void)
{
    init_fd_handler_table();
    for (;;) {
        struct pollfd list[TV_MAX_POLLING_FDS];
        const int count = build_polling_fd_list(list, TV_MAX_POLLING_FDS);
        registeredSincePoll = false;
        const int ready = poll(list, count, ruvo_timer_get_expected_interval());
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready < 0) {
            perror("poll");
            return;
        }
        ruvo_fire_timer();
        for (int i = 0; ready > 0 && i < count; i++) {
            if (list[i].revents != 0)
                handle_polling_socket(list[i].fd);
        }
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
