// tv_internal.h - what the modules share with each other but not with applications; not installed.
//
// One section per module.
#ifndef TV_INTERNAL_H
#define TV_INTERNAL_H

#include "tolvane.h"

#include <limits.h>

// ---- tv_msg_header.cpp

// The sequence number after this one. After 2147483647, and after any negative number, it is 0.
static inline int next_sequence(int sequence)
{
    return sequence < 0 || sequence == INT_MAX ? 0 : sequence + 1;
}

// ---- tv_index.cpp

enum index_key {
    INDEX_ID,  // both lists: the channel's id
    INDEX_FD,  // pairs only: the descriptor
    INDEX_URL, // pairs only: the URL, once there is one
    INDEX_KEYS
};

// A list entry as add_channel allocates it. Lists and applications see its first member only.
struct index_node {
    tv_channel_node entry;
    const tv_channel_list *head; // the list that holds the entry
    uint64_t rank;               // lower is older
    struct {
        index_node *next;
        index_node **link; // the pointer to this node; null: not in a chain
    } chains[INDEX_KEYS];
};

extern tv_channel_list tv_repository; // tv_api.cpp

// Whether the index covers the list: the repository, or the server's pairs.
static inline bool index_covers(const tv_channel_list *head)
{
    return head == &tv_repository || head == &tv_service_server.pairList;
}

// Index an entry that has just been appended to its list, or drop one that is about to be removed
// from it. index_remove() does not read the entry's record, which may have been freed.
void index_add(index_node *node);
void index_remove(index_node *node);

// Index a pair by its URL again, after the URL has changed.
void index_update_url(const tv_channel *pair);

// Return the oldest matching entry, or null. Ids and records are looked up in the given list,
// descriptors and URLs among the server's pairs.
tv_channel_node *index_find_id(const tv_channel_list *head, int channelId);
tv_channel_node *index_find_record(const tv_channel_list *head, const tv_channel *channel);
tv_channel_node *index_find_fd(int fd);
tv_channel_node *index_find_url(const char *url);

// ---- tv_channel_repo.cpp

// A search of an indexed list first walks WALK_FIRST entries, which is cheaper when there are few
// channels, and then asks the index. If the index has no match, the walk continues up to WALK_LIMIT
// entries, so that searches of short lists work even if an application has edited the list itself.
enum { WALK_FIRST = 3, WALK_LIMIT = 32 };

// Remove every entry for this very record; other records with the same id stay. Returns 0, or 1 if
// there was no entry.
int unlist_channel(tv_channel_list *head, const tv_channel *channel);

// ---- tv_guard.cpp

// A guard lives on the stack of an operation while it calls back into the application. If the
// callback closes the channel, the record stays allocated until the outermost guard on it ends, and
// each guard tells its operation to stop:
//
//     channel_guard guard(channel);
//     handler(channelId);
//     if (guard.closed)
//         return;
struct channel_guard {
    explicit channel_guard(tv_channel *channel);
    ~channel_guard();
    channel_guard(const channel_guard &) = delete;

    tv_channel *channel;
    bool closed = false;         // the channel is gone, do not touch it
    bool closing = false;        // end_channel() is running on the channel
    bool replyReceived = false;  // the awaited reply has arrived; read by rqst_timeout()
    bool inLinkdown = false;     // the channel's link-down callback is running
    bool repeatLinkdown = false; // and must run once more
    channel_guard *outer;        // the enclosing guard, which may be on another channel; or null
};

// Whether a call of end_channel() on the channel is in progress further up the stack.
bool is_closing(const tv_channel *channel);

// Set the flag on all guards of the channel. Returns whether there are any.
bool mark_guards(const tv_channel *channel, bool channel_guard::*flag);

// Call the channel's link-down callback, unless there is none or it is running already: a send that
// fails inside it must not call it again. With repeatIfRunning, one that is already running is
// called once more after it returns. The callback may close the channel, so do not touch the record
// afterwards. Returns whether the callback was called.
bool report_linkdown(tv_channel *channel, bool repeatIfRunning = false);

// Free a closed, unlisted record and the requests it holds: now, or when the outermost guard on it
// ends.
void release_channel(tv_channel *channel);

// A walk over a list during which any entry may be removed.
struct list_walk {
    explicit list_walk(tv_channel_list *head);
    ~list_walk();
    list_walk(const list_walk &) = delete;

    // Return the next channel, or null at the end. Entries without a record are skipped.
    tv_channel *next_channel();

    tv_channel_list *head;
    tv_channel_list *next; // the next entry, the head at the end, or null after a null link
    list_walk *outer;
};

// Make every walk that is about to visit this entry skip it.
void step_walks_over(const tv_channel_list *entry);

// ---- tv_channel.cpp

// Receive one message, check its sequence number and dispatch it. handle_other gets logins, logouts
// and unknown types, and must free the message. Returns the handler's result, 0 if the receive
// failed, or -1 if the message is out of sequence.
int serve_channel(tv_channel *channel, int (*handle_other)(tv_channel *, int type, char *msg));

// ---- tv_api.cpp

// Add a new channel to the repository and return its id. If memory runs out, log that in the
// caller's name, close and release the channel, and return -1.
int list_new_channel(tv_channel *channel, const char *caller);

// Close a channel, remove its record from both lists and release it. Do not call it on a channel
// for which is_closing() holds.
void end_channel(tv_channel *channel);

// ---- tv_loop.cpp

// Call this before receiving a frame or accepting a connection on fd: afterwards poll()'s report
// that fd is readable may no longer hold.
void note_input_taken(int fd);

#endif
