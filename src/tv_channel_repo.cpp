// tv_channel_repo.cpp - lists of channels: the repository, the server's pairs, applications' own.
//
// Callers  tv_api.cpp and tv_server_api.cpp, which own the library's two lists, tolvane.hpp, and
//          applications.
// Method   circular and doubly linked; the head is itself a link. New entries are appended, and
//          searches start at the oldest. tv_index.cpp speeds up searches of the library's lists.
// Failure  every search logs a null link that it meets. An entry without a record, which
//          add_channel() makes if it is passed null, matches nothing.
// State    none but the lists.

#include "tv_internal.h"
#include "tv_log.h"

#include <stdlib.h>
#include <string.h>

tv_channel_node *add_channel(tv_channel_list *head, tv_channel *channel)
{
    index_node *node = (index_node *)calloc(1, sizeof(index_node));
    if (node == nullptr)
        return nullptr;
    tv_channel_list *links = &node->entry.links;
    node->entry.channel = channel;
    node->head = head;
    links->next = head;
    links->prev = head->prev;
    head->prev->next = links;
    head->prev = links;
    if (index_covers(head))
        index_add(node);
    return &node->entry;
}

static void remove_entry(const tv_channel_list *head, tv_channel_node *entry)
{
    if (index_covers(head))
        index_remove((index_node *)entry);
    step_walks_over(&entry->links);
    entry->links.next->prev = entry->links.prev;
    entry->links.prev->next = entry->links.next;
    free(entry);
}

// Return the entry after a link, or null at the end. Logs a null link in the caller's name.
static tv_channel_node *entry_after(const tv_channel_list *link, const tv_channel_list *head,
                                    const char *caller)
{
    if (link->next == head)
        return nullptr;
    if (link->next == nullptr)
        TV_LOG_AT(caller, __LINE__, "channel list is null");
    return (tv_channel_node *)link->next;
}

// Return the oldest entry whose channel matches, or null. `indexed` says whether ask_index() knows
// the list. Always inlined, because every message takes several searches.
template <typename Match, typename AskIndex>
static inline __attribute__((always_inline)) tv_channel_node *
search(const tv_channel_list *head, bool indexed, const char *caller, Match matches,
       AskIndex ask_index)
{
    int steps = 0;
    for (tv_channel_node *entry = entry_after(head, head, caller); entry != nullptr;
         entry = entry_after(&entry->links, head, caller)) {
        if (entry->channel != nullptr && matches(entry->channel))
            return entry;
        steps++;
        if (indexed && steps == WALK_FIRST) {
            tv_channel_node *found = ask_index();
            if (found != nullptr)
                return found;
        }
        if (indexed && steps == WALK_LIMIT)
            return nullptr;
    }
    return nullptr;
}

static inline __attribute__((always_inline)) tv_channel_node *
find_by_id(const tv_channel_list *head, int channelId, const char *caller)
{
    return search(
        head, index_covers(head), caller,
        [=](const tv_channel *channel) { return channel->channelId == channelId; },
        [=] { return index_find_id(head, channelId); });
}

int remove_channel(tv_channel_list *head, int channelId)
{
    tv_channel_node *entry = find_by_id(head, channelId, __func__);
    if (entry == nullptr)
        return 1;
    remove_entry(head, entry);
    return 0;
}

int unlist_channel(tv_channel_list *head, const tv_channel *channel)
{
    int result = 1;
    for (;;) {
        tv_channel_node *entry = search(
            head, index_covers(head), "remove_channel",
            [=](const tv_channel *listed) { return listed == channel; },
            [=] { return index_find_record(head, channel); });
        if (entry == nullptr)
            return result;
        remove_entry(head, entry);
        result = 0;
    }
}

tv_channel *get_channel(tv_channel_list *head, int channelId)
{
    const tv_channel_node *entry = find_by_id(head, channelId, __func__);
    return entry == nullptr ? nullptr : entry->channel;
}

tv_channel *get_channel_by_ip(tv_channel_list *head, const char *url)
{
    // Pairs that have not logged in have an empty URL, which is not indexed.
    const bool indexed = head == &tv_service_server.pairList && url[0] != '\0';
    const tv_channel_node *entry = search(
        head, indexed, __func__,
        [=](const tv_channel *channel) { return strcmp(channel->url, url) == 0; },
        [=] { return index_find_url(url); });
    return entry == nullptr ? nullptr : entry->channel;
}

void clean_channel_repo(tv_channel_list *head)
{
    while (head->next != head)
        remove_entry(head, (tv_channel_node *)head->next);
}
