// test_frame.cpp - failed frames and slow peers on a socket pair and the simulated clock.
// fuzz_frame.cpp covers whole frames and arbitrary bytes.

#include "log_capture.h"
#include "simulated_os.h"

static const int patience = 30000;
static const std::string none = "(null)";

static int ends[2]; // the library's, and its peer's

static int send(const std::string &body, int len, int timeoutMs)
{
    return tcp_impl_send_with_timeout(ends[0], body.data(), len, timeoutMs);
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
        fault.calls = {call};
        injection = {&fault, way, 1, true};
        injecting = true;
    }

    Fault fault = {};
    LogCapture log;
};

TEST_F(Frame, BadHeadersLengthsTimeoutsAndPeersFail)
{
    const std::pair<std::string, Texts> received[] = {
        {"", {"_impl_receive_with_timeout failed ", "tcp_impl_receive, failed on receive header"}},
        {frame("").replace(0, 14, "TCP_WATER_MARX"), {"tcp_impl_receive, invalid watermark"}},
        {frame("").replace(32, 1, "\x80"), {"tcp_impl_receive, invalid length[2147483648]"}},
        {frame("").replace(32, 4, "\x7f\xff\xff\xff"), {"tcp_impl_receive, failed on malloc"}},
    };
    for (const auto &[bytes, entries] : received) {
        peer_writes(bytes);
        EXPECT_EQ(receive(10), none);
        EXPECT_EQ(log.take(), entries);
    }
    EXPECT_EQ(send("ping", 4, 0), -1);
    EXPECT_EQ(send("ping", -1, patience), -1);
    char byte;
    EXPECT_EQ(recv(ends[1], &byte, 1, MSG_DONTWAIT), -1); // nothing was sent
    EXPECT_LOG({"time out:0", "tcp_impl_send, failed on send header",
                "tcp_impl_send, negative length[-1]"});

    EXPECT_EQ(send(std::string(3000000, 'x'), 3000000, 10), -1);
    peer_writes(frame("ping").substr(0, 38));
    shutdown(ends[1], SHUT_RDWR);
    EXPECT_EQ(send("ping", 4, patience), -1); // and no SIGPIPE
    EXPECT_EQ(receive(patience), none);
    EXPECT_LOG({"failed", "tcp_impl_send, failed on send msg, len[3000000]",
                "failed send error:Broken pipe", "tcp_impl_send, failed on send header",
                "the remote peer closed", "tcp_impl_receive, failed on receive msg, len[4]"});
}

TEST_F(Frame, OneDeadlineCoversHeaderAndBody)
{
    const std::string body(36, 'x');
    std::string unsent;
    meanwhile = [&unsent](int limit) { // the peer sends twelve bytes every 40 ms
        if (limit < 40)
            return false;
        now += 40;
        peer_writes(unsent.substr(0, 12));
        unsent.erase(0, 12);
        return true;
    };
    for (const int timeoutMs : {0, 240, 239, 199, 100}) {
        unsent = frame(body);
        const size_t left = timeoutMs == 0 ? 0 : 72 - timeoutMs / 40 * 12;
        EXPECT_EQ(receive(timeoutMs), left == 0 ? body : none);
        EXPECT_EQ(unsent.size(), left);
    }
    EXPECT_EQ(log.take().size(), 6 + 3 * 2); // each EAGAIN of the first one, and the failures
    meanwhile = [](int limit) {              // the peer makes some room at the deadline
        char taken[400000];
        now += limit;
        return read(ends[1], taken, sizeof(taken)) > 0;
    };
    EXPECT_EQ(send(std::string(3000000, 'x'), 3000000, 10), -1);
    EXPECT_LOG({"time out:0", "tcp_impl_send, failed on send msg, len[3000000]"});
}

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

TEST_F(Frame, ATryComesBeforeAWaitAndItsEagainIsNotLogged)
{
    const auto exchange = [] {
        EXPECT_EQ(send("ping", 4, patience), 4);
        peer_writes(frame("pong"));
        EXPECT_EQ(receive(patience), "pong");
    };
    polls = 0;
    exchange();
    EXPECT_EQ(polls, 0);
    EXPECT_LOG({});
    for (const std::string call : {"send", "recv"}) {
        for (const int error : {EAGAIN, EINTR}) {
            make_fail(call.c_str(), error);
            exchange();
            const std::string text = (call == "send" ? "send error: " : "error "),
                              entry = text + strerror(error) + " continue";
            EXPECT_EQ(log.take(), Texts(error == EAGAIN ? 300 : 301, entry));
        }
    }
}
