// test_list.cpp - channel lists, and the repository that finds every channel by its id.

#include "log_capture.h"

#include <string.h>

struct List : testing::Test {
    List()
    {
        const char *const urls[] = {"tcp://a:8000", "tcp://a:80", "tcp://a:80"};
        for (int i = 0; i < 3; i++) {
            init_channel(&channels[i], i + 1);
            strcpy(channels[i].url, urls[i]);
        }
    }
    ~List() override
    {
        clean_channel_repo(&head);
    }

    // The ids in the list, forwards; checks that the way back is the same.
    std::vector<int> ids()
    {
        std::vector<int> result;
        const tv_channel_list *last = &head;
        for (const tv_channel_list *link = head.next; link != &head; link = link->next) {
            EXPECT_EQ(link->prev, last);
            result.push_back(((const tv_channel_node *)link)->channel->channelId);
            last = link;
        }
        EXPECT_EQ(head.prev, last);
        return result;
    }

    void addAll()
    {
        for (tv_channel &channel : channels)
            EXPECT_EQ(add_channel(&head, &channel)->channel, &channel);
    }

    tv_channel_list head = {&head, &head};
    tv_channel channels[3];
    LogCapture log;
};

TEST_F(List, KeepsOrderWhateverIsRemoved)
{
    for (int id = 1; id <= 3; id++) {
        addAll();
        EXPECT_EQ(remove_channel(&head, id), 0);
        EXPECT_EQ(remove_channel(&head, id), 1);
        EXPECT_EQ(get_channel(&head, id), nullptr);
        EXPECT_EQ(ids(), (std::vector<int>{1 + (id == 1), 3 - (id == 3)}));
        clean_channel_repo(&head);
        EXPECT_EQ(ids(), std::vector<int>());
    }
    EXPECT_EQ(get_channel_by_ip(&head, "tcp://a:80"), nullptr);
    log.expect({});
}

TEST_F(List, FindsTheOldestThatMatchesExactly)
{
    addAll();
    EXPECT_EQ(get_channel_by_ip(&head, "tcp://a:80"), &channels[1]);
    EXPECT_EQ(get_channel_by_ip(&head, "tcp://a:8"), nullptr);
    EXPECT_EQ(get_channel_by_ip(&head, "TCP://a:80"), nullptr);

    channels[2].channelId = 2;
    add_channel(&head, &channels[1]); // a second node of the same record
    EXPECT_EQ(get_channel(&head, 2), &channels[1]);
    EXPECT_EQ(remove_channel(&head, 2), 0);
    EXPECT_EQ(get_channel(&head, 2), &channels[2]);
    EXPECT_EQ(ids(), (std::vector<int>{1, 2, 2}));
    log.expect({});
}

TEST_F(List, ReportsNullLinks)
{
    tv_channel_list noList = {nullptr, nullptr};
    EXPECT_EQ(get_channel(&noList, 1), nullptr);
    EXPECT_EQ(get_channel_by_ip(&noList, "tcp://a:80"), nullptr);
    EXPECT_EQ(remove_channel(&noList, 1), 1);

    tv_channel_node broken = {{nullptr, &head}, &channels[0]};
    noList.next = &broken.links;
    EXPECT_EQ(get_channel(&noList, 1), &channels[0]);
    EXPECT_EQ(get_channel(&noList, 2), nullptr);
    const char *const functions[] = {"get_channel", "get_channel_by_ip", "remove_channel",
                                     "get_channel"};
    const std::vector<LogEntry> entries = log.take();
    ASSERT_EQ(entries.size(), std::size(functions));
    for (size_t i = 0; i < entries.size(); i++) {
        EXPECT_EQ(entries[i].file + entries[i].message, "tv_channel_repo.cppchannel list is null");
        EXPECT_EQ(entries[i].function, functions[i]);
    }
}

TEST_F(List, RepositoryIsThereFromTheStart)
{
    for (int id = 0; id < 3; id++)
        EXPECT_EQ(tv_get_channel_id(), id);

    tv_channel &channel = channels[0];
    tv_socket socket = {-1};
    tv_add_channel(&channel);
    EXPECT_EQ(tv_get_channel(1), &channel);
    EXPECT_EQ(get_channel_type(1), TV_CHANNEL_NONE);
    channel.pairSocket = &socket;
    EXPECT_EQ(get_channel_type(1), TV_CHANNEL_PAIR);
    channel.serverSocket = &socket;
    EXPECT_EQ(get_channel_type(1), TV_CHANNEL_SERVER);
    channel.clientSocket = &socket;
    EXPECT_EQ(get_channel_type(1), TV_CHANNEL_CLIENT);
    EXPECT_EQ(tv_remove_channel(&channel), 0);
    EXPECT_EQ(tv_remove_channel(&channel), 1);
    log.expect({});
    EXPECT_EQ(get_channel_type(1), TV_CHANNEL_NONE);
    EXPECT_EQ(tv_get_channel(-1), nullptr);
    log.expect({"could not get channel with id[1] in tv_get_channel",
                "could not get channel with id[-1] in tv_get_channel"});
}
