// tv_guard.h - what lets a callback close any channel; private, not installed.
//
// A channel_guard lives on the stack of an operation while it calls back. If the channel is
// closed meanwhile, its record stays allocated until the outermost guard on it ends, and each
// guard reports the loss to its operation, which then stops.
//
//     channel_guard guard;
//     guard_channel(&guard, channel);
//     handler(channelId);
//     if (!unguard_channel(&guard))
//         return;    // closed in the handler, and possibly released by now
//
// A list_walk does the same for a walk over a channel list: entries may be removed under it, the
// next one included.
#ifndef TV_GUARD_H
#define TV_GUARD_H

#include "tolvane.h"

struct channel_guard {
    tv_channel *channel;
    bool closing; // the channel is being closed: a nested close has nothing to do
    bool closed;  // the channel is gone, its record is kept for the guards on it
    bool telling; // the channel's link-down callback runs
    channel_guard *outer;
};

struct list_walk {
    tv_channel_list *head;
    tv_channel_list *next; // the entry to be visited next, or the head at the end
    list_walk *outer;
};

// Guards nest like the calls that hold them, the last begun ends first.
void guard_channel(channel_guard *guard, tv_channel *channel);

// End a guard. Returns true while the channel is still there; after false the record must not be
// touched, it is released with the outermost guard.
bool unguard_channel(channel_guard *guard);

// Whether the channel is being closed further out on the stack.
bool is_closing(const tv_channel *channel);

// Release a record that is closed and unlisted, with the requests it holds: now, or when the
// outermost guard on it ends.
void release_channel(tv_channel *channel);

// Call the channel's link-down callback, if it has one and that does not run already: it may send
// on its own channel, or to all, and that fails again. It may close the channel. Returns whether it
// was called. The caller does not touch the record again.
bool report_linkdown(tv_channel *channel);

// Walks nest like guards. next_channel returns null at the end, also when it meets a null link: a
// head with null links is walked like an empty list.
void begin_walk(list_walk *walk, tv_channel_list *head);
tv_channel *next_channel(list_walk *walk);
void end_walk(list_walk *walk);

// Before an entry is removed: the walks that would visit it next go on with the one behind it.
void step_walks_over(const tv_channel_list *entry);

// tv_loop.cpp: a frame is about to be received on the descriptor, or a connection accepted. Unless
// that is all that the loop has called a handler for, it asks anew for what is ready before it calls
// the next one.
void input_expected(int fd);

#endif
