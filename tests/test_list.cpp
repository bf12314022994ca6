// test_list.cpp - channel lists, and the repository that finds every channel by its id.

#include "log_capture.h"

struct List : testing::Test {
    List()
    {
        for (int i = 0; i < 3; i++) {
            init_channel(&channels[i], i + 1);
            strcpy(channels[i].url, i == 0 ? "tcp://a:8000" : "tcp://a:80");
            EXPECT_EQ(add_channel(&head, &channels[i])->channel, &channels[i]);
        }
    }
    ~List() override
    {
        clean_channel_repo(&head);
        EXPECT_EQ(ids(), std::vector<int>());
        EXPECT_EQ(get_channel(&head, 1), nullptr);
    }

    // The ids in the list, forwards; checks that the way back is the same.
    std::vector<int> ids()
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

    tv_channel_list head = {&head, &head};
    tv_channel channels[3];
    LogCapture log;
};

TEST_F(List, KeepsOrderWhateverIsRemoved)
{
    for (const int id : {1, 2, 2, 3}) { // each comes back as the last
        EXPECT_EQ(remove_channel(&head, id), 0);
        EXPECT_EQ(remove_channel(&head, id), 1);
        EXPECT_EQ(get_channel(&head, id), nullptr);
        add_channel(&head, &channels[id - 1]);
        EXPECT_EQ(ids().back(), id);
    }
    EXPECT_EQ(ids(), (std::vector<int>{1, 2, 3}));
    log.expect({});
}

TEST_F(List, FindsTheOldestThatMatchesExactly)
{
    EXPECT_EQ(get_channel_by_ip(&head, "tcp://a:80"), &channels[1]);
    for (const char *const other : {"tcp://a:8", "TCP://a:80", "", "tcp://a:800"})
        EXPECT_EQ(get_channel_by_ip(&head, other), nullptr);
    channels[2].channelId = 2;
    add_channel(&head, &channels[1]); // a second node of the same record
    EXPECT_EQ(get_channel(&head, 2), &channels[1]);
    EXPECT_EQ(remove_channel(&head, 2), 0);
    EXPECT_EQ(get_channel(&head, 2), &channels[2]);
    EXPECT_EQ(ids(), (std::vector<int>{1, 2, 2}));
}

TEST_F(List, ReportsNullLinks)
{
    tv_channel_list none = {nullptr, nullptr};
    EXPECT_EQ(get_channel(&none, 2), nullptr);
    EXPECT_EQ(get_channel_by_ip(&none, "tcp://a:80"), nullptr);
    EXPECT_EQ(remove_channel(&none, 2), 1);
    EXPECT_EQ(log.take(), std::vector<std::string>(3, "channel list is null"));
    EXPECT_EQ(log.places[1], "tv_channel_repo.cpp->get_channel_by_ip");
}

TEST_F(List, RepositoryIsThereFromTheStart)
{
    for (int id = 0; id < 3; id++)
        EXPECT_EQ(tv_get_channel_id(), id);
    tv_add_channel(&channels[0]);
    EXPECT_EQ(tv_get_channel(1), &channels[0]);
    EXPECT_EQ(get_channel_type(1), TV_CHANNEL_NONE);
    EXPECT_EQ(tv_remove_channel(&channels[0]), 0);
    EXPECT_EQ(tv_remove_channel(&channels[0]), 1);
    log.expect({});
}
