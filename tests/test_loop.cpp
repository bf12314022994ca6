// test_loop.cpp - the descriptor table, and single passes of the main loop over ready descriptors.

#include "channel_fixture.h"

using Names = std::vector<intptr_t>;
static Names served;                                 // by the pass, in this order
static std::map<int, std::function<void()>> actions; // by descriptor, what its handler does

static int handle(int fd, intptr_t name, intptr_t twice)
{
    EXPECT_EQ(twice, 2 * name);
    served.push_back(name);
    if (const std::function<void()> act = actions[fd]) // a copy: it may clear the map
        act();
    return -1; // ignored
}

static std::vector<int> listed_fds(int size = TV_MAX_POLLING_FDS)
{
    struct pollfd list[TV_MAX_POLLING_FDS];
    std::vector<int> fds;
    for (int i = 0, count = build_polling_fd_list(list, size); i < count; i++) {
        EXPECT_EQ(list[i].events, POLLIN);
        fds.push_back(list[i].fd);
    }
    return fds;
}

struct Loop : ChannelTest {
    Loop()
    {
        unwatch_all();
    }
    ~Loop() override
    {
        unwatch_all();
        for (const int fd : opened)
            close(fd);
    }

    static void unwatch_all()
    {
        for (const int fd : listed_fds())
            if (fd != loopFd)
                tv_unregister_polling_fd(fd);
        actions.clear();
    }

    int new_fd(bool ready = true)
    {
        opened.push_back(eventfd(ready, 0));
        return opened.back();
    }

    // Watch a descriptor under a name.
    int watch(intptr_t name, int fd)
    {
        EXPECT_EQ(tv_register_polling_fd(fd, handle, name, 2 * name), 0);
        return fd;
    }

    Names run_one_pass()
    {
        served.clear();
        log.take();
        lastPerror.clear();
        advance(4);
        EXPECT_EQ(lastPerror, "poll: Bad file descriptor"); // how the simulated loop ends
        logged = log.take();
        return served;
    }

    std::vector<int> opened;
};

TEST_F(Loop, HoldsSixteenDescriptors)
{
    std::vector<int> fds;
    tv_unregister_polling_fd(loopFd);
    for (int fd = 500; fd < 500 + TV_MAX_POLLING_FDS; fd++) {
        EXPECT_EQ(tv_unregister_polling_fd(-1), -1); // frees no slot
        fds.push_back(watch(0, fd));
    }
    log.take();
    EXPECT_EQ(tv_register_polling_fd(7, handle, 0, 0), -1);
    EXPECT_EQ(tv_unregister_polling_fd(7), -1);
    EXPECT_EQ(listed_fds(3), (std::vector<int>{500, 501, 502}));
    EXPECT_LOG(
        {"failed on reserve_fd_index, fdHandlerCount[16]",
         "tv_register_polling_fd, failed on reserve_fd_index",
         "faield on tv_unregister_polling_fd, fd[7]",
         "build_external_fd_list, size is too small, for sanity, should never reach here!!!"});
    tv_unregister_polling_fd(503);
    tv_unregister_polling_fd(509);
    fds[3] = watch(0, 600); // the lowest free slot
    fds[9] = watch(0, 601);
    EXPECT_EQ(listed_fds(), fds);
    unwatch_all();
    tv_register_polling_fd(loopFd, nullptr, 0, 0);
}

TEST_F(Loop, FiresTimersAndServesReadyDescriptorsInSlotOrder)
{
    const int low = new_fd(), high = new_fd();
    watch(1, new_fd(false));
    watch(2, high);
    watch(3, low);
    watch(4, 400);  // not open: reported until it is unregistered
    watch(5, high); // again: the lower slot serves both
    ruvo_start_timer(
        1, [](intptr_t name, intptr_t) { served.push_back(name); }, 6, 0);
    now++;
    EXPECT_EQ(run_one_pass(), (Names{6, 2, 3, 4, 2}));
    tv_unregister_polling_fd(400);
    tv_unregister_polling_fd(high);
    EXPECT_EQ(run_one_pass(), (Names{3, 5}));
    EXPECT_EQ(logged, Texts());
}

// The first handler takes the other two descriptors away; the number of one goes to a new file.
TEST_F(Loop, ANumberThatAHandlerReusesIsServedIfItIsReady)
{
    for (const bool nested : {false, true}) { // the handler runs a loop of its own, too
        for (const bool ready : {false, true}) {
            const int first = watch(1, new_fd()), second = watch(2, new_fd());
            const int third = watch(3, new_fd());
            actions[first] = [&] {
                actions.clear();
                tv_unregister_polling_fd(second);
                tv_unregister_polling_fd(third);
                dup2(new_fd(ready), second);
                watch(4, second);
                if (nested)
                    advance(4);
            };
            Names expected = nested ? Names{1, 1} : Names{1};
            if (ready)
                expected.insert(expected.end(), nested ? 2 : 1, 4);
            EXPECT_EQ(run_one_pass(), expected);
            const std::string entry =
                "unknown socket[" + std::to_string(third) + "], not registerd";
            EXPECT_EQ(std::count(logged.begin(), logged.end(), entry), 1);
            unwatch_all();
        }
    }
}

// A handler that found nothing to receive or to accept would wait for it.
TEST_F(Loop, ADescriptorIsNotServedForWhatAnotherHandlerHasTaken)
{
    prepare("peer: accept; door: accept; none:");
    unwatch_all();
    const int pair = tv_get_polling_fd(links["peer:"].channelId);
    const int door = tv_get_polling_fd(links["door:"].channelId); // plays the listening descriptor
    const auto accept = [=] {
        char knock;
        EXPECT_EQ(recv(door, &knock, 1, 0), 1);
        tv_server_fd_handler(door, 0, 0);
    };
    const struct {
        int fd;
        std::function<void()> give, take; // one thing to receive or to accept
    } sources[] = {
        {pair, [] { run("peer: peer_buffers news x; none:"); },
         [=] { tv_pair_fd_handler(pair, 0, 0); }},
        {door, [] { send_bytes(links["door:"], "x"); }, accept},
    };
    for (const auto &[fd, give, take] : sources) {
        for (const bool elsewhere : {false, true}) { // another descriptor's handler takes it
            for (const int given : {1, 2}) {
                for (int i = 0; i < given; i++)
                    give();
                const int first = watch(1, elsewhere ? new_fd() : fd), second = elsewhere ? 2 : 1;
                actions[first] = take;
                watch(second, fd);
                EXPECT_EQ(run_one_pass(), given == 1 ? Names{1} : (Names{1, second}));
                unwatch_all();
            }
        }
        watch(1, fd); // one is left there
        ruvo_start_timer(
            1, [](intptr_t take, intptr_t) { (*(const std::function<void()> *)take)(); },
            (intptr_t)&take, 0);
        now++;
        EXPECT_EQ(run_one_pass(), Names()); // the timer has taken it
        unwatch_all();
    }
    happened();
}
