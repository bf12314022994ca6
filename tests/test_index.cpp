// test_index.cpp - the index never changes what a search finds.
//
//     test_index [STEPS [SEED]]
//
// Adds, renames, moves and closes channels at random, in the library's two lists and in a list of
// the application's own, with duplicates of every key and failing allocations. After every
// step, searches for random keys must find what a plain walk over the list finds.

#include "require.h"
#include "tv_internal.h"
#include "wire.h"

static const int usualPairs = 150; // far more than are walked before the index is asked
static const int keys = 100;       // number of different URLs
static const int fds = 1000;       // number of different descriptors, some with the same hash
static const int firstFd = 5000;   // above all descriptors of this process

static tv_channel_list *const pairs = &tv_service_server.pairList;
static tv_channel_list ownList = {&ownList, &ownList};
static tv_channel ownChannels[60]; // listed there, some of them twice
static bool noMemory;

extern "C" void *__real_calloc(size_t, size_t);
extern "C" void *__wrap_calloc(size_t items, size_t size)
{
    return noMemory ? nullptr : __real_calloc(items, size);
}

static std::string random_url()
{
    return std::to_string(random() % keys);
}

static int random_fd()
{
    return firstFd + random() % fds;
}

// ---- searches

template <typename Match> static tv_channel *walk(const tv_channel_list *head, Match matches)
{
    for (const tv_channel_list *link = head->next; link != head; link = link->next) {
        tv_channel *channel = ((const tv_channel_node *)link)->channel;
        if (channel != nullptr && matches(channel))
            return channel;
    }
    return nullptr;
}

static bool is_short(const tv_channel_list *head)
{
    int count = 0;
    return walk(head, [&](tv_channel *) { return ++count == usualPairs; }) == nullptr;
}

static tv_channel *random_channel(const tv_channel_list *head)
{
    int skip = random() % (usualPairs + 20);
    return walk(head, [&](tv_channel *) { return skip-- == 0; });
}

static void compare_searches()
{
    const tv_channel *any = random_channel(&tv_repository);
    const int id = any != nullptr ? any->channelId : random() % keys;
    const auto hasId = [=](const tv_channel *channel) { return channel->channelId == id; };
    const std::string url = random() % 20 == 0 ? "" : random_url();
    const auto hasUrl = [&](const tv_channel *channel) { return channel->url == url; };
    const int fd = random_fd();
    const auto hasFd = [=](const tv_channel *pair) {
        return pair->pairSocket != nullptr && pair->pairSocket->fd == fd;
    };
    REQUIRE(get_channel(&tv_repository, id) == walk(&tv_repository, hasId));
    REQUIRE(get_channel(pairs, id) == walk(pairs, hasId));
    REQUIRE(get_channel(&ownList, id) == walk(&ownList, hasId));
    REQUIRE(get_channel_by_ip(pairs, url.c_str()) == walk(pairs, hasUrl));
    REQUIRE(get_channel_by_ip(&ownList, url.c_str()) == walk(&ownList, hasUrl));
    REQUIRE(get_channel_by_ip(pairs, std::string(70, 'x').c_str()) == nullptr); // too long
    const tv_channel_node *const found = index_find_fd(fd);
    REQUIRE((found == nullptr ? nullptr : found->channel) == walk(pairs, hasFd));
}

// ---- changes

static void log_in(tv_channel *pair)
{
    login_msg_received(pair, strdup(message(0, "login", "", marker + random_url()).c_str()));
}

// The application adds a record of its own under an id already in use.
static void add_duplicate(const tv_channel *original)
{
    tv_channel *channel = (tv_channel *)malloc(sizeof(tv_channel));
    init_channel(channel, original->channelId);
    strcpy(channel->url, original->url);
    channel->pairSocket = (tv_socket *)malloc(sizeof(tv_socket));
    channel->pairSocket->fd = random_fd();
    noMemory = false; // an unlisted record would leak
    add_channel(pairs, channel);
    tv_add_channel(channel);
}

static void move_to_end(tv_channel_list *head, int id)
{
    noMemory = false;
    tv_channel *channel = get_channel(head, id);
    if (remove_channel(head, id) == 0)
        add_channel(head, channel);
}

static void restart_server()
{
    tv_stop_server();
    while (tv_repository.next != &tv_repository)
        tv_close_channel(((const tv_channel_node *)tv_repository.next)->channel->channelId);
    tv_start_server("127.0.0.1", 0);
}

static void change()
{
    tv_channel *const pair = random_channel(pairs);
    const int what = pair == nullptr ? 0 : random() % 16, rare = random() % 2000;
    if (pair != nullptr && what < 5 && !is_short(pairs))
        tv_close_channel(pair->channelId);
    else if (what < 3)
        create_pair_channel(random_fd());
    else if (what == 3)
        add_duplicate(pair);
    else if (what == 4)
        move_to_end(pairs, pair->channelId);
    else if (what == 5)
        move_to_end(&tv_repository, pair->channelId);
    else if (what == 6 && is_short(&ownList))
        add_channel(&ownList, &ownChannels[random() % 60]);
    else if (what < 8)
        remove_channel(&ownList, random() % keys);
    else if (what == 8)
        update_pair_channel(pair, rare % 2 == 0 ? "" : random_url().c_str());
    else if (what == 9 && rare < 100)
        add_channel(pairs, rare % 2 == 0 ? pair : nullptr); // a second entry, or an empty one
    else if (what == 10 && rare < 100)
        tv_impl_close_channel(pair); // its socket only
    else if (what == 11 && rare == 0)
        restart_server();
    else if (what == 12)
        unlist_channel(&ownList, &ownChannels[random() % 60]);
    else if (what > 12)
        log_in(pair);
}

int main(int argc, char **argv)
{
    const long steps = argc > 1 ? atol(argv[1]) : 100000;
    srandom(argc > 2 ? atoi(argv[2]) : 1);
    REQUIRE(tv_get_channel_id() == 0); // the first one
    for (tv_channel &channel : ownChannels) {
        init_channel(&channel, random() % keys);
        strcpy(channel.url, random_url().c_str());
    }
    restart_server();
    for (long step = 0; step < steps; step++) {
        noMemory = random() % 5 == 0;
        change();
        compare_searches();
    }
    noMemory = false;
    restart_server();
    tv_stop_server();
    clean_channel_repo(&ownList);
    return 0;
}
