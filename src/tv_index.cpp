// tv_index.cpp - where to look first in the repository and in the server's list of pairs.
//
// Place    below tv_channel_repo.cpp, which keeps it in step with the two lists.
// Method   one hash table with open addressing for all three keys: pointers to nodes, and beside
//          them tags of 32 bits, the key's hash and which key it is. It grows by a third; 36 bytes a
//          pair, at a load of 0.6 to 0.8. A list's ends are remembered as the library left them: if
//          they differ, the list was changed by hand, and its entries go without a look at its nodes,
//          which may be gone. An entry leaves with its node, also if its key was written by hand.
// Failure  without memory the key is distrusted, and searches are walks.
// State    the table, freed with its last entry; the lists' ends; the keys that are trusted.


#include "tv_internal.h"

#include <stdlib.h>
#include <string.h>

static tv_channel_node **nodes; // null: free
static uint32_t *tags;          // in the same block, behind the nodes
static uint32_t capacity, used;

// A pair comes by its descriptor first, and leaves so last: that entry tells whether there is one by
// URL.
static const index_key keys[] = {INDEX_ID, INDEX_FD, INDEX_URL},
                       reverse[] = {INDEX_URL, INDEX_FD, INDEX_ID};
static const uint32_t named = 4; // in the tag of a descriptor, beside the key's two bits

// A key is trusted from the first entry of its list on: every later one is in the table then, and
// no two have the same key.
static bool trusted[sizeof(keys) / sizeof(keys[0])];

static tv_channel_list repositoryEnds, pairEnds; // as the library left them

static uint32_t tag_of_number(index_key key, int number)
{
    return ((uint32_t)number * 2654435769U & ~7U) | key;
}

static uint32_t tag_of_url(const char *url)
{
    uint32_t hash = 2166136261U; // FNV-1a
    for (; *url != '\0'; url++)
        hash = (hash ^ (unsigned char)*url) * 16777619U;
    return (hash * 2654435769U & ~7U) | INDEX_URL;
}

// The tag by which a channel is found. Returns false for one that is not found by the key.
static bool get_tag(index_key key, const tv_channel *channel, uint32_t *tag)
{
    if (channel == NULL || (key == INDEX_FD && channel->pairSocket == NULL) ||
        (key == INDEX_URL && channel->url[0] == '\0'))
        return false;
    *tag = key == INDEX_ID   ? tag_of_number(key, channel->channelId)
           : key == INDEX_FD ? tag_of_number(key, channel->pairSocket->fd)
                             : tag_of_url(channel->url);
    return true;
}

static bool has_key(index_key key, const tv_channel *channel, int number, const char *url)
{
    if (channel == NULL)
        return false;
    if (key == INDEX_FD)
        return channel->pairSocket != NULL && channel->pairSocket->fd == number;
    return key == INDEX_ID ? channel->channelId == number : strcmp(channel->url, url) == 0;
}

// ---- the table

static uint32_t first_place(uint32_t tag)
{
    return (uint32_t)((uint64_t)(tag & ~named) * capacity >> 32);
}

static uint32_t next_place(uint32_t place)
{
    return place + 1 == capacity ? 0 : place + 1;
}

static void insert(tv_channel_node *node, uint32_t tag)
{
    uint32_t place = first_place(tag);
    while (nodes[place] != NULL)
        place = next_place(place);
    nodes[place] = node;
    tags[place] = tag;
    used++;
}

// Make room for a third more entries.
static bool grow(void)
{
    tv_channel_node **const oldNodes = nodes;
    const uint32_t *const oldTags = tags;
    const uint32_t oldCapacity = capacity;
    const uint32_t newCapacity = capacity + capacity / 3 + 16;
    void *block = reallocarray(NULL, newCapacity, sizeof(void *) + sizeof(uint32_t));
    if (block == NULL)
        return false;
    nodes = (tv_channel_node **)memset(block, 0, newCapacity * sizeof(void *));
    tags = (uint32_t *)(nodes + newCapacity);
    capacity = newCapacity;
    used = 0;
    for (uint32_t i = 0; i < oldCapacity; i++) {
        if (oldNodes[i] != NULL)
            insert(oldNodes[i], oldTags[i]);
    }
    free(oldNodes);
    return true;
}

// Free a place, and move up what a search for it would not find any more.
static void erase(uint32_t place)
{
    for (uint32_t next = next_place(place); nodes[next] != NULL; next = next_place(next)) {
        const uint32_t first = first_place(tags[next]);
        const bool stays =
            place < next ? place < first && first <= next : place < first || first <= next;
        if (!stays) {
            nodes[place] = nodes[next];
            tags[place] = tags[next];
            place = next;
        }
    }
    nodes[place] = NULL;
    used--;
}

static void free_if_empty(void)
{
    if (used != 0)
        return;
    free(nodes);
    nodes = NULL;
    capacity = 0;
}

// ---- the two lists

// The ends of a list that is indexed, else null.
static tv_channel_list *ends_of(const tv_channel_list *head)
{
    if (head == &tv_repository)
        return &repositoryEnds;
    return head == &tv_service_server.pairList ? &pairEnds : NULL;
}

static bool is_of(index_key key, const tv_channel_list *head)
{
    return (key == INDEX_ID) == (head == &tv_repository);
}

// ---- trust

void index_distrust_list(const tv_channel_list *head)
{
    if (ends_of(head) == NULL)
        return;
    for (const index_key key : keys)
        trusted[key] = trusted[key] && !is_of(key, head);
}

tv_channel *index_handed_out(tv_channel *channel)
{
    if (channel != NULL && channel->clientSocket == NULL && channel->serverSocket == NULL)
        trusted[INDEX_URL] = false;
    return channel;
}

void index_forget_list(const tv_channel_list *head)
{
    if (ends_of(head) == NULL)
        return;
    index_distrust_list(head);
    for (uint32_t place = 0; place < capacity; place++) {
        while (nodes[place] != NULL && is_of((index_key)(tags[place] & 3), head))
            erase(place);
    }
    free_if_empty();
}

// Forget a list that has been changed by hand.
static void check_ends(const tv_channel_list *head)
{
    const tv_channel_list *const ends = ends_of(head);
    if (head->next != ends->next || head->prev != ends->prev)
        index_forget_list(head);
}

// ---- finding

// The node whose channel has the key now, and which is linked.
static tv_channel_node *find(index_key key, uint32_t tag, int number, const char *url)
{
    if (used == 0)
        return NULL;
    for (uint32_t place = first_place(tag); nodes[place] != NULL; place = next_place(place)) {
        tv_channel_node *node = nodes[place];
        if ((tags[place] & ~named) == tag && has_key(key, node->channel, number, url) &&
            node->links.prev != NULL && node->links.prev->next == &node->links)
            return node;
    }
    return NULL;
}

tv_channel_node *index_find(index_key key, int number)
{
    check_ends(key == INDEX_ID ? &tv_repository : &tv_service_server.pairList);
    return trusted[key] ? find(key, tag_of_number(key, number), number, NULL) : NULL;
}

bool index_find_url(const char *url, tv_channel_node **node)
{
    check_ends(&tv_service_server.pairList);
    if (!trusted[INDEX_URL] || url[0] == '\0')
        return false;
    *node = find(INDEX_URL, tag_of_url(url), 0, url);
    return true;
}

// ---- keeping in step

// The tag of the node's entry by the key, or null: it has none, or the key was written by hand.
static uint32_t *tag_of_entry(index_key key, const tv_channel_node *node, const tv_channel *channel)
{
    uint32_t tag;
    if (used == 0 || !get_tag(key, channel, &tag))
        return NULL;
    for (uint32_t place = first_place(tag); nodes[place] != NULL; place = next_place(place)) {
        if (nodes[place] == node && (tags[place] & ~named) == tag)
            return &tags[place];
    }
    return NULL;
}

static void enter(index_key key, tv_channel_node *node)
{
    uint32_t tag;
    if (!trusted[key] || !get_tag(key, node->channel, &tag))
        return;
    const int number = key == INDEX_FD ? node->channel->pairSocket->fd : node->channel->channelId;
    // Of two with the same key a walk tells which one is older, also after one more has come.
    const bool taken = find(key, tag, number, node->channel->url) != NULL;
    if (taken || ((used + 1) * 5ULL > capacity * 4ULL && !grow() && used + 1 >= capacity)) {
        trusted[key] = false;
        return;
    }
    insert(node, tag);
    uint32_t *byFd = key == INDEX_URL ? tag_of_entry(INDEX_FD, node, node->channel) : NULL;
    if (byFd != NULL)
        *byFd |= named;
}

// The record may be gone: null, then.
static void drop(index_key key, const tv_channel_node *node, const tv_channel *channel)
{
    uint32_t *byFd = key == INDEX_URL ? tag_of_entry(INDEX_FD, node, channel) : NULL;
    if (byFd != NULL && (*byFd & named) == 0)
        return;
    if (byFd != NULL)
        *byFd &= ~named;
    const uint32_t *entry = tag_of_entry(key, node, channel);
    if (entry != NULL)
        return erase((uint32_t)(entry - tags));
    for (uint32_t place = 0; place < capacity; place++) { // the key was written by hand
        if (nodes[place] == node && (tags[place] & 3) == key)
            return erase(place);
    }
}

void index_changing(const tv_channel_list *head, const tv_channel_node *leaving)
{
    const bool indexed = ends_of(head) != NULL;
    if (indexed)
        check_ends(head);
    if (leaving == NULL)
        return;
    for (const index_key key : reverse) {
        if (!indexed) // a node may have been moved by hand, and its record freed
            drop(key, leaving, NULL);
        else if (is_of(key, head))
            drop(key, leaving, leaving->channel);
    }
    free_if_empty();
}

void index_changed(const tv_channel_list *head, tv_channel_node *added)
{
    tv_channel_list *const ends = ends_of(head);
    if (ends == NULL)
        return;
    for (const index_key key : keys) {
        if (added == NULL || !is_of(key, head))
            continue;
        trusted[key] = trusted[key] || (head->next == &added->links && head->prev == head->next);
        enter(key, added);
    }
    *ends = *head;
}

// The node of a listed pair.
static tv_channel_node *node_of(const tv_channel *channel)
{
    tv_channel_node *node =
        channel->pairSocket == NULL ? NULL : index_find(INDEX_FD, channel->pairSocket->fd);
    return node != NULL && node->channel == channel ? node : NULL;
}

void index_renaming(const tv_channel *channel)
{
    const tv_channel_node *node = node_of(channel);
    if (node != NULL)
        drop(INDEX_URL, node, channel);
    else
        trusted[INDEX_URL] = false;
}

void index_renamed(const tv_channel *channel)
{
    tv_channel_node *node = node_of(channel);
    if (node != NULL)
        enter(INDEX_URL, node);
}

void index_closing(const tv_channel *channel)
{
    if (node_of(channel) != NULL)
        trusted[INDEX_FD] = false;
}
