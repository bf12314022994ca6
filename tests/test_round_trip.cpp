// test_round_trip.cpp - a server process in the main loop, a client with a loop of its own, on the
// real timer.
//
// A stall guard: small messages must not wait for the acknowledgement of earlier ones, which would
// cost 40 ms each. The bound is far from what the round trips take, and from what stalls would.

#include "ruvo_timer.h"
#include "tolvane.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <signal.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

static const int roundTrips = 1000;
static const int boundSeconds = 15; // 1000 stalls take 40
static int answered = 0;

// Each side sends two messages in a row: one that is not answered, and one that the other awaits.
static int actor(int id, const char *payload, int, char **reply, int *replyLen)
{
    if (*payload == 'a') { // asked, not told
        tv_send_rqst(id, "tell", 4, 0);
        *reply = strdup("reply");
        *replyLen = 5;
    }
    return TV_ACTOR_HANDLED;
}

static void serve_until_killed(int server)
{
    alarm(60);
    tv_register_actor(server, actor);
    tv_register_client_fd_open_callback(
        [](int fd) { tv_register_polling_fd(fd, tv_pair_fd_handler, 0, 0); });
    tv_register_polling_fd(tv_get_server_polling_fd(), tv_server_fd_handler, 0, 0);
    tv_main_loop();
}

static void ask(int id)
{
    tv_send_rqst(id, "tell", 4, 0);
    tv_send_rqst(id, "ask", 3, 1000 * boundSeconds);
}

TEST(RoundTrip, SmallMessagesDoNotWaitForEachOther)
{
    const int server = tv_start_server("127.0.0.1", 0);
    sockaddr_in address;
    socklen_t size = sizeof(address);
    getsockname(tv_get_server_polling_fd(), (sockaddr *)&address, &size);
    const pid_t process = fork();
    if (process == 0) {
        serve_until_killed(server);
        _exit(1);
    }
    const tv_client_addr addr = {"127.0.0.1", "client", ntohs(address.sin_port), 7};
    const int id = tv_create_client_channel(&addr);
    tv_register_resp_handler(id, [](int id, const char *, int) { answered++, ask(id); });
    EXPECT_EQ(tv_connect_server(id), 0);
    ask(id);
    const time_t end = time(NULL) + boundSeconds;
    for (pollfd entry = {tv_get_polling_fd(id), POLLIN, 0}; answered < roundTrips;) {
        ASSERT_LT(time(NULL), end) << "only " << answered << " round trips";
        if (poll(&entry, 1, ruvo_timer_get_expected_interval()) == 1)
            tv_channel_fd_handler(entry.fd, id, 0);
        ruvo_fire_timer();
    }
    kill(process, SIGKILL);
    waitpid(process, NULL, 0);
    tv_close_channel(id);
    tv_stop_server();
}
