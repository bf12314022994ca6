// tv_index.cpp - finds entries of the library's own two lists without walking them.
//
// Callers  tv_channel_repo.cpp, when it adds, removes or finds an entry; tv_server_api.cpp, when a
//          pair's URL changes and to find a pair by descriptor; tv_api.cpp, to find a record.
// Method   one hash table of chains per key. Chain links are part of the list entries, so removing
//          an entry needs neither a search nor its record. Every hit is checked against the record,
//          which an application may have changed. The oldest match wins, as in a walk.
// Failure  none: nothing is allocated.
// State    the tables, the next rank and the secrets of the URL hash.

#include "tv_internal.h"

#include <string.h>
#include <sys/random.h>

// Chains per key. With ten thousand channels, most chains in use hold one or two of them. The
// system backs the tables with memory only as they are used.
enum { CHAINS = 16384 };

static index_node *tables[INDEX_KEYS][CHAINS];
static uint64_t nextRank;

// ---- hashes

static uint32_t hash_number(int number)
{
    const uint32_t product = (uint32_t)number * 2654435769U;
    return product ^ product >> 16;
}

// Peers choose URLs; a secret seed and multiplier keep them from choosing URLs that collide.
static uint32_t hash_url(const char *url)
{
    static uint64_t secrets[2] = {0, 0x9e3779b97f4a7c15};
    // Runs once. If getrandom() fails, as it may soon after boot, the constants above stay. Do not
    // try again: once a URL is in a chain, its hash must not change.
    [[maybe_unused]] static const bool secret =
        getrandom(secrets, sizeof(secrets), GRND_NONBLOCK) > 0;
    const uint64_t multiplier = secrets[1] | 1;
    uint64_t hash = secrets[0];
    for (int i = 0; i < TV_URL_SIZE && url[i] != '\0'; i++) {
        hash = (hash ^ (unsigned char)url[i]) * multiplier;
        hash ^= hash >> 32;
    }
    return (uint32_t)hash;
}

// ---- chains

static index_node **chain_of(index_key key, uint32_t hash)
{
    return &tables[key][hash % CHAINS];
}

// Chains are in order of age, newest first. A new node goes to the front; a pair whose URL has
// changed may belong further back.
static void link_node(index_key key, index_node *node, uint32_t hash)
{
    index_node **link = chain_of(key, hash);
    while (*link != nullptr && (*link)->rank > node->rank)
        link = &(*link)->chains[key].next;
    node->chains[key] = {*link, link};
    if (*link != nullptr)
        (*link)->chains[key].link = &node->chains[key].next;
    *link = node;
}

static void unlink_node(index_key key, index_node *node)
{
    index_node **link = node->chains[key].link;
    if (link == nullptr)
        return;
    index_node *next = node->chains[key].next;
    *link = next;
    if (next != nullptr)
        next->chains[key].link = link;
    node->chains[key].link = nullptr;
}

// ---- keeping in step

static void link_url(index_node *node)
{
    if (node->entry.channel->url[0] != '\0')
        link_node(INDEX_URL, node, hash_url(node->entry.channel->url));
}

void index_add(index_node *node)
{
    const tv_channel *channel = node->entry.channel;
    node->rank = nextRank++;
    if (channel == nullptr)
        return;
    link_node(INDEX_ID, node, hash_number(channel->channelId));
    if (node->head == &tv_repository)
        return;
    if (channel->pairSocket != nullptr)
        link_node(INDEX_FD, node, hash_number(channel->pairSocket->fd));
    link_url(node);
}

void index_remove(index_node *node)
{
    unlink_node(INDEX_ID, node);
    unlink_node(INDEX_FD, node);
    unlink_node(INDEX_URL, node);
}

void index_update_url(const tv_channel *pair)
{
    const uint32_t hash = hash_number(pair->channelId);
    for (index_node *node = *chain_of(INDEX_ID, hash); node != nullptr;
         node = node->chains[INDEX_ID].next) {
        if (node->entry.channel == pair && node->head != &tv_repository) {
            unlink_node(INDEX_URL, node);
            link_url(node);
        }
    }
}

// ---- finding

// Return the oldest matching entry in a chain, which is the last one, or null.
template <typename Match> static tv_channel_node *find(index_key key, uint32_t hash, Match matches)
{
    tv_channel_node *oldest = nullptr;
    for (index_node *node = *chain_of(key, hash); node != nullptr; node = node->chains[key].next) {
        if (matches(node))
            oldest = &node->entry;
    }
    return oldest;
}

tv_channel_node *index_find_id(const tv_channel_list *head, int channelId)
{
    return find(INDEX_ID, hash_number(channelId), [=](const index_node *node) {
        return node->head == head && node->entry.channel->channelId == channelId;
    });
}

tv_channel_node *index_find_record(const tv_channel_list *head, const tv_channel *channel)
{
    return find(INDEX_ID, hash_number(channel->channelId), [=](const index_node *node) {
        return node->head == head && node->entry.channel == channel;
    });
}

tv_channel_node *index_find_fd(int fd)
{
    return find(INDEX_FD, hash_number(fd), [=](const index_node *node) {
        const tv_socket *socket = node->entry.channel->pairSocket;
        return socket != nullptr && socket->fd == fd;
    });
}

tv_channel_node *index_find_url(const char *url)
{
    return find(INDEX_URL, hash_url(url),
                [=](const index_node *node) { return strcmp(node->entry.channel->url, url) == 0; });
}
