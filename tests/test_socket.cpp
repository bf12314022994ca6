// test_socket.cpp - listening, connecting and accepting, on loopback and the system's ports.

#include "log_capture.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <unistd.h>

static const char ip[] = "127.0.0.1";

static struct sockaddr_in address_of(int fd)
{
    struct sockaddr_in address = {};
    socklen_t size = sizeof(address);
    getsockname(fd, (struct sockaddr *)&address, &size);
    return address;
}

struct Socket : testing::Test {
    ~Socket() override
    {
        EXPECT_EQ(fcntl(listener + 1, F_GETFD), -1); // failures left nothing open
        close(listener);
    }

    const int listener = impl_create_server_socket("localhost", 0); // other texts: all addresses
    const int port = ntohs(address_of(listener).sin_port);
};

TEST_F(Socket, ConnectsAndAcceptsWithoutBlocking)
{
    EXPECT_FALSE(fcntl(listener, F_GETFL) & O_NONBLOCK);
    for (const int timeoutMs : {-1, 0, 1000}) {
        const int client = impl_create_client_socket(ip, port + 65536, timeoutMs);
        const int accepted = tcp_impl_accept_socket(listener);
        for (const int fd : {client, accepted}) {
            int noDelay = 0;
            socklen_t size = sizeof(noDelay);
            getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &noDelay, &size);
            EXPECT_TRUE((fcntl(fd, F_GETFL) & O_NONBLOCK) && noDelay);
            EXPECT_TRUE(fcntl(fd, F_GETFD) & fcntl(listener, F_GETFD) & FD_CLOEXEC);
        }
        int len;
        EXPECT_EQ(tcp_impl_send_with_timeout(client, "", 0, 1000), 0);
        char *const empty = tcp_impl_receive(accepted, &len);
        EXPECT_TRUE(empty != nullptr && len == 0);
        free(empty);
        fcntl(accepted, F_SETFL, 0); // timeouts also hold on a blocking descriptor
        EXPECT_EQ(tcp_impl_receive_with_timeout(accepted, &len, 10), nullptr);
        const std::string large(1 << 25, 'x');
        if (timeoutMs < 0) {
            EXPECT_EQ(tcp_impl_send_with_timeout(accepted, large.data(), 1 << 25, 10), -1);
        }
        close(accepted); // first, with nothing unread: its address stays in use for a while
        close(client);
    }
    EXPECT_EQ(address_of(listener).sin_addr.s_addr, htonl(INADDR_ANY));
    EXPECT_EQ(impl_create_server_socket(ip, port - 65536), -1);
    close(listener);
    EXPECT_EQ(impl_create_server_socket(ip, port), listener);
    EXPECT_EQ(address_of(listener).sin_addr.s_addr, htonl(INADDR_LOOPBACK));
}

TEST_F(Socket, DescriptorZeroIsLikeAnyOther)
{
    const int input = dup(0);
    close(0);
    LogCapture log;
    EXPECT_EQ(impl_create_client_socket(ip, port, 1000), 0);
    EXPECT_LOG({"nonblock connecting mode for fd 0", "Operation now in progress 115"});
    close(0);
    EXPECT_EQ(tcp_impl_accept_socket(listener), 0);
    EXPECT_TRUE(fcntl(0, F_GETFL) & O_NONBLOCK);
    close(0);
    EXPECT_EQ(impl_create_server_socket(ip, 0), 0);
    dup2(input, 0);
    close(input);
}

TEST_F(Socket, FailedConnectsLeaveNothingOpen)
{
    int queue[16]; // to be accepted
    for (int &fd : queue)
        EXPECT_NE(fd = impl_create_client_socket(ip, port, 1000), -1);
    listen(listener, 0); // no room for another one: it gets no answer
    LogCapture log;
    EXPECT_EQ(impl_create_client_socket("255.255.255.255", port, 1000), -1);
    EXPECT_EQ(impl_create_client_socket(ip, port, 1), -1);
    const std::string attempt = "nonblock connecting mode for fd " + std::to_string(queue[15] + 1);
    EXPECT_LOG({attempt, "Network is unreachable 101", attempt, "Operation now in progress 115"});
    for (const int fd : queue)
        close(fd);
}

// While the server is down, a client may get the server's port as its own.
TEST_F(Socket, AClientThatConnectsToItselfIsNotConnected)
{
    sockaddr_in own = {AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}}; // port 0: any
    const int self = socket(AF_INET, SOCK_STREAM, 0);
    bind(self, (const sockaddr *)&own, sizeof(own));
    own = address_of(self);
    LogCapture log;
    for (int tries = 0; tries < 2; tries++) { // the second one finds it connected
        EXPECT_EQ(_impl_nonblock_connect(self, (const sockaddr *)&own, sizeof(own), 1000), -1);
        EXPECT_EQ(log.take().back(), "_impl_nonblock_connect, connected to itself");
    }
    EXPECT_EQ(close(self), 0); // it was left open for its owner

    // The same port at another address is a different end.
    const int server = impl_create_server_socket("127.0.0.2", ntohs(own.sin_port));
    const int client = socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_EQ(bind(client, (const sockaddr *)&own, sizeof(own)), 0) << "it is in TIME_WAIT";
    const sockaddr_in other = address_of(server);
    EXPECT_EQ(_impl_nonblock_connect(client, (const sockaddr *)&other, sizeof(other), 1000),
              client);
    close(client);
    close(server);
}
