// test_index.cpp - the index never changes what a search finds.
//
//     test_index [STEPS [SEED]]
//
// First, a server has more pairs than are walked. Then the test adds, removes and renames records
// at random, in the library's two lists and in a list of the application's own, with duplicates of
// every key. After every step, searches for random keys must find what a plain walk finds.

#include "require.h"
#include "tv_internal.h"
#include "wire.h"

static tv_channel_list *const pairs = &tv_service_server.pairList;

// Pairs are accepted and log in, each under the URL of an earlier one, which is then closed.
static void serve_many_pairs()
{
    tv_start_server("127.0.0.1", 0);
    REQUIRE(pairs->next == pairs && pairs->prev == pairs);
    for (int fd = 5000; fd < 5200; fd++) { // above all descriptors of this process
        create_pair_channel(fd);
        tv_channel *const pair = index_find_fd(fd)->channel;
        const std::string url = std::to_string(fd % 100);
        login_msg_received(pair, strdup(message(0, "login", "", marker + url).c_str()));
        REQUIRE(get_channel_by_ip(pairs, url.c_str()) == pair);
        REQUIRE(index_find_fd(fd - 100) == nullptr); // replaced
    }
    tv_stop_server();
}

// ---- random changes and searches

static tv_channel records[400];
static tv_socket sockets[400];
static tv_channel_list ownList = {&ownList, &ownList};
static tv_channel_list *const lists[] = {&tv_repository, pairs, &ownList};

// An id, a descriptor or a URL. Some of them have the same hash.
static int random_key()
{
    return random() % 1000;
}

static std::string random_url()
{
    return random() % 20 == 0 ? "" : std::to_string(random_key());
}

// Emptying a list must not read its records, which may have been freed.
static void start_anew()
{
    memset((void *)records, 0xff, sizeof(records));
    for (tv_channel_list *head : lists)
        clean_channel_repo(head);
    for (size_t i = 0; i < std::size(records); i++) {
        init_channel(&records[i], random_key());
        strcpy(records[i].url, random_url().c_str());
        records[i].pairSocket = &sockets[i];
        sockets[i].fd = random_key();
    }
}

template <typename Match> static tv_channel *walk(const tv_channel_list *head, Match matches)
{
    for (const tv_channel_list *link = head->next; link != head; link = link->next) {
        tv_channel *channel = ((const tv_channel_node *)link)->channel;
        if (channel != nullptr && matches(channel))
            return channel;
    }
    return nullptr;
}

static void unlist(tv_channel_list *head, const tv_channel *record)
{
    unlist_channel(head, record);
    REQUIRE(walk(head, [=](const tv_channel *channel) { return channel == record; }) == nullptr);
}

static void change()
{
    tv_channel_list *const head = lists[random() % std::size(lists)];
    tv_channel *const record = &records[random() % std::size(records)];
    const int what = random() % 16;
    if (random() % 1000 == 0)
        start_anew();
    else if (what < 8)
        add_channel(head, random() % 100 == 0 ? nullptr : record); // the application may pass null
    else if (what < 11)
        remove_channel(head, random_key());
    else if (what < 13)
        unlist(head, record);
    else if (what < 15)
        update_pair_channel(record, random_url().c_str());
    else
        record->pairSocket = nullptr; // closed
}

static void compare_searches()
{
    const int id = random_key(), fd = random_key();
    const std::string url = random_url();
    const auto hasId = [=](const tv_channel *channel) { return channel->channelId == id; };
    const auto hasUrl = [&](const tv_channel *channel) { return channel->url == url; };
    const auto hasFd = [=](const tv_channel *channel) {
        return channel->pairSocket != nullptr && channel->pairSocket->fd == fd;
    };
    for (tv_channel_list *head : lists) {
        REQUIRE(get_channel(head, id) == walk(head, hasId));
        REQUIRE(get_channel_by_ip(head, url.c_str()) == walk(head, hasUrl));
        REQUIRE(get_channel_by_ip(head, std::string(70, 'x').c_str()) == nullptr); // too long
    }
    const tv_channel_node *const found = index_find_fd(fd);
    REQUIRE((found == nullptr ? nullptr : found->channel) == walk(pairs, hasFd));
}

int main(int argc, char **argv)
{
    const long steps = argc > 1 ? atol(argv[1]) : 100000;
    srandom(argc > 2 ? atoi(argv[2]) : 1);
    REQUIRE(tv_get_channel_id() == 0); // the first one
    serve_many_pairs();
    start_anew();
    for (long step = 0; step < steps; step++) {
        change();
        compare_searches();
    }
    return 0;
}
