// test_frame.cpp - frames between two connected descriptors, with a peer in a child process where
// it has to be slow.

#include "log_capture.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

static const int patience = 30000; // a bound, never waited for
static const std::string failed = "(null)";

static std::string frame(const std::string &body, const std::string &rest = std::string(17, '\0'))
{
    const uint32_t len = (uint32_t)body.size();
    const char length[] = {(char)(len >> 24), (char)(len >> 16), (char)(len >> 8), (char)len};
    return std::string("TCP_WATER_MARK\0", 15) + rest + std::string(length, 4) + body;
}

// Two connected ends: the library's, and its peer's.
struct Link {
    Link()
    {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        fcntl(ends[0], F_SETFL, O_NONBLOCK);
    }
    ~Link()
    {
        if (child > 0)
            kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        close(ends[0]);
        close(ends[1]);
    }

    int send(const std::string &body, int len, int timeoutMs = patience)
    {
        return tcp_impl_send_with_timeout(ends[0], body.data(), len, timeoutMs);
    }

    std::string receive(int timeoutMs = patience)
    {
        int len = 77;
        char *body = tcp_impl_receive_with_timeout(ends[0], &len, timeoutMs);
        const std::string result = body == nullptr ? failed : std::string(body, len);
        EXPECT_TRUE(body == nullptr || body[len] == '\0');
        free(body);
        return result;
    }

    void peerWrites(const std::string &bytes)
    {
        EXPECT_EQ(write(ends[1], bytes.data(), bytes.size()), (ssize_t)bytes.size());
    }

    std::string peerReads()
    {
        char bytes[1000];
        const ssize_t count = recv(ends[1], bytes, sizeof(bytes), MSG_DONTWAIT);
        return std::string(bytes, count > 0 ? count : 0);
    }

    // The peer writes by itself: so many bytes after each pause.
    void peerDrips(const std::string &bytes, size_t count, int pauseMs)
    {
        if ((child = fork()) != 0)
            return;
        for (size_t at = 0; at < bytes.size(); at += count) {
            usleep(pauseMs * 1000);
            peerWrites(bytes.substr(at, count));
        }
        pause();
    }

    int ends[2];
    pid_t child = -1;
    LogCapture log;
};

TEST(Frame, IsAHeaderAndTheBody)
{
    Link link;
    for (const std::string &body :
         {std::string("ping\0", 5), std::string(), std::string(300, 'x')}) {
        EXPECT_EQ(link.send(body, (int)body.size()), (int)body.size());
        EXPECT_EQ(link.peerReads(), frame(body));
        link.peerWrites(frame(body, "anything at all !") + frame("next"));
        EXPECT_EQ(link.receive(), body);
        EXPECT_EQ(link.receive(), "next");
    }
    link.log.expect({});
}

TEST(Frame, EveryTruncationIsNoFrame)
{
    const std::string whole = frame("ping");
    for (size_t len = 0; len < whole.size(); len++) {
        Link link;
        link.peerWrites(whole.substr(0, len));
        shutdown(link.ends[1], SHUT_WR);
        EXPECT_EQ(link.receive(), failed);
        link.log.expect({"the remote peer closed",
                         len < 36 ? "tcp_impl_receive, failed on receive header"
                                  : "tcp_impl_receive, failed on receive msg, len[4]"});
    }
}

TEST(Frame, FailuresOfTheHeaderTheBudgetTheLengthAndThePeer)
{
    Link link;
    for (const char *const bytes : {"TCP_WATER_MARX", "TCP_WATER_MARK"}) {
        link.peerWrites(frame("").replace(0, 14, bytes).replace(32, 1, "\x80"));
        EXPECT_EQ(link.receive(), failed);
    }
    EXPECT_EQ(link.receive(10), failed);
    link.log.expect(
        {"tcp_impl_receive, invalid watermark", "tcp_impl_receive, invalid length[2147483648]",
         "_impl_receive_with_timeout failed ", "tcp_impl_receive, failed on receive header"});

    EXPECT_EQ(link.send("ping", 4, 0), -1);
    EXPECT_EQ(link.send("ping", 4, -1), -1);
    EXPECT_EQ(link.send("ping", -1), -1);
    EXPECT_EQ(link.peerReads(), "");
    link.log.expect({"time out:0", "tcp_impl_send, failed on send header", "time out:-1",
                     "tcp_impl_send, failed on send header", "tcp_impl_send, negative length[-1]"});

    EXPECT_EQ(link.send(std::string(3000000, 'x'), 3000000, 10), -1);
    close(link.ends[1]);
    link.ends[1] = -1;
    EXPECT_EQ(link.send("ping", 4), -1); // and no SIGPIPE
    link.log.expect({"failed", "tcp_impl_send, failed on send msg, len[3000000]",
                     "failed send error:Broken pipe", "tcp_impl_send, failed on send header"});
}

// Either budget alone would do for its part of the frame, and every wait ends early.
TEST(Frame, HeaderAndBodyShareOneBudget)
{
    Link link;
    link.peerDrips(frame(std::string(60, 'x')), 1, 10);
    EXPECT_EQ(link.receive(700), failed);
}

TEST(Frame, ReceivesWithoutATimeLimitByTryingOn)
{
    Link link;
    link.peerDrips(frame("ping"), 20, 5);
    EXPECT_EQ(link.receive(0), "ping");
}

TEST(Frame, SignalsLoseNothingAndCostNoExtraTime)
{
    std::string body(3000000, '\0'); // more than any buffer holds
    for (size_t i = 0; i < body.size(); i++)
        body[i] = (char)(i % 251);
    Link link;
    if ((link.child = fork()) == 0) { // sends in pieces, as the reader makes room
        fcntl(link.ends[1], F_SETFL, O_NONBLOCK);
        usleep(20000);
        tcp_impl_send_with_timeout(link.ends[1], body.data(), (int)body.size(), patience);
        pause();
    }
    const struct itimerval everyFewMs = {{0, 3000}, {0, 3000}}, never = {};
    signal(SIGALRM, [](int) {});
    setitimer(ITIMER_REAL, &everyFewMs, nullptr);
    EXPECT_EQ(link.receive(), body);
    link.log.expect({});
    EXPECT_EQ(link.receive(50), failed); // ends, though no wait is left alone for 50 ms
    setitimer(ITIMER_REAL, &never, nullptr);
}
