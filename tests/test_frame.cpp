// test_frame.cpp - failed frames and slow peers on a socket pair and the simulated clock.
// fuzz_frame.cpp covers whole frames and arbitrary bytes.

#include "log_capture.h"
#include "simulated_os.h"

static const int patience = 30000;
static const std::string none = "(null)";

static int ends[2]; // the library's, and its peer's

static int send(const std::string &body, int timeoutMs)
{
    return tcp_impl_send_with_timeout(ends[0], body.data(), body.size(), timeoutMs);
}

static std::string receive(int timeoutMs)
{
    int len = 77;
    char *body = timeoutMs == 0 ? tcp_impl_receive(ends[0], &len)
                                : tcp_impl_receive_with_timeout(ends[0], &len, timeoutMs);
    const std::string result = body == nullptr ? none : std::string(body, len);
    EXPECT_TRUE(body != nullptr || len == 0);
    free(body);
    return result;
}

static void peer_writes(const std::string &bytes)
{
    EXPECT_EQ(write(ends[1], bytes.data(), bytes.size()), (ssize_t)bytes.size());
}

struct Frame : testing::Test {
    Frame()
    {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        fcntl(ends[0], F_SETFL, O_NONBLOCK);
    }
    ~Frame() override
    {
        close(ends[0]);
        close(ends[1]);
        meanwhile = nullptr;
        injecting = false;
        recvMs = 0;
    }

    // From now on 301 calls fail in this way.
    void make_fail(const char *call, int way)
    {
        static Fault fault;
        fault.calls = {call};
        injection = {&fault, way, 1, true};
        injecting = true;
    }

    LogCapture log;
};

// Here every recv() takes 10 ms and finds the frame buffered.
TEST_F(Frame, TheDeadlineIncludesWorkButBufferedBytesMayCompleteASmallFrame)
{
    const std::string small(5000, 'x'), large(300000, 'x'); // two recv() for the large one
    const int room = 1 << 20;
    __real_setsockopt(ends[1], SOL_SOCKET, SO_SNDBUF, &room, sizeof(room));
    recvMs = 10;
    for (const int timeoutMs : {0, 21, 20}) {
        peer_writes(frame(large));
        EXPECT_EQ(receive(timeoutMs), timeoutMs == 20 ? none : large);
    }
    char rest[40000];
    EXPECT_EQ(read(ends[0], rest, sizeof(rest)), 300000 - 256 * 1024);
    EXPECT_LOG({"time out:0", "tcp_impl_receive, failed on receive msg, len[300000]"});

    for (const size_t missing : {0, 1}) {
        make_fail("recv", HALF); // many recv() for a small frame
        peer_writes(frame(small).substr(0, headerSize + small.size() - missing));
        EXPECT_EQ(receive(15), missing == 0 ? small : none);
        EXPECT_EQ(log.take().empty(), missing == 0);
    }
}

TEST_F(Frame, RoomAtTheDeadlineIsTooLate)
{
    meanwhile = [](int limit) {
        char taken[400000];
        now += limit;
        return read(ends[1], taken, sizeof(taken)) > 0;
    };
    EXPECT_EQ(send(std::string(3000000, 'x'), 10), -1);
    EXPECT_LOG({"time out:0", "tcp_impl_send, failed on send msg, len[3000000]"});
}

TEST_F(Frame, ATryComesBeforeAWaitAndItsEagainIsNotLogged)
{
    const auto exchange = [](int receiveTimeoutMs) {
        EXPECT_EQ(send("ping", patience), 4);
        peer_writes(frame("pong"));
        EXPECT_EQ(receive(receiveTimeoutMs), "pong");
    };
    polls = 0;
    exchange(patience);
    EXPECT_EQ(polls, 0);
    EXPECT_LOG({});
    for (const int error : {EAGAIN, EINTR}) { // each makes 301 tries fail
        const std::string text = strerror(error) + std::string(" continue");
        const int logged = error == EAGAIN ? 300 : 301;
        make_fail("send", error);
        exchange(patience);
        EXPECT_EQ(log.take(), Texts(logged, "send error: " + text));
        for (const int timeoutMs : {patience, 0}) { // without a timeout there is no wait
            make_fail("recv", error);
            exchange(timeoutMs);
            EXPECT_EQ(log.take(), Texts(timeoutMs == 0 ? 301 : logged, "error " + text));
        }
    }
}
