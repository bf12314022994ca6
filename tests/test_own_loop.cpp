// test_own_loop.cpp - the examples with a loop of their own serve many clients at the same time.
//
// usage: test_own_loop <program>...

#include "tolvane.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <string>
#include <sys/wait.h>
#include <vector>

static const int clients = 500;
static const int patience = 30000; // milliseconds

static std::vector<std::string> programs;
static int port;

static int create_client()
{
    static uint16_t number = 0;
    const tv_client_addr address = {"127.0.0.1", "client", (uint16_t)port, number++};
    const int id = tv_create_client_channel(&address);
    tv_set_poll_timeout(id, patience);
    tv_register_resp_handler(id, [](int, const char *payload, int len) {
        EXPECT_EQ(std::string(payload, len), "hello");
    });
    EXPECT_EQ(tv_connect_server(id), 0);
    return id;
}

static void ask(const std::vector<int> &ids)
{
    for (const int id : ids)
        EXPECT_EQ(tv_send_rqst(id, "hello", 5, patience), 0);
    for (const int id : ids) {
        tv_channel_fd_handler(-1, id, 0); // long before the server's first heartbeat
        ASSERT_FALSE(tv_get_channel(id)->waitingResp);
    }
}

// In one pass of the server's loop a login closes an older client of that name, a newcomer gets the
// descriptor's number, and the older one has sent something, too: nobody may wait for that on the
// newcomer's connection, and give it up.
static void send_stale_event(pid_t server)
{
    const int older = create_client(), other = create_client();
    ask({older, other});
    kill(server, SIGSTOP);
    waitpid(server, NULL, WUNTRACED);
    tv_channel *renamed = tv_get_channel(other);
    const int len = build_login_msg(renamed, tv_get_channel(older)->url);
    EXPECT_EQ(tv_impl_send_rqst(renamed, renamed->msgBuf, len), 0);
    pollfd newcomer = {impl_create_client_socket("127.0.0.1", port, patience), POLLIN, 0};
    EXPECT_EQ(tv_send_rqst(older, "hello", 5, 0), 0);
    kill(server, SIGCONT);
    ask({other});
    EXPECT_EQ(poll(&newcomer, 1, 0), 0) << "the newcomer was given up";
}

// Half of them leave, with a logout or without a word, while others come.
static void ask_with_many_clients()
{
    std::vector<int> ids(clients);
    for (int &id : ids)
        id = create_client();
    ask(ids);
    for (int i = 0; i < clients; i += 2) {
        if (i % 4 == 0)
            tv_disconnect_server(ids[i]);
        tv_close_channel(ids[i]);
        ids[i] = create_client();
    }
    ask(ids);
    for (const int id : ids)
        tv_close_channel(id);
}

TEST(OwnLoop, ServesManyClientsAndNoStaleEvents)
{
    for (const std::string &program : programs) {
        SCOPED_TRACE(program);
        // The server ends with this process. Its first line tells its port.
        const std::string command = "exec setpriv --pdeathsig KILL " + program + " 127.0.0.1 0";
        FILE *output = popen(("echo $$; " + command).c_str(), "r");
        pid_t server = 0;
        ASSERT_EQ(fscanf(output, "%d server: listening on port %d", &server, &port), 2);
        send_stale_event(server);
        ask_with_many_clients();
        kill(server, SIGKILL);
        pclose(output);
    }
}

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    programs.assign(argv + 1, argv + argc);
    return RUN_ALL_TESTS();
}
