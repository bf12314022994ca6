// tv_channel_repo.cpp - lists of channels, the repository's and the server's.
//
// Place    below tv_api.cpp and tv_server_api.cpp, which own the lists.
// Method   circular, doubly linked, with the head as a link of its own; new entries go last, and
//          searches start at the oldest. Searches are linear on purpose: a process has few
//          channels.
// Failure  a head or a node with a null link is reported by every search that meets it.
//          A node without a record, which add_channel makes of a null one, matches nothing.
// State    none but the lists.

#include "tv_guard.h"
#include "tv_log.h"

#include <stdlib.h>
#include <string.h>

void init_channel_list(tv_channel_list *head)
{
    head->next = head;
    head->prev = head;
}

tv_channel_node *add_channel(tv_channel_list *head, tv_channel *channel)
{
    tv_channel_node *node = (tv_channel_node *)calloc(1, sizeof(tv_channel_node));
    if (node == NULL)
        return NULL;
    node->channel = channel;
    node->links.next = head;
    node->links.prev = head->prev;
    head->prev->next = &node->links;
    head->prev = &node->links;
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

static void remove_node(tv_channel_node *node)
{
    tv_channel_list *next = node->links.next;
    step_walks_over(&node->links);
    next->prev = node->links.prev;
    node->links.prev->next = next;
    free(node);
}

int remove_channel(tv_channel_list *head, int channelId)
{
    for (tv_channel_node *node = next_node(head, head); node != NULL;
         node = next_node(head, &node->links)) {
        if (node->channel != NULL && node->channel->channelId == channelId) {
            remove_node(node);
            return 0;
        }
    }
    return 1;
}

tv_channel *get_channel(tv_channel_list *head, int channelId)
{
    for (tv_channel_node *node = next_node(head, head); node != NULL;
         node = next_node(head, &node->links)) {
        if (node->channel != NULL && node->channel->channelId == channelId)
            return node->channel;
    }
    return NULL;
}

tv_channel *get_channel_by_ip(tv_channel_list *head, const char *url)
{
    for (tv_channel_node *node = next_node(head, head); node != NULL;
         node = next_node(head, &node->links)) {
        if (node->channel != NULL && strcmp(node->channel->url, url) == 0)
            return node->channel;
    }
    return NULL;
}

void clean_channel_repo(tv_channel_list *head)
{
    while (head->next != head || head->prev != head)
        remove_node((tv_channel_node *)head->next);
}
