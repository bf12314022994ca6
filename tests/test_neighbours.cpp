// test_neighbours.cpp - an application with functions of its own by the names of exported ones.
//
// Linked with the shared libraries. The library has to go on calling its own functions, while the
// application reads the library's data objects and no stale copy of them.

#include "tolvane.h"

#include <gtest/gtest.h>

static int strayCalls = 0;

tv_channel *get_channel(tv_channel_list *, int)
{
    strayCalls++;
    return NULL;
}

int send_resp(tv_channel *, const char *, int)
{
    strayCalls++;
    return -1;
}

void close_channel(tv_channel *)
{
    strayCalls++;
}

TEST(Neighbours, DoNotTakeThePlaceOfTheLibrarysFunctions)
{
    const int id = tv_start_server("127.0.0.1", 0);
    ASSERT_NE(tv_service_server.serverChannel, nullptr);
    EXPECT_EQ(tv_service_server.serverChannel->channelId, id);
    EXPECT_EQ(tv_get_channel(id), tv_service_server.serverChannel);
    EXPECT_EQ(tv_send_resp(id, "", 0), -1);
    tv_set_log_file("/nowhere/at/all");
    EXPECT_STREQ(log_file, "/nowhere/at/all");
    tv_stop_server();
    EXPECT_EQ(tv_service_server.serverChannel, nullptr);
    EXPECT_EQ(strayCalls, 0);
}
