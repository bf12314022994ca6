// test_list.cpp - channel lists, and the repository that finds every channel by its id.

#include "log_capture.h"

static tv_channel_list head = {&head, &head};

// The ids in the list, forwards; checks that the way back is the same.
static std::vector<int> ids()
{
    std::vector<int> result;
    const tv_channel_list *link = &head;
    for (; link->next != &head; link = link->next) {
        EXPECT_EQ(link->next->prev, link);
        result.push_back(((const tv_channel_node *)link->next)->channel->channelId);
    }
    EXPECT_EQ(head.prev, link);
    return result;
}

TEST(List, KeepsOrderAndFindsTheOldestThatMatchesExactly)
{
    tv_channel channels[3];
    for (int i = 0; i < 3; i++) {
        init_channel(&channels[i], i);
        strcpy(channels[i].url, i == 0 ? "tcp://a:8000" : "tcp://a:80");
        EXPECT_EQ(add_channel(&head, &channels[i])->channel, &channels[i]);
    }
    for (const int id : {0, 1, 1, 2}) { // each comes back as the last
        EXPECT_EQ(remove_channel(&head, id), 0);
        EXPECT_EQ(remove_channel(&head, id), 1);
        EXPECT_EQ(get_channel(&head, id), nullptr);
        add_channel(&head, &channels[id]);
        EXPECT_EQ(ids().back(), id);
    }
    EXPECT_EQ(ids(), (std::vector<int>{0, 1, 2}));

    EXPECT_EQ(get_channel_by_ip(&head, "tcp://a:80"), &channels[1]);
    for (const char *const other : {"tcp://a:8", "TCP://a:80", "", "tcp://a:800"})
        EXPECT_EQ(get_channel_by_ip(&head, other), nullptr);
    channels[2].channelId = 1;
    EXPECT_EQ(get_channel(&head, 1), &channels[1]);
    remove_channel(&head, 1);
    EXPECT_EQ(get_channel(&head, 1), &channels[2]);
    clean_channel_repo(&head);
    EXPECT_EQ(ids(), std::vector<int>());
}

TEST(List, ReportsNullLinks)
{
    LogCapture log;
    tv_channel_list none = {nullptr, nullptr};
    EXPECT_EQ(get_channel(&none, 2), nullptr);
    EXPECT_EQ(get_channel_by_ip(&none, "tcp://a:80"), nullptr);
    EXPECT_EQ(remove_channel(&none, 2), 1);
    EXPECT_EQ(log.take(), std::vector<std::string>(3, "channel list is null"));
    EXPECT_EQ(log.places[1], "tv_channel_repo.cpp->get_channel_by_ip");
}

TEST(Repository, IsThereFromTheStart)
{
    tv_channel channel;
    init_channel(&channel, tv_get_channel_id());
    tv_add_channel(&channel);
    EXPECT_EQ(tv_get_channel(0), &channel);
    EXPECT_EQ(get_channel_type(0), TV_CHANNEL_NONE);
    EXPECT_EQ(tv_remove_channel(&channel), 0);
    EXPECT_EQ(tv_remove_channel(&channel), 1);
}
