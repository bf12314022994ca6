// test_frame.cpp - frames that fail between two connected descriptors, and peers that are slow. Whole
// frames, and streams of any bytes, are the matter of fuzz_frame.cpp.

#include "simulated_os.h"
#include "log_capture.h"

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
    EXPECT_TRUE(body != nullptr || len == 0 || len == INT_MAX); // for which there is no memory
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
        recvMs = 0;
    }

    LogCapture log;
};

TEST_F(Frame, FailuresOfTheHeaderTheBudgetTheLengthAndThePeer)
{
    for (const char *const bytes : {"TCP_WATER_MARX", "TCP_WATER_MARK"}) {
        peer_writes(frame("").replace(0, 14, bytes).replace(32, 1, "\x80"));
        EXPECT_EQ(receive(patience), none);
    }
    EXPECT_EQ(receive(10), none);
    peer_writes(frame("").replace(32, 4, "\x7f\xff\xff\xff"));
    EXPECT_EQ(receive(10), none);
    EXPECT_LOG({"tcp_impl_receive, invalid watermark",
                "tcp_impl_receive, invalid length[2147483648]",
                "_impl_receive_with_timeout failed ", "tcp_impl_receive, failed on receive header",
                "tcp_impl_receive, failed on malloc"});

    EXPECT_EQ(send("ping", 4, 0), -1);
    EXPECT_EQ(send("ping", 4, -1), -1);
    EXPECT_EQ(send("ping", -1, patience), -1);
    char byte;
    EXPECT_EQ(recv(ends[1], &byte, 1, MSG_DONTWAIT), -1); // nothing was sent
    EXPECT_LOG({"time out:0", "tcp_impl_send, failed on send header", "time out:-1",
                "tcp_impl_send, failed on send header", "tcp_impl_send, negative length[-1]"});

    EXPECT_EQ(send(std::string(3000000, 'x'), 3000000, 10), -1);
    peer_writes(frame("ping").substr(0, 38));
    shutdown(ends[1], SHUT_RDWR);
    EXPECT_EQ(send("ping", 4, patience), -1); // and no SIGPIPE
    EXPECT_EQ(receive(patience), none);
    EXPECT_LOG({"failed", "tcp_impl_send, failed on send msg, len[3000000]",
                "failed send error:Broken pipe", "tcp_impl_send, failed on send header",
                "the remote peer closed", "tcp_impl_receive, failed on receive msg, len[4]"});
}

// The limit is for waits and, from the second recv() on, for work; without one nothing is waited for.
TEST_F(Frame, ALimitIsForTheHeaderAndTheBodyOfAFrame)
{
    const int drop = 12, dropMs = 40;
    const std::string body(36, 'x');
    for (const int timeoutMs : {0, 240, 239, 199, 100}) {
        std::string drops = frame(body);
        meanwhile = [&](int limit) {
            if (limit < dropMs)
                return false;
            now += dropMs;
            peer_writes(drops.substr(0, drop));
            drops.erase(0, drop);
            return true;
        };
        const size_t unsent = timeoutMs == 0 ? 0 : drops.size() - timeoutMs / dropMs * drop;
        EXPECT_EQ(receive(timeoutMs), unsent == 0 ? body : none);
        EXPECT_EQ(drops.size(), unsent);
    }

    recvMs = 10;
    const std::string large(550000, 'x');
    for (const int timeoutMs : {0, 41, 40}) {
        std::string rest = frame(large);
        meanwhile = [&](int) { // six pieces
            peer_writes(rest.substr(0, 100000));
            rest.erase(0, 100000);
            return true;
        };
        EXPECT_EQ(receive(timeoutMs), timeoutMs == 40 ? none : large);
    }
}
