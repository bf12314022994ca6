// test_neighbours.cpp - an application with functions of its own by the names of exported ones, and
// a timer library of its own.
//
// Linked with the shared libraries. The library has to go on calling its own functions, while the
// application reads the library's data objects and no stale copy of them.

#include "tolvane.h"

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <unistd.h>

static int strayCalls = 0;
static std::vector<int> handed;
static struct rlimit descriptors;

extern "C" int ruvo_timer_get_expected_interval(int listed)
{
    handed.push_back(listed);
    return 0;
}

extern "C" void ruvo_fire_timer(int ready)
{
    handed.push_back(ready);
    const struct rlimit none = {0, descriptors.rlim_max};
    if (handed.size() == 4) // ends the loop
        setrlimit(RLIMIT_NOFILE, &none);
}

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

TEST(Neighbours, ATimerLibraryMayTakeTheNumbersThatTheLoopHasAtHand)
{
    int ends[2][2];
    for (auto &end : ends) {
        ASSERT_EQ(pipe(end), 0);
        tv_register_polling_fd(
            end[0],
            [](int fd, intptr_t, intptr_t) {
                char byte;
                return (int)read(fd, &byte, 1);
            },
            0, 0);
    }
    ASSERT_EQ(write(ends[1][1], "", 1), 1);
    getrlimit(RLIMIT_NOFILE, &descriptors);
    tv_main_loop();
    setrlimit(RLIMIT_NOFILE, &descriptors); // the sanitizers need some
    handed.resize(4);
    EXPECT_EQ(handed, (std::vector<int>{2, 1, 2, 0}));
}
