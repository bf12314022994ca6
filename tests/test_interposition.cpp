// test_neighbours.cpp - an application with functions of its own by the names of exported ones, and
// a timer library of its own.
//
// Linked with the shared libraries. The library has to go on calling its own functions, while the
// application reads the library's data objects and no stale copy of them.

#include "tolvane.h"

#include <gtest/gtest.h>

#include <setjmp.h>
#include <sys/eventfd.h>

static std::vector<int> handed;
static jmp_buf atEnd;

extern "C" int ruvo_timer_get_expected_interval(int listed)
{
    handed.push_back(listed);
    return 0;
}

extern "C" void ruvo_fire_timer(int ready)
{
    handed.push_back(ready);
    if (handed.size() == 4)
        longjmp(atEnd, 1); // the loop has no end of its own
}

void close_channel(tv_channel *)
{
    ADD_FAILURE() << "called instead of the library's own";
}

TEST(Neighbours, DoNotTakeThePlaceOfTheLibrarysFunctions)
{
    const int id = tv_start_server("127.0.0.1", 0);
    ASSERT_NE(tv_service_server.serverChannel, nullptr);
    EXPECT_EQ(tv_service_server.serverChannel->channelId, id);
    tv_set_log_file("/nowhere/at/all");
    EXPECT_STREQ(log_file, "/nowhere/at/all");
    tv_stop_server();
    EXPECT_EQ(tv_service_server.serverChannel, nullptr);
}

TEST(Neighbours, ATimerLibraryMayTakeTheNumbersThatTheLoopHasAtHand)
{
    const auto drain = [](int fd, intptr_t, intptr_t) {
        eventfd_t count;
        return eventfd_read(fd, &count);
    };
    for (const unsigned count : {0, 1}) // ready unless 0
        ASSERT_EQ(tv_register_polling_fd(eventfd(count, 0), drain, 0, 0), 0);
    if (setjmp(atEnd) == 0)
        tv_main_loop();
    EXPECT_EQ(handed, (std::vector<int>{2, 1, 2, 0}));
}
