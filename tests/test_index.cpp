// test_index.cpp - random changes of the library's two lists, through the interface and by hand.
// Every search has to give what a walk gives afterwards. Arguments: steps, and a number to draw
// from.

#include "tv_internal.h"

#include <algorithm>
#include <fcntl.h>
#include <functional>
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
    const std::vector<tv_channel *> channels = walk(head);
    const auto found = std::find_if(channels.begin(), channels.end(), match);
    return found == channels.end() ? nullptr : *found;
}

static void compare_all()
{
    std::vector<int> numbers = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}; // those that are names
    for (const tv_channel *channel : walk(&tv_repository))
        numbers.push_back(channel->channelId);
    for (const int id : numbers) {
        const std::string url = id == 0 ? "" : std::to_string(id);
        const auto hasId = [=](const tv_channel *channel) { return channel->channelId == id; };
        const auto hasUrl = [=](const tv_channel *channel) { return channel->url == url; };
        REQUIRE(find_by_id(&tv_repository, id) == first(&tv_repository, hasId));
        REQUIRE(find_by_url(pairs, url.c_str()) == first(pairs, hasUrl));
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
    for (tv_channel_list *link = pairs->next, *next; link != pairs; link = next) {
        next = link->next;
        free(link);
    }
    pairs->next = pairs->prev = pairs;
}

static void change()
{
    using Change = std::function<void()>;
    const std::vector<tv_channel *> all = walk(&tv_repository), listed = walk(pairs);
    tv_channel *const any = all[random() % all.size()];
    const Change create = [] { create_pair_channel(open("/dev/null", O_RDONLY)); };
    const Change close = [&] { tv_close_channel(any->channelId); };
    noMemory = random() % 30 == 0;
    if (listed.empty())
        return random() % 2 ? create() : close();
    if (all.size() > 20)
        return tv_stop_server();
    tv_channel *const pair = listed[random() % listed.size()];
    const std::string url = std::to_string(random() % names);
    const std::string login = "0\nvelun_tolvane_login\n\nvelun_tolvane_payload\n" + url;
    const Change often[] = {
        create,
        create, // so that the lists grow
        close,
        [&] { login_msg_received(pair, strdup(login.c_str())); },
    };
    const Change seldom[] = {
        clean_by_hand,
        tv_stop_server,
        [] { own_record(); },
        [] { add_channel(pairs, own_record()); },
        [] { link_by_hand(own_record()); },
        [] { clean_channel_repo(pairs); },
        [] { remove_channel(pairs, random() % names); },
        [&] { update_pair_channel(pair, url.c_str()); },
        [&] { tv_impl_close_channel(pair); },
        [&] { create_pair_channel(tv_impl_get_polling_fd(pair)); }, // again, while it is used
        [&] {
            if (tv_get_channel(pair->channelId) == pair)
                strcpy(pair->url, url.c_str());
        },
    };
    return random() % 8 ? often[random() % 4]() : seldom[random() % std::size(seldom)]();
}

static void close_all()
{
    while (tv_repository.next != &tv_repository)
        tv_close_channel(((tv_channel_node *)tv_repository.next)->channel->channelId);
}

int main(int argc, char **argv)
{
    const long steps = argc > 1 ? atol(argv[1]) : 50000;
    srandom(argc > 2 ? atoi(argv[2]) : 1);
    for (stepNumber = 0; stepNumber < steps; stepNumber++) {
        if (tv_service_server.serverChannel == nullptr) {
            close_all();
            tv_start_server("127.0.0.1", 0);
        }
        do // sometimes without a search between
            change();
        while (random() % 4 == 0 && tv_service_server.serverChannel != nullptr);
        compare_all();
    }
    tv_stop_server();
    close_all();
    return 0;
}
