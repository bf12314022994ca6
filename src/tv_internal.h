// tv_internal.h - what the modules share and applications do not see; not installed.
//
// One section per module, from the lists up to the loop.
#ifndef TV_INTERNAL_H
#define TV_INTERNAL_H

#include "tolvane.h"

// tv_index.h - where to look first in the library's own two lists.
//
// The lists are the truth. They are open to the application, and a search is a walk from the oldest
// entry on. The index spares the walk for the repository's channels by id and for the server's
// pairs by descriptor and by URL, and never changes a result: what it says is checked, and it says
// nothing of a list that has been changed by hand, or may have been.

// After so many steps of a walk the index is asked: a short walk costs less.
enum { INDEX_FROM = 3 };

enum index_key { INDEX_ID, INDEX_FD, INDEX_URL };

extern tv_channel_list tv_repository; // tv_api.cpp

// The node of the repository's channel with the id, or of the pair with the descriptor, or null: it
// has to be searched.
tv_channel_node *index_find(index_key key, int number);

// The same of the pair with the URL. Returns false when it has to be searched; after true *node is
// the answer, null when no pair has the URL.
bool index_find_url(const char *url, tv_channel_node **node);

// Keep the index in step with any list: before it is changed, with the node that leaves it or null,
// and after that, with the node that was put last into it or null.
void index_changing(const tv_channel_list *head, const tv_channel_node *leaving);
void index_changed(const tv_channel_list *head, tv_channel_node *added);

// The same around a change of a pair's URL, and before a pair's socket is closed, which is listed
// then only if the application closes it by hand.
void index_renaming(const tv_channel *channel);
void index_renamed(const tv_channel *channel);
void index_closing(const tv_channel *channel);

// Say nothing of the list until it has been empty: the application has listed a record of its own,
// whose keys it may write at any time.
void index_distrust_list(const tv_channel_list *head);

// The same, and look at none of the list's records: they may be gone.
void index_forget_list(const tv_channel_list *head);

// Say nothing of pairs by URL until their list has been empty, if this is one: it is handed to the
// application, which may write its URL. Returns the record, which may be null.
tv_channel *index_handed_out(tv_channel *channel);

// ---- tv_channel_repo.cpp: what the exported operations on lists do, for the library's own use.
// They differ in that records do not come from the application, nor are handed to it.

void init_channel_list(tv_channel_list *head);
tv_channel_node *list_channel(tv_channel_list *head, tv_channel *channel);
tv_channel *find_by_id(tv_channel_list *head, int channelId);
tv_channel *find_by_url(tv_channel_list *head, const char *url);

// Take every entry of this very record out of the list. Returns 0, or 1 when there is none.
int unlist_channel(tv_channel_list *head, const tv_channel *channel);

// tv_api.cpp: what tv_get_channel does, for the library's own use.
tv_channel *find_listed_channel(int channelId);

// tv_guard.h - what lets a callback close any channel.
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

// tv_msg_header.cpp: the number of the message that follows, which wraps to 0.
int next_sequence(int sequence);

// tv_loop.cpp: a frame is about to be received on the descriptor, or a connection accepted. Unless
// that is all that the loop has called a handler for, it asks anew for what is ready before it calls
// the next one.
void input_expected(int fd);

#endif
