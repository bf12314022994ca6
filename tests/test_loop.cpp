// test_loop.cpp - the descriptor table, and single passes of the main loop over ready descriptors.

#include "channel_fixture.h"

using Act = std::function<void()>;
using Served = std::vector<intptr_t>;
static Served served;              // first arguments, in order
static std::map<int, Act> actions; // by descriptor, what its handler does

static int handle(int fd, intptr_t name, intptr_t twice)
{
    EXPECT_EQ(twice, 2 * name);
    served.push_back(name);
    if (const Act act = actions[fd])
        act();
    return -1; // ignored
}

static std::vector<int> listed(int size = TV_MAX_POLLING_FDS)
{
    struct pollfd list[TV_MAX_POLLING_FDS];
    std::vector<int> fds(build_polling_fd_list(list, size));
    for (size_t i = 0; i < fds.size(); i++)
        fds[i] = list[i].events == POLLIN ? list[i].fd : -1;
    return fds;
}

struct Loop : ChannelTest {
    ~Loop() override
    {
        clear();
        for (const int fd : opened)
            close(fd);
    }

    static void clear() // watch nothing any more
    {
        for (const int fd : listed())
            if (fd != idleFd)
                tv_unregister_polling_fd(fd);
        actions.clear();
    }

    int ready(int count = 1) // a descriptor that is, unless the count is 0
    {
        opened.push_back(eventfd(count, 0));
        return opened.back();
    }

    int watch(intptr_t name, int fd)
    {
        EXPECT_EQ(tv_register_polling_fd(fd, handle, name, 2 * name), 0);
        return fd;
    }

    // What one pass serves; passes that find nothing ready go on until the time of one is used up.
    Served pass()
    {
        served.clear();
        log.take();
        complaint.clear();
        run_loop(4);
        EXPECT_EQ(complaint, "poll: Bad file descriptor");
        logged = log.take();
        return served;
    }

    std::vector<int> opened;
};

TEST_F(Loop, HoldsSixteenDescriptors)
{
    std::vector<int> fds;
    clear();
    tv_unregister_polling_fd(idleFd);
    for (int fd = 500; fd < 500 + TV_MAX_POLLING_FDS; fd++) {
        EXPECT_EQ(tv_unregister_polling_fd(-1), -1); // takes no place away
        fds.push_back(watch(0, fd));
    }
    log.take();
    EXPECT_EQ(tv_register_polling_fd(7, handle, 0, 0), -1);
    EXPECT_EQ(tv_unregister_polling_fd(7), -1);
    EXPECT_EQ(listed(3), (std::vector<int>{500, 501, 502}));
    EXPECT_LOG(
        {"failed on reserve_fd_index, fdHandlerCount[16]",
         "tv_register_polling_fd, failed on reserve_fd_index",
         "faield on tv_unregister_polling_fd, fd[7]",
         "build_external_fd_list, size is too small, for sanity, should never reach here!!!"});
    tv_unregister_polling_fd(503);
    tv_unregister_polling_fd(509);
    fds[3] = watch(0, 600); // the lowest free place
    fds[9] = watch(0, 601);
    EXPECT_EQ(listed(), fds);
    clear();
    tv_register_polling_fd(idleFd, nullptr, 0, 0);
}

TEST_F(Loop, FiresTimersAndServesTheReadyInTheOrderOfPlaces)
{
    clear();
    const int low = ready(), high = ready();
    watch(1, ready(0));
    watch(2, high);
    watch(3, low);
    const int closed = watch(4, 400); // reported until it is unregistered
    watch(5, high);
    ruvo_start_timer(
        1, [](intptr_t name, intptr_t) { served.push_back(name); }, 6, 0);
    now++;
    EXPECT_EQ(pass(), (Served{6, 2, 3, 4, 2})); // the lower place serves for both
    tv_unregister_polling_fd(closed);
    tv_unregister_polling_fd(high);
    polls = 0;
    EXPECT_EQ(pass(), (Served{3, 5}));
    EXPECT_EQ(polls, 2); // nothing is asked again, and the one that ends it
    EXPECT_EQ(logged, Texts());
}

TEST_F(Loop, AHandlersChangesCountInTheSamePassIfWhatItRegistersIsReady)
{
    for (const bool nested : {false, true}) {
        for (const bool isReady : {false, true}) {
            const int first = watch(1, ready()), second = watch(2, ready()),
                      third = watch(3, ready());
            actions[first] = [&] {
                actions.clear();
                for (const int fd : {second, third})
                    tv_unregister_polling_fd(fd);
                dup2(ready(isReady), second);
                watch(4, second); // the number was reported for another one
                if (nested)
                    run_loop(4); // serves the first one, too
            };
            Served expected = nested ? Served{1, 1} : Served{1};
            if (isReady)
                expected.insert(expected.end(), nested ? 2 : 1, 4);
            EXPECT_EQ(pass(), expected);
            const std::string unknown =
                "unknown socket[" + std::to_string(third) + "], not registerd";
            EXPECT_EQ(std::count(logged.begin(), logged.end(), unknown), 1);
            clear();
        }
    }
}

TEST_F(Loop, WhatAHandlerHasTakenIsNotServedAgain)
{
    prepare("peer: accept & door: accept & others:");
    clear();
    const int pair = tv_get_polling_fd(links["peer:"].id);
    const int door = tv_get_polling_fd(links["door:"].id); // as if it was the listening one
    const auto accept = [=] {
        char knock;
        EXPECT_EQ(recv(door, &knock, 1, 0), 1);
        tv_server_fd_handler(door, 0, 0);
    };
    const struct {
        int fd;
        Act give, take; // what makes it ready once, and what its handler does about it
    } sources[] = {
        {pair, [&] { say(links["peer:"], "news", "x"); }, [=] { tv_pair_fd_handler(pair, 0, 0); }},
        {door, [&] { send_to(links["door:"], "x"); }, accept},
    };
    for (const auto &[fd, give, take] : sources) {
        for (const bool elsewhere : {false, true}) { // or by a handler registered twice
            for (const int given : {1, 2}) {         // the second one is served in the same pass
                for (int i = 0; i < given; i++)
                    give();
                const int first = watch(1, elsewhere ? ready() : fd), second = elsewhere ? 2 : 1;
                actions[first] = take;
                watch(second, fd);
                EXPECT_EQ(pass(), given == 1 ? Served{1} : (Served{1, second}));
                clear();
            }
        }
        watch(1, fd); // that has one left
        ruvo_start_timer(
            1, [](intptr_t take, intptr_t) { (*(const Act *)take)(); }, (intptr_t)&take, 0);
        now++;
        EXPECT_EQ(pass(), Served()); // a timer has taken it
        clear();
    }
    happened();
}
