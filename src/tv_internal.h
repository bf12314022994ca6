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
        uint32_t hash;
        bool linked;
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

// A search of a covered list walks first, because that is cheaper for a few channels, and asks the
// index after WALK_FIRST entries. If the index knows no match, the walk goes on to WALK_LIMIT
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
//     channel_guard guard;
//     guard_channel(&guard, channel);
//     handler(channelId);
//     if (!unguard_channel(&guard))
//         return; // closed in the handler, and possibly freed by now
//
// Guards end in reverse order of their beginning, like the calls that hold them.
struct channel_guard {
    tv_channel *channel;
    bool closing;         // end_channel() is at work on the channel
    bool closed;          // the channel is gone; its record is kept for the guards on it
    bool replyReceived;   // the channel has received the reply to its request
    bool inLinkdown;      // the channel's link-down callback runs
    bool linkdownPending; // and must run once more
    channel_guard *outer;
};

void guard_channel(channel_guard *guard, tv_channel *channel);

// End a guard. Returns whether the channel is still open; if not, do not touch the record.
bool unguard_channel(channel_guard *guard);

// Whether end_channel() is at work on the channel further out on the stack.
bool is_closing(const tv_channel *channel);

// Note on all guards of a channel that it has received a reply.
void note_reply(const tv_channel *channel);

// Call the channel's link-down callback, unless there is none or it is running already: a send that
// fails inside it must not call it again. If it is running and the report is one that must not be
// lost, it is called once more after it has returned. The callback may close the channel, so do not
// touch the record afterwards. Returns whether the callback was called.
bool report_linkdown(tv_channel *channel, bool mustNotBeLost = false);

// Free a record that is closed and unlisted, with the requests it holds: now, or when the outermost
// guard on it ends.
void release_channel(tv_channel *channel);

// A walk over a list that survives the removal of any entry. Walks nest like guards.
struct list_walk {
    tv_channel_list *head;
    tv_channel_list *next; // the next entry, the head at the end, or null after a null link
    list_walk *outer;
};

void begin_walk(list_walk *walk, tv_channel_list *head);

// Return the next channel, or null at the end. Entries without a record are passed over.
tv_channel *next_channel(list_walk *walk);
void end_walk(list_walk *walk);

// Move the walks that would visit this entry next to the one after it.
void step_walks_over(const tv_channel_list *entry);

// ---- tv_channel.cpp

// Receive one message and check its sequence number. Returns the message, which the caller owns, and
// its length, or null with the reason in *result: 0 nothing received (the link-down callback has
// run and may have closed the channel), -1 out of sequence.
char *receive_msg(tv_channel *channel, int *len, int *result);

// Handle a request, reply, heartbeat or acknowledgement. Takes msg.
int dispatch_msg(tv_channel *channel, int type, char *msg, int len);

// ---- tv_api.cpp

// Close a channel, take its record out of both lists and release it. The channel must not be closing
// already.
void end_channel(tv_channel *channel);

// ---- tv_loop.cpp

// Note that a frame is about to be received on a descriptor, or a connection accepted there.
void note_input_taken(int fd);

#endif
