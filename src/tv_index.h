// tv_index.h - where to look first in the library's own two lists; private, not installed.
//
// The lists are the truth. They are open to the application, and a search is a walk from the oldest
// entry on. The index spares the walk for the repository's channels by id and for the server's
// pairs by descriptor and by URL, and never changes a result: what it says is checked, and it says
// nothing of a list that has been changed by hand, or may have been.
#ifndef TV_INDEX_H
#define TV_INDEX_H

#include "tolvane.h"

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

#endif
