// test_interposition.cpp - an application that defines functions with the names of exported ones,
// and timer functions of its own. Linked with the shared libraries.

#include "tolvane.h"

#include <gtest/gtest.h>

#include <setjmp.h>

static jmp_buf atEnd;

extern "C" int ruvo_timer_get_expected_interval(int listed)
{
    EXPECT_EQ(listed, 1); // the number of descriptors
    return 0;
}

extern "C" void ruvo_fire_timer(int ready)
{
    EXPECT_EQ(ready, 0); // the result of poll()
    longjmp(atEnd, 1);   // the loop has no end of its own
}

void close_channel(tv_channel *)
{
    ADD_FAILURE() << "called instead of the library's own";
}

TEST(Interposition, TheLibraryKeepsItsOwnFunctionsButUsesTheApplicationsTimers)
{
    const int id = tv_start_server("127.0.0.1", 0);
    EXPECT_EQ(tv_service_server.serverChannel->channelId, id); // the library's object, not a copy
    tv_register_polling_fd(tv_get_server_polling_fd(), tv_server_fd_handler, 0, 0);
    if (setjmp(atEnd) == 0)
        tv_main_loop();
    tv_stop_server();
    EXPECT_EQ(tv_service_server.serverChannel, nullptr);
}
