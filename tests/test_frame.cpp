// test_frame.cpp - frames that fail between two connected descriptors, with a peer that writes from
// a signal handler where it has to be slow. Whole frames, and streams of any bytes, are the matter
// of fuzz_frame.cpp.

#include "log_capture.h"

#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <string_view>
#include <unistd.h>

static const int patience = 30000; // a bound, never waited for
static const std::string failed = "(null)";

static int ends[2]; // the library's, and its peer's
// What the peer still writes, a third of a header with every signal.
static std::string_view dripping;

static std::string frame(const std::string &body) // of less than 256 bytes
{
    return std::string("TCP_WATER_MARK").append(21, '\0') + (char)body.size() + body;
}

static int send(const std::string &body, int len, int timeoutMs)
{
    return tcp_impl_send_with_timeout(ends[0], body.data(), len, timeoutMs);
}

static std::string receive(int timeoutMs)
{
    int len = 77;
    char *body = timeoutMs == 0 ? tcp_impl_receive(ends[0], &len)
                                : tcp_impl_receive_with_timeout(ends[0], &len, timeoutMs);
    const std::string result = body == nullptr ? failed : std::string(body, len);
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
    }

    LogCapture log;
};

TEST_F(Frame, FailuresOfTheHeaderTheBudgetTheLengthAndThePeer)
{
    for (const char *const bytes : {"TCP_WATER_MARX", "TCP_WATER_MARK"}) {
        peer_writes(frame("").replace(0, 14, bytes).replace(32, 1, "\x80"));
        EXPECT_EQ(receive(patience), failed);
    }
    EXPECT_EQ(receive(10), failed);
    log.expect(
        {"tcp_impl_receive, invalid watermark", "tcp_impl_receive, invalid length[2147483648]",
         "_impl_receive_with_timeout failed ", "tcp_impl_receive, failed on receive header"});
    peer_writes(frame("").replace(32, 4, "\x7f\xff\xff\xff")); // without memory or its body
    EXPECT_EQ(receive(10), failed);
    EXPECT_NE(log.take().back(), "tcp_impl_receive, invalid length[2147483647]");

    EXPECT_EQ(send("ping", 4, 0), -1);
    EXPECT_EQ(send("ping", 4, -1), -1);
    EXPECT_EQ(send("ping", -1, patience), -1);
    char byte;
    EXPECT_EQ(recv(ends[1], &byte, 1, MSG_DONTWAIT), -1); // nothing was sent
    log.expect({"time out:0", "tcp_impl_send, failed on send header", "time out:-1",
                "tcp_impl_send, failed on send header", "tcp_impl_send, negative length[-1]"});

    EXPECT_EQ(send(std::string(3000000, 'x'), 3000000, 10), -1);
    peer_writes(frame("ping").substr(0, 38));
    shutdown(ends[1], SHUT_RDWR);
    EXPECT_EQ(send("ping", 4, patience), -1); // and no SIGPIPE
    EXPECT_EQ(receive(patience), failed);
    log.expect({"failed", "tcp_impl_send, failed on send msg, len[3000000]",
                "failed send error:Broken pipe", "tcp_impl_send, failed on send header",
                "the remote peer closed", "tcp_impl_receive, failed on receive msg, len[4]"});
}

// The limit would do for the header alone, and for the body.
TEST_F(Frame, DrippingAndSignalsCostNoExtraTime)
{
    const int limit = 180, pauseUs = 40000;
    const std::string body(36, 'x'), bytes = frame(body);
    signal(SIGALRM, [](int) {
        dripping.remove_prefix(
            write(ends[1], dripping.data(), std::min((size_t)12, dripping.size())));
    });
    for (const int timeoutMs : {patience, 0, limit}) {
        dripping = bytes;
        ualarm(pauseUs, pauseUs);
        EXPECT_EQ(receive(timeoutMs), timeoutMs == limit ? failed : body);
        ualarm(0, 0);
    }
}
