// test_index.cpp - random changes of the library's two lists, through the interface and by hand.
// Every search has to give what a walk gives afterwards. Arguments: steps, and a number to draw
// from.

#include "tolvane.h"
#include "tv_index.h"

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <string>
#include <unistd.h>
#include <vector>

#define REQUIRE(what)                                                                              \
    if (!(what))                                                                                   \
    fprintf(stderr, "step %ld, line %d: %s\n", stepNumber, __LINE__, #what), abort()

static const int names = 12, fds = 40; // different ids and URLs that are written by hand; numbers
static tv_channel_list *const pairs = &tv_service_server.pairList;
static long stepNumber;
static bool noMemory;

extern "C" void *__real_reallocarray(void *, size_t, size_t);
extern "C" void *__wrap_reallocarray(void *old, size_t items, size_t size)
{
    return noMemory ? nullptr : __real_reallocarray(old, items, size);
}

static std::vector<tv_channel *> walk(const tv_channel_list *head)
{
    std::vector<tv_channel *> channels;
    for (const tv_channel_list *link = head->next; link != head; link = link->next)
        channels.push_back(((const tv_channel_node *)link)->channel);
    return channels;
}

template <typename Match> static tv_channel *first(const tv_channel_list *head, Match match)
{
    for (tv_channel *channel : walk(head)) {
        if (match(channel))
            return channel;
    }
    return nullptr;
}

static void compare_all()
{
    for (int id = 0; id < names; id++) {
        const std::string url = id == 0 ? "" : std::to_string(id);
        const auto hasId = [=](const tv_channel *channel) { return channel->channelId == id; };
        const auto hasUrl = [=](const tv_channel *channel) { return channel->url == url; };
        REQUIRE(find_by_id(&tv_repository, id) == first(&tv_repository, hasId));
        REQUIRE(find_by_url(pairs, url.c_str()) == first(pairs, hasUrl));
    }
    for (const tv_channel *channel : walk(&tv_repository)) {
        const int id = channel->channelId;
        const auto hasId = [=](const tv_channel *channel) { return channel->channelId == id; };
        REQUIRE(find_by_id(&tv_repository, id) == first(&tv_repository, hasId));
    }
    for (int fd = 0; fd < fds; fd++) {
        const tv_channel_node *node = index_find(INDEX_FD, fd);
        const auto hasFd = [=](const tv_channel *channel) {
            return channel->pairSocket != nullptr && channel->pairSocket->fd == fd;
        };
        REQUIRE(node == nullptr || node->channel == first(pairs, hasFd));
    }
}

// A record that the application makes and may write to; it lists it, too.
static tv_channel *own_record()
{
    tv_channel *channel = (tv_channel *)calloc(1, sizeof(tv_channel));
    init_channel(channel, random() % names);
    strcpy(channel->url, std::to_string(random() % names).c_str());
    channel->pairSocket = (tv_socket *)malloc(sizeof(tv_socket));
    channel->pairSocket->fd = fds + random() % fds; // nobody's
    tv_add_channel(channel);
    if (random() % 2 == 0)
        tv_add_channel(channel); // twice
    return channel;
}

static void link_by_hand(tv_channel *channel)
{
    tv_channel_node *node = (tv_channel_node *)calloc(1, sizeof(tv_channel_node));
    node->channel = channel;
    node->links = {pairs->next, pairs};
    pairs->next->prev = &node->links;
    pairs->next = &node->links;
}

static void clean_by_hand()
{
    for (tv_channel_list *link = pairs->next; link != pairs;) {
        tv_channel_list *const next = link->next;
        free(link);
        link = next;
    }
    pairs->next = pairs->prev = pairs;
}

// A list of the application's own, whose records are gone when it is cleaned.
static void own_list()
{
    tv_channel_list list = {&list, &list};
    for (int i = 0; i < 2; i++) {
        tv_channel *channel = (tv_channel *)calloc(1, sizeof(tv_channel));
        add_channel(&list, channel);
        free(channel);
    }
    clean_channel_repo(&list);
}

static void change(int what, int number)
{
    const std::vector<tv_channel *> all = walk(&tv_repository), listed = walk(pairs);
    tv_channel *const any = all[random() % all.size()];
    tv_channel *const pair = listed.empty() ? nullptr : listed[random() % listed.size()];
    const std::string url = std::to_string(number);
    noMemory = random() % 30 == 0;
    if (what < 30 && all.size() < 20)
        create_pair_channel(open("/dev/null", O_RDONLY));
    else if (what < 50 && any != tv_service_server.serverChannel)
        tv_close_channel(any->channelId);
    else if (what < 75 && pair != nullptr)
        login_msg_received(
            pair, strdup(("0\nvelun_tolvane_login\n\nvelun_tolvane_payload\n" + url).c_str()));
    else if (what < 80 && pair != nullptr)
        update_pair_channel(pair, url.c_str());
    else if (what == 80 && pair != nullptr && tv_get_channel(pair->channelId) == pair)
        strcpy(pair->url, url.c_str());
    else if (what == 81 && pair != nullptr)
        tv_get_channel(pair->channelId);
    else if (what == 82 && all.size() < 20)
        own_record();
    else if (what == 83 && all.size() < 20)
        add_channel(pairs, own_record());
    else if (what == 84 && all.size() < 20)
        link_by_hand(own_record());
    else if (what == 85)
        clean_by_hand();
    else if (what == 86 && pair != nullptr)
        tv_impl_close_channel(pair);
    else if (what == 87)
        clean_channel_repo(pairs);
    else if (what == 90)
        own_list();
    else if (what == 91 && pair != nullptr && pair->pairSocket != nullptr && all.size() < 20)
        create_pair_channel(pair->pairSocket->fd); // its number comes round again while it is used
    else if (what == 88)
        remove_channel(pairs, number);
    else if (what == 89 || all.size() > 15) // from the beginning
        tv_stop_server();
}

static void close_all()
{
    while (tv_repository.next != &tv_repository)
        tv_close_channel(((tv_channel_node *)tv_repository.next)->channel->channelId);
}

int main(int argc, char **argv)
{
    const long steps = argc > 1 ? atol(argv[1]) : 20000;
    srandom(argc > 2 ? atoi(argv[2]) : 1);
    for (stepNumber = 0; stepNumber < steps; stepNumber++) {
        if (tv_service_server.serverChannel == nullptr) {
            close_all();
            tv_start_server("127.0.0.1", 0);
        }
        do // sometimes without a search between
            change(random() % 100, random() % names);
        while (random() % 4 == 0 && tv_service_server.serverChannel != nullptr);
        compare_all();
    }
    tv_stop_server();
    close_all();
    return 0;
}
