// test_loop.cpp - the descriptor table, and passes of the main loop over ready descriptors.
//
// `advance 4` is a single pass if something is ready. A channel that is served although nothing is
// there would wait for 100 ms and report its link down.

#include "channel_fixture.h"

using Loop = ChannelTest;

TEST_F(Loop, HoldsSixteenDescriptors)
{
    const auto listed = [](int size) {
        struct pollfd list[TV_MAX_POLLING_FDS];
        std::vector<int> fds;
        for (int i = 0, count = build_polling_fd_list(list, size); i < count; i++) {
            EXPECT_EQ(list[i].events, POLLIN);
            fds.push_back(list[i].fd);
        }
        return fds;
    };
    std::vector<int> fds;
    tv_unregister_polling_fd(tv_get_server_polling_fd());
    tv_unregister_polling_fd(loopFd);
    for (int fd = 500; fd < 500 + TV_MAX_POLLING_FDS; fd++) {
        EXPECT_EQ(tv_unregister_polling_fd(-1), -1); // frees no slot
        EXPECT_EQ(tv_register_polling_fd(fd, nullptr, 0, 0), 0);
        fds.push_back(fd);
    }
    log.take();
    EXPECT_EQ(tv_register_polling_fd(7, nullptr, 0, 0), -1);
    EXPECT_EQ(tv_unregister_polling_fd(7), -1);
    EXPECT_EQ(listed(3), (std::vector<int>{500, 501, 502}));
    EXPECT_LOG(
        {"failed on reserve_fd_index, fdHandlerCount[16]",
         "tv_register_polling_fd, failed on reserve_fd_index",
         "faield on tv_unregister_polling_fd, fd[7]",
         "build_external_fd_list, size is too small, for sanity, should never reach here!!!"});
    for (const int slot : {3, 9}) {
        tv_unregister_polling_fd(fds[slot]);
        fds[slot] += 100;
        tv_register_polling_fd(fds[slot], nullptr, 0, 0); // takes the lowest free slot
    }
    EXPECT_EQ(listed(TV_MAX_POLLING_FDS), fds);
    for (const int fd : fds)
        EXPECT_EQ(tv_unregister_polling_fd(fd), 0);
    tv_register_polling_fd(loopFd, nullptr, 0, 0);
}

TEST_F(Loop, FiresTimersAndServesReadyDescriptorsInSlotOrder)
{
    static std::vector<intptr_t> served;
    const auto handle = [](int, intptr_t name, intptr_t negative) {
        EXPECT_EQ(negative, -name);
        served.push_back(name);
        return -1; // ignored
    };
    const int low = eventfd(1, 0), high = eventfd(1, 0), closed = 400;
    const int order[] = {high, low, closed, high}; // not the order of their numbers
    for (int i = 0; i < 4; i++)
        tv_register_polling_fd(order[i], handle, i, -i);
    ruvo_start_timer(
        1, [](intptr_t name, intptr_t) { served.push_back(name); }, 9, 0);
    run("be_busy 1; advance 4");
    EXPECT_EQ(served, (std::vector<intptr_t>{9, 0, 1, 2, 0})); // the lower slot serves both
    EXPECT_EQ(lastPerror, "poll: Bad file descriptor");        // how the simulated loop ends
    for (const int fd : order)
        tv_unregister_polling_fd(fd);
    close(low);
    close(high);
}

TEST_F(Loop, ANumberThatAHandlerGivesToAnotherFileIsServedOnlyIfThatIsReady)
{
    static int other;
    other = eventfd(1, 0);
    const int first = eventfd(1, 0);
    static const auto serve_other = [](int, intptr_t, intptr_t) {
        note("served");
        return 0;
    };
    const auto replace_other = [](int, intptr_t, intptr_t) {
        tv_unregister_polling_fd(other);
        dup2(loopFd, other); // which is never ready
        return tv_register_polling_fd(other, serve_other, 0, 0);
    };
    tv_register_polling_fd(first, replace_other, 0, 0);
    tv_register_polling_fd(other, serve_other, 0, 0);
    play("advance 4");
    for (const int fd : {first, other}) {
        tv_unregister_polling_fd(fd);
        close(fd);
    }
}

// In the same pass `a` has received the request x, and `b` y.
TEST_F(Loop, AChannelIsServedForWhatIsStillThere)
{
    const char *const scenarios[] = {
        R"( # The handler of `a` serves `b`, too. Only if there is more the loop does it again.
        on actor0: b: serve
        advance 4                     => a: actor0 x, b: actor0 y)",
        R"(
        b: peer_buffers request z
        on actor0: b: serve
        advance 4                     => a: actor0 x, b: actor0 y, b: actor0 z)",
        R"( # The same if a descriptor has two slots.
        b: watch
        advance 4                     => a: actor0 x, b: actor0 y)",
        R"(
        b: watch; peer_buffers request z
        advance 4                     => a: actor0 x, b: actor0 y, b: actor0 z)",
        R"( # A timer fires before descriptors are served, and its callback serves both.
        b: send_request ping 10       => b: peer_got request ping
        on timeout: serve; a: serve
        be_busy 10; advance 4         => b: timeout, a: actor0 x, b: actor0 y)",
        R"( # The handler of `a` gives the number of `b` to a connection that has sent nothing yet,
        on actor0: b: close; c: accept
        advance 4                     => a: actor0 x, b: fd_close, b: peer_got EOF, c: fd_open)",
        R"( # and runs a loop of its own,
        on actor0: b: close; c: accept; advance 4
        advance 4                     => a: actor0 x, b: fd_close, b: peer_got EOF, c: fd_open)",
        R"( # or to one that has sent something.
        on actor0: b: close; c: accept; peer_buffers request z
        advance 4       => a: actor0 x, b: fd_close, b: peer_got EOF, c: fd_open, c: actor0 z)",
    };
    for (const char *const scenario : scenarios) {
        prepare("actors handle pass; a: peer_logs_in a; b: peer_logs_in b");
        prepare("a: peer_buffers request x; b: peer_buffers request y");
        play(scenario);
        prepare("a: close; b: close; c: close");
    }
}

TEST_F(Loop, AReadyDescriptorThatAHandlerHasUnregisteredIsLogged)
{
    prepare("actors handle pass; a: peer_logs_in a; b: peer_logs_in b");
    const std::string fd = std::to_string(tv_get_polling_fd(current->channelId));
    play("b: peer_buffers request y; a: peer_buffers request x\n on actor0: b: close\n"
         "advance 4 => a: actor0 x, b: fd_close, b: peer_got EOF");
    EXPECT_EQ(std::count(logged.begin(), logged.end(), "unknown socket[" + fd + "], not registerd"),
              1);
}

// An accept that found no connection would wait for one.
TEST_F(Loop, TwoSlotsOfTheListeningDescriptorAcceptWhatIsThere)
{
    const int fd = tv_get_server_polling_fd();
    tv_register_polling_fd(fd, tv_server_fd_handler, 0, 0);
    for (const int connections : {1, 2}) {
        for (int i = 0; i < connections; i++)
            connect_peer(links[std::to_string(10 * connections + i)]);
        advance(4);
        EXPECT_EQ(happened(), connections == 1 ? "fd_open" : "fd_open, fd_open");
    }
    tv_unregister_polling_fd(fd);
}
