// tv_channel_repo.cpp - lists of channels, the repository's and the server's.
//
// Place    below tv_api.cpp and tv_server_api.cpp, which own the lists.
// Method   circular, doubly linked, with the head as a link of its own; new entries go last, and
//          searches start at the oldest. tv_index.cpp spares the walk in the library's own lists.
// Failure  a head or a node with a null link is reported by every search that meets it.
//          A node without a record, which add_channel makes of a null one, matches nothing.
// State    none but the lists.

#include "tv_internal.h"
#include "tv_log.h"

#include <stdlib.h>
#include <string.h>

void init_channel_list(tv_channel_list *head)
{
    head->next = head;
    head->prev = head;
}

tv_channel_node *list_channel(tv_channel_list *head, tv_channel *channel)
{
    tv_channel_node *node = (tv_channel_node *)calloc(1, sizeof(tv_channel_node));
    if (node == NULL)
        return NULL;
    index_changing(head, NULL);
    node->channel = channel;
    node->links.next = head;
    node->links.prev = head->prev;
    head->prev->next = &node->links;
    head->prev = &node->links;
    index_changed(head, node);
    return node;
}

tv_channel_node *add_channel(tv_channel_list *head, tv_channel *channel)
{
    tv_channel_node *node = list_channel(head, channel);
    index_distrust_list(head);
    return node;
}

// The node behind a link, or null at the end. A null link is logged in the caller's name.
static tv_channel_node *next_node(const tv_channel_list *head, const tv_channel_list *link,
                                  const char *caller = __builtin_FUNCTION(),
                                  int line = __builtin_LINE())
{
    if (link->next == head)
        return NULL;
    if (link->next == NULL)
        TV_LOG_AT(caller, line, "channel list is null");
    return (tv_channel_node *)link->next;
}

static void unlink_and_free(tv_channel_node *node)
{
    step_walks_over(&node->links);
    node->links.next->prev = node->links.prev;
    node->links.prev->next = node->links.next;
    free(node);
}

static void remove_node(tv_channel_list *head, tv_channel_node *node)
{
    index_changing(head, node);
    unlink_and_free(node);
    index_changed(head, NULL);
}

// The oldest node of a channel with the id, or null. Every message asks for it twice.
static inline __attribute__((always_inline)) tv_channel_node *
find_node(tv_channel_list *head, int channelId, const char *caller)
{
    int steps = 0;
    for (tv_channel_node *node = next_node(head, head, caller); node != NULL;
         node = next_node(head, &node->links, caller)) {
        if (node->channel != NULL && node->channel->channelId == channelId)
            return node;
        if (++steps == INDEX_FROM && head == &tv_repository) {
            tv_channel_node *found = index_find(INDEX_ID, channelId);
            if (found != NULL)
                return found;
        }
    }
    return NULL;
}

int remove_channel(tv_channel_list *head, int channelId)
{
    tv_channel_node *node = find_node(head, channelId, __func__);
    if (node == NULL)
        return 1;
    remove_node(head, node);
    return 0;
}

int unlist_channel(tv_channel_list *head, const tv_channel *channel)
{
    tv_channel_node *node = NULL;
    if (head == &tv_repository)
        node = index_find(INDEX_ID, channel->channelId);
    else if (channel->pairSocket != NULL)
        node = index_find(INDEX_FD, channel->pairSocket->fd);
    if (node != NULL && node->channel == channel) {
        remove_node(head, node); // the only one: the application has added none to this list
        return 0;
    }
    int result = 1;
    for (node = next_node(head, head, "remove_channel"); node != NULL;) {
        tv_channel_node *const candidate = node;
        node = next_node(head, &node->links, "remove_channel");
        if (candidate->channel == channel) {
            remove_node(head, candidate);
            result = 0;
        }
    }
    return result;
}

tv_channel *find_by_id(tv_channel_list *head, int channelId)
{
    const tv_channel_node *node = find_node(head, channelId, "get_channel");
    return node == NULL ? NULL : node->channel;
}

tv_channel *find_by_url(tv_channel_list *head, const char *url)
{
    tv_channel_node *node;
    if (head == &tv_service_server.pairList && index_find_url(url, &node))
        return node == NULL ? NULL : node->channel;
    for (node = next_node(head, head, "get_channel_by_ip"); node != NULL;
         node = next_node(head, &node->links, "get_channel_by_ip")) {
        if (node->channel != NULL && strcmp(node->channel->url, url) == 0)
            return node->channel;
    }
    return NULL;
}

tv_channel *get_channel(tv_channel_list *head, int channelId)
{
    return index_handed_out(find_by_id(head, channelId));
}

tv_channel *get_channel_by_ip(tv_channel_list *head, const char *url)
{
    return index_handed_out(find_by_url(head, url));
}

void clean_channel_repo(tv_channel_list *head)
{
    index_forget_list(head);
    while (head->next != head || head->prev != head)
        unlink_and_free((tv_channel_node *)head->next);
    index_changed(head, NULL);
}
