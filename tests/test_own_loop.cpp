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
static int answered;

// A server process, which ends with this one, and the port that its first line tells.
struct Server {
    pid_t process = 0;
    FILE *output;
    int port = 0;

    explicit Server(const std::string &program)
        : output(popen(
              ("echo $$; exec setpriv --pdeathsig KILL " + program + " 127.0.0.1 0").c_str(), "r"))
    {
        EXPECT_EQ(fscanf(output, "%d server: listening on port %d", &process, &port), 2);
    }
    ~Server()
    {
        kill(process, SIGKILL);
        pclose(output);
    }
};

static int create_client(int port, bool connected = true)
{
    static uint16_t number = 0;
    const tv_client_addr address = {"127.0.0.1", "client", (uint16_t)port, number++};
    const int id = tv_create_client_channel(&address);
    tv_set_connect_timeout(id, patience);
    tv_set_poll_timeout(id, patience);
    tv_register_resp_handler(id, [](int, const char *payload, int len) {
        answered += std::string(payload, len) == "hello";
    });
    EXPECT_TRUE(!connected || tv_connect_server(id) == 0);
    return id;
}

static void ask(const std::vector<int> &ids)
{
    std::vector<pollfd> list;
    answered = 0;
    for (const int id : ids) {
        list.push_back({tv_get_polling_fd(id), POLLIN, 0});
        EXPECT_EQ(tv_send_rqst(id, "hello", 5, 0x7fffffff), 0);
    }
    while (answered < (int)ids.size() && poll(list.data(), list.size(), patience) > 0) {
        for (size_t i = 0; i < ids.size(); i++)
            if (list[i].revents != 0)
                tv_channel_fd_handler(list[i].fd, ids[i], 0);
    }
    EXPECT_EQ(answered, (int)ids.size());
}

TEST(OwnLoop, ServesManyClients)
{
    for (const std::string &program : programs) {
        SCOPED_TRACE(program);
        Server server(program);
        std::vector<int> ids;
        for (int i = 0; i < clients; i++)
            ids.push_back(create_client(server.port));
        ask(ids);
        // Half of them leave, with a logout or without a word, while others come.
        for (int i = 0; i < clients; i += 2) {
            if (i % 4 == 0)
                tv_disconnect_server(ids[i]);
            tv_close_channel(ids[i]);
            ids[i] = create_client(server.port);
        }
        ask(ids);
        for (const int id : ids)
            tv_close_channel(id);
    }
}

// In one pass of the server's loop a login closes an older client of that name, a newcomer gets the
// descriptor's number, and the older one has sent something, too: nobody may wait for that on the
// newcomer's connection, and give it up.
TEST(OwnLoop, AStaleEventDoesNotReachTheNextClient)
{
    for (const std::string &program : programs) {
        SCOPED_TRACE(program);
        Server server(program);
        const int older = create_client(server.port);
        const int other = create_client(server.port);
        ask({older, other});
        kill(server.process, SIGSTOP);
        waitpid(server.process, NULL, WUNTRACED);
        tv_channel *renamed = tv_get_channel(other);
        const int len = build_login_msg(renamed, tv_get_channel(older)->url);
        EXPECT_EQ(tv_impl_send_rqst(renamed, renamed->msgBuf, len), 0);
        const int newcomer = create_client(server.port, false);
        tv_get_channel(newcomer)->clientSocket->fd =
            impl_create_client_socket("127.0.0.1", server.port, patience);
        EXPECT_EQ(tv_send_rqst(older, "hello", 5, 0), 0);
        kill(server.process, SIGCONT);
        ask({other});
        ask({newcomer});
        for (const int id : {older, other, newcomer})
            tv_close_channel(id);
    }
}

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    programs.assign(argv + 1, argv + argc);
    return RUN_ALL_TESTS();
}
