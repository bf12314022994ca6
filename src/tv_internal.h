// tv_internal.h - what the modules share and applications do not see; not installed.
//
// One section per module, in the order in which the modules build on each other.
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
    uint64_t rank;               // entries of a list rank by age, the oldest lowest
    struct {
        index_node *next;
        index_node **link; // what points here, or null: not in a chain
    } chains[INDEX_KEYS];
};

extern tv_channel_list tv_repository; // tv_api.cpp

// Whether the index covers the list: the repository, or the server's pairs.
static inline bool index_covers(const tv_channel_list *head)
{
    return head == &tv_repository || head == &tv_service_server.pairList;
}

// Add an entry that has just been appended to a list; remove one that is about to leave it. The
// record of an entry that leaves is not read: it may have been freed.
void index_add(index_node *node);
void index_remove(index_node *node);

// Index a pair by its URL again, after the URL has changed.
void index_update_url(const tv_channel *pair);

// Return the oldest entry of the list whose channel has the id, or is this very record; the oldest
// pair with the descriptor, or with the URL. Null: there is none.
tv_channel_node *index_find_id(const tv_channel_list *head, int channelId);
tv_channel_node *index_find_record(const tv_channel_list *head, const tv_channel *channel);
tv_channel_node *index_find_fd(int fd);
tv_channel_node *index_find_url(const char *url);

// ---- tv_channel_repo.cpp

// A search of a list that the index covers walks WALK_FIRST entries, which is cheaper for a few
// channels, and then asks the index. If the index knows no match, the walk goes on to WALK_LIMIT
// entries, so that short lists behave like plain ones even if an application has changed them.
enum { WALK_FIRST = 3, WALK_LIMIT = 32 };

// Remove every entry of this record, whatever other records have its id. Returns 0, or 1 when
// there is none.
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
    channel_guard &operator=(const channel_guard &) = delete;

    tv_channel *channel;
    bool closed = false;         // the channel is gone, do not touch it
    bool closing = false;        // end_channel() is at work on the channel
    bool replyReceived = false;  // the awaited reply has arrived; read by rqst_timeout()
    bool inLinkdown = false;     // the channel's link-down callback runs
    bool repeatLinkdown = false; // and must run once more
    channel_guard *outer;
};

// Whether end_channel() is at work on the channel further out on the stack.
bool is_closing(const tv_channel *channel);

// Note on all guards of a channel that it has received a reply.
void note_reply(const tv_channel *channel);

// Call the channel's link-down callback, unless there is none or it is running already: a send that
// fails inside it must not call it again. With repeatIfRunning, a callback that is running is called
// once more after it has returned. The callback may close the channel, so do not touch the record
// afterwards. Returns whether the callback was called.
bool report_linkdown(tv_channel *channel, bool repeatIfRunning = false);

// Free a record that is closed and unlisted, with the requests it holds: now, or when the outermost
// guard on it ends.
void release_channel(tv_channel *channel);

// A walk over a list. Any entry may be removed meanwhile.
struct list_walk {
    explicit list_walk(tv_channel_list *head);
    ~list_walk();
    list_walk(const list_walk &) = delete;
    list_walk &operator=(const list_walk &) = delete;

    // Return the next channel, or null at the end. Entries without a record are passed over.
    tv_channel *next_channel();

    tv_channel_list *head;
    tv_channel_list *next; // the next entry, the head at the end, or null after a null link
    list_walk *outer;
};

// Move the walks that would visit this entry next to the one after it.
void step_walks_over(const tv_channel_list *entry);

// ---- tv_channel.cpp

// Receive one message, check its sequence number and handle it. A login, a logout or a message of
// no known type goes to handle_other, which releases it. Returns 0, the result of the handling, or -1
// for a message out of sequence.
int serve_channel(tv_channel *channel, int (*handle_other)(tv_channel *, int type, char *msg));

// ---- tv_api.cpp

// List a new channel in the repository. Returns its id, or releases it and returns -1: no memory,
// which is logged in the caller's name.
int list_new_channel(tv_channel *channel, const char *caller);

// Close a channel, take its record out of both lists and release it. The channel must not be closing
// already.
void end_channel(tv_channel *channel);

// ---- tv_loop.cpp

// Note that a frame is received from a descriptor, or a connection accepted there.
void note_input_taken(int fd);

#endif
