// test_loop.cpp - the descriptor table, and single passes of the main loop over ready descriptors.

#include "hand_timer.h"
#include "log_capture.h"

#include <algorithm>
#include <arpa/inet.h>
#include <fcntl.h>
#include <functional>
#include <map>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

using Served = std::vector<intptr_t>;
static Served served;                                // first arguments, in order
static std::map<int, std::function<void()>> actions; // by descriptor, what its handler does

static int serve(int fd, intptr_t name, intptr_t twice)
{
    EXPECT_EQ(twice, 2 * name);
    served.push_back(name);
    if (const auto act = actions[fd])
        act();
    return -1; // ignored
}

static struct rlimit allowed;

// A handler that ends the loop: it lets the next poll() ask for more descriptors than are allowed.
static int end_loop(int, intptr_t, intptr_t)
{
    const struct rlimit none = {0, allowed.rlim_max};
    return setrlimit(RLIMIT_NOFILE, &none);
}

static std::vector<int> listed(int size = TV_MAX_POLLING_FDS)
{
    struct pollfd list[TV_MAX_POLLING_FDS];
    std::vector<int> fds(build_polling_fd_list(list, size));
    for (size_t i = 0; i < fds.size(); i++)
        fds[i] = list[i].events == POLLIN ? list[i].fd : -1;
    return fds;
}

struct Loop : testing::Test {
    ~Loop() override
    {
        for (const int fd : listed()) {
            tv_unregister_polling_fd(fd);
            close(fd);
        }
        actions.clear();
    }

    static int watch(intptr_t name, int fd = eventfd(1, 0)) // one that is ready
    {
        EXPECT_EQ(tv_register_polling_fd(fd, serve, name, 2 * name), 0);
        return fd;
    }

    // Run the loop until it has served last, which is ready in time and ends it.
    static void loop(int last = eventfd(1, 0))
    {
        getrlimit(RLIMIT_NOFILE, &allowed);
        EXPECT_EQ(tv_register_polling_fd(last, end_loop, 0, 0), 0);
        tv_main_loop();
        setrlimit(RLIMIT_NOFILE, &allowed);
        tv_unregister_polling_fd(last);
        close(last);
    }

    // The same: what was served?
    Served pass(int last = eventfd(1, 0))
    {
        served.clear();
        log.take();
        testing::internal::CaptureStderr();
        loop(last);
        const std::string complaint = "poll: Invalid argument\n";
        EXPECT_EQ(testing::internal::GetCapturedStderr().substr(0, complaint.size()), complaint);
        logged = log.take();
        return served;
    }

    std::vector<std::string> logged; // by the loop
    LogCapture log;
};

TEST_F(Loop, HoldsSixteenDescriptors)
{
    std::vector<int> fds;
    for (int fd = 500; fd < 500 + TV_MAX_POLLING_FDS; fd++) {
        EXPECT_EQ(tv_unregister_polling_fd(-1), -1); // takes no place away
        fds.push_back(watch(0, fd));
    }
    log.take();
    EXPECT_EQ(tv_register_polling_fd(7, serve, 0, 0), -1);
    EXPECT_EQ(tv_unregister_polling_fd(7), -1);
    EXPECT_EQ(listed(3), (std::vector<int>{500, 501, 502}));
    log.expect(
        {"failed on reserve_fd_index, fdHandlerCount[16]",
         "tv_register_polling_fd, failed on reserve_fd_index",
         "faield on tv_unregister_polling_fd, fd[7]",
         "build_external_fd_list, size is too small, for sanity, should never reach here!!!"});
    tv_unregister_polling_fd(503);
    tv_unregister_polling_fd(509);
    fds[3] = watch(0, 600); // the lowest free place
    fds[9] = watch(0, 601);
    EXPECT_EQ(listed(), fds);
}

TEST_F(Loop, ServesTheReadyInTheOrderOfPlaces)
{
    const int low = eventfd(1, 0), high = eventfd(1, 0);
    watch(1, eventfd(0, 0));
    watch(2, high);
    watch(3, low);
    const int closed = watch(4, 400); // reported until it is unregistered
    watch(5, high);
    EXPECT_EQ(pass(), (Served{2, 3, 4, 2})); // the lower place serves for both
    tv_unregister_polling_fd(closed);
    tv_unregister_polling_fd(high);
    EXPECT_EQ(pass(), (Served{3, 5}));
    EXPECT_EQ(logged.size(), 2); // that the last one comes and goes
}

TEST_F(Loop, AHandlersChangesCountInTheSamePassIfWhatItRegistersIsReady)
{
    for (const bool nested : {false, true}) {
        for (const bool ready : {false, true}) {
            const int first = watch(1), second = watch(2), third = watch(3);
            actions[first] = [&] {
                actions.clear();
                for (const int fd : {second, third})
                    tv_unregister_polling_fd(fd);
                dup2(eventfd(ready, 0), second);
                watch(4, second); // the number was reported for another one
                if (nested)
                    loop(); // serves the first one, too
            };
            Served expected = nested ? Served{1, 1} : Served{1};
            if (ready)
                expected.insert(expected.end(), nested ? 2 : 1, 4);
            EXPECT_EQ(pass(), expected);
            const std::string unknown =
                "unknown socket[" + std::to_string(third) + "], not registerd";
            EXPECT_EQ(std::count(logged.begin(), logged.end(), unknown), 1);
            for (const int fd : {first, second})
                tv_unregister_polling_fd(fd);
        }
    }
}

// A descriptor, what makes it ready once, and what its handler does about it.
struct Source {
    int fd;
    std::function<void()> give, take;
};

TEST_F(Loop, WhatAHandlerHasTakenIsNotServedAgain)
{
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    static tv_channel channel;
    static tv_socket socket = {ends[0]};
    init_channel(&channel, -2);
    channel.pairSocket = &socket;

    const int listening = impl_create_server_socket("127.0.0.1", 0);
    fcntl(listening, F_SETFL, O_NONBLOCK);
    struct sockaddr_in address = {};
    socklen_t size = sizeof(address);
    getsockname(listening, (struct sockaddr *)&address, &size);

    const auto send = [&] { tcp_impl_send_with_timeout(ends[1], "frame", 5, 1000); };
    const auto receive = [] {
        int len;
        free(tv_impl_recv_with_timeout(&channel, &len, 1000));
    };
    const auto connect = [&] {
        close(impl_create_client_socket("127.0.0.1", ntohs(address.sin_port), 1000));
    };
    const auto accept = [=] { tv_server_fd_handler(listening, 0, 0); };

    for (const Source &source : {Source{ends[0], send, receive}, {listening, connect, accept}}) {
        for (const bool elsewhere : {false, true}) { // or by a handler registered twice
            for (const int given : {1, 2}) {         // the second one is served in the same pass
                for (int i = 0; i < given; i++)
                    source.give();
                const int first = elsewhere ? watch(1) : watch(1, source.fd);
                actions[first] = source.take;
                watch(elsewhere ? 2 : 1, source.fd);
                const Served both = elsewhere ? Served{1, 2} : Served{1, 1};
                EXPECT_EQ(pass(), given == 1 ? Served{1} : both);
                for (const int fd : listed())
                    tv_unregister_polling_fd(fd);
                if (elsewhere)
                    close(first);
                actions.clear();
            }
        }
    }
    for (const int fd : {ends[0], ends[1], listening})
        close(fd);
}

TEST_F(Loop, FiresTimersBeforeItServes)
{
    const auto fire = [](intptr_t name, intptr_t fd) {
        served.push_back(name);
        eventfd_write((int)fd, 1);
    };
    hand_timer_reset();
    const int first = watch(1), last = eventfd(0, 0);
    actions[first] = [] { hand_timer_now += 10 * 1000000; };
    const int second = watch(2, eventfd(0, 0));
    ruvo_start_timer(10, fire, 3, second);
    ruvo_start_timer(20, fire, 4, last);
    EXPECT_EQ(pass(last), (Served{1, 3, 1, 4, 1, 2, 1, 2}));
}
