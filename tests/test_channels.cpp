// test_channels.cpp - plays the scenarios of tests/scenarios, each as a test of its own, and tests
// what they cannot express: records and lists that an application has changed itself.

#include "log_capture.h"
#include "scenario.h"

#include <fnmatch.h>

// Joins all words but arrows with single blanks, and shows a 0x00 as "~".
static std::string one_line(std::string text)
{
    std::replace(text.begin(), text.end(), '\0', '~');
    std::istringstream words(text);
    std::string line;
    for (std::string word; words >> word;)
        line += word == "=>" ? "" : (line.empty() ? "" : " ") + word;
    return line;
}

static std::string joined(const Texts &texts)
{
    std::string all;
    for (Text each : texts)
        all += (all.empty() ? "" : ", ") + one_line(each);
    return all;
}

// ---- the verbs that only these tests know

static Texts logged; // by the previous line
static Fault chosenFault = {{}, {ECONNREFUSED}, ANY, ""};

static void expect_logged(Text log, Text words)
{
    const std::string wanted = one_line(words);
    const bool matches = fnmatch(wanted.c_str(), log.c_str(), 0) == 0;
    EXPECT_EQ(matches ? wanted : log, wanted);
}

// From now on 301 calls of the function fail.
static void fail(Text call, Text way)
{
    chosenFault.calls = {call};
    injection = {&chosenFault, ECONNREFUSED, 1, true};
    if (way != "")
        injection.way = way == "EINTR" ? EINTR : EAGAIN;
}

// The peer sends a reply of that size all at once.
static void buffer_large(Link &link, int size)
{
    const int room = 2 * size;
    __real_setsockopt(link.peerFd, SOL_SOCKET, SO_SNDBUF, &room, sizeof(room));
    std::string reply = message(link.sent++, "reply", link.url, marker);
    reply.resize(size, 'x');
    send_bytes(link, frame(reply));
}

static void receive(int id)
{
    int length = -7;
    tv_impl_free_msg(tcp_impl_receive(tv_get_polling_fd(id), &length));
    note("received " + std::to_string(length));
}

static void remove_handlers(int id)
{
    tv_register_resp_handler(id, nullptr);
    tv_register_timeout_handler(id, nullptr);
    tv_register_linkdown_callback(id, nullptr);
}

// Takes a channel from the repository and puts another one with its id there.
static void replace_record(int id)
{
    tv_remove_channel(tv_get_channel(id));
    tv_channel *const other = (tv_channel *)malloc(sizeof(tv_channel));
    init_channel(other, id);
    tv_add_channel(other);
}

// While the library waits, the peer sends the next piece of the bytes every 40 ms.
static void trickle(Link &link, Text bytes)
{
    const size_t piece = bytes.size() / 6 + 1;
    size_t sent = 0;
    meanwhile = [&](int limit) {
        if (limit < 40)
            return false;
        now += 40;
        send_bytes(link, bytes.substr(sent, piece));
        sent += piece;
        return true;
    };
    serve(link.channelId);
    meanwhile = nullptr;
}

static void list_clients(int room)
{
    std::vector<int> fds(room + 1, -1);
    tv_get_all_client_fds(fds.data(), room);
    std::string labels;
    for (const int fd : fds)
        labels += fd == -1 ? "" : " " + owners[pairIds[fd]]->label;
    note("clients" + labels);
}

static void list_descriptors(int size)
{
    struct pollfd list[TV_MAX_POLLING_FDS];
    std::string fds;
    for (int i = 0, count = build_polling_fd_list(list, size); i < count; i++)
        fds += list[i].fd < 500 || list[i].events != POLLIN ? "" : " " + std::to_string(list[i].fd);
    note("descriptors" + fds);
}

// Calls the operation with each number from the first word to the second.
static Act each(int (*operation)(int number))
{
    return call([operation](const Step &s) {
        int result = 0;
        for (int i = s.m; i <= (s.b.empty() ? s.m : s.n); i++)
            result += operation(i);
        return result;
    });
}

static std::map<std::string, Act> testVerbs = {
    {"logged", [](const Step &s) { expect_logged(joined(logged), s.words); }},
    {"last_logged", [](const Step &s) { expect_logged(one_line(logged.back()), s.words); }},
    {"peer_trickles", [](const Step &s) { trickle(s.link, next_frame(s.link, s.a, s.b)); }},
    {"peer_buffers_large", [](const Step &s) { buffer_large(s.link, s.m); }},
    {"receive", [](const Step &s) { receive(s.id); }},
    {"fail", [](const Step &s) { fail(s.a, s.b); }},
    {"remove_handlers", [](const Step &s) { remove_handlers(s.id); }},
    {"replace_record", [](const Step &s) { replace_record(s.id); }},
    {"add_empty_entry", [](const Step &) { add_channel(&tv_service_server.pairList, nullptr); }},
    {"list_clients", [](const Step &s) { list_clients(s.m); }},
    {"list_descriptors", [](const Step &s) { list_descriptors(s.m); }},
    {"register", each([](int fd) { return tv_register_polling_fd(fd, nullptr, 0, 0); })},
    {"unregister", each(tv_unregister_polling_fd)},
    {"add_actors", each([](int) { return tv_register_actor(current->channelId, nullptr); })},
    {"find_server",
     [](const Step &) { note(tv_get_server_polling_fd() == -1 ? "no server" : "server"); }},
};

// ---- playing a scenario

struct ChannelTest : testing::Test {
    LogCapture log;

    ChannelTest()
    {
        injection = {&chosenFault, ECONNREFUSED, 1, true};
        chosenFault.calls.clear();
        begin();
        log.take();
    }
    ~ChannelTest() override
    {
        EXPECT_EQ(happened(), "");
        end();
    }

    static std::string happened() // since the last call
    {
        note("");
        notes.pop_back();
        return joined(std::exchange(notes, {}));
    }
    void play(Text scenario)
    {
        std::istringstream lines(scenario);
        for (std::string line, more; std::getline(lines, line);) {
            while ((lines >> std::ws).peek() == '=' && std::getline(lines, more))
                line += " " + more;
            const size_t arrow = std::min(line.find("=>"), line.size());
            const std::string wanted = one_line(line.substr(arrow));
            run(line.substr(0, arrow));
            logged = log.take();
            const std::string notes = happened();
            EXPECT_EQ(notes, wanted == "..." ? notes : wanted) << line;
        }
    }
};

struct ScenarioTest : ChannelTest {
    explicit ScenarioTest(Text steps) : steps(steps) {}
    void TestBody() override { play(steps); }
    const std::string steps;
};

static const struct Suite {
    const char *name, *file, *start; // the start precedes each scenario of the file
} suites[] = {
    // A client's peer sends no login. It skips that number, so that both kinds of peer count alike.
    {"OnAClient", "link.txt", "create_client; connect; peer_skips 1 => ...\n"},
    {"OnAPair", "link.txt", "peer_logs_in tcp://link:7 => ...\n"},
    {"Client", "client.txt", ""},
    {"Server", "server.txt", ""},
    {"Loop", "loop.txt", ""},
};

int main(int argc, char **argv)
{
    verbs.merge(testVerbs);
    for (const Suite &suite : suites) {
        for (const auto &[name, steps] : read_scenarios(suite.file)) {
            testing::RegisterTest(
                suite.name, name.c_str(), nullptr, nullptr, suite.file, 0,
                [all = suite.start + steps]() -> ChannelTest * { return new ScenarioTest(all); });
        }
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}

// ---- what scenarios cannot express

using Server = ChannelTest;
using Loop = ChannelTest;

TEST_F(Server, ARestartUsesItsOwnHandlers)
{
    EXPECT_EQ(tv_start_server("", 0), -1);
    EXPECT_LOG({"tv_start_service_server, a server is running already"});
    EXPECT_EQ(tv_get_server_polling_fd(), tv_get_polling_fd(serverId));
    const int id = tv_get_channel_id();
    play(R"(
        stop_server
        fail bind
        start_server                        => start_server: -1
        last_logged impl_create_server_socket, failed on bind
        fail nothing)");
    const auto onResponse = [](int, const char *, int) {};
    const auto onTimeout = [](int) {};
    serverId =
        tv_start_service_server(tv_service_server.listenIp, 0, onResponse, onTimeout, nullptr);
    EXPECT_EQ(serverId, id + 2); // a failed start uses up an id
    EXPECT_EQ(tv_get_channel(serverId)->respHandler, onResponse);
    EXPECT_EQ(tv_get_channel(serverId)->timeoutHandler, onTimeout);
    EXPECT_STREQ(tv_service_server.listenIp, "127.0.0.1");
    play("peer_logs_in tcp://e:1 => fd_open");   // the start has cleared the connected callback
    tv_remove_channel(tv_get_channel(serverId)); // cannot be closed by its id any more
    play("stop_server => fd_close, peer_got EOF");
}

TEST_F(Server, WithoutCallbacksPairsComeAndGoSilently)
{
    tv_register_client_fd_open_callback(nullptr);
    tv_register_client_fd_close_callback(nullptr);
    play("a: accept");
    tv_service_enable_heartbeat(100, 1, nullptr);
    tv_channel *const pair = ((tv_channel_node *)tv_service_server.pairList.next)->channel;
    int fd = pair->pairSocket->fd;
    EXPECT_EQ(tv_service_server.serverChannel->linkdownCallback, nullptr);
    pair->hbSequence = pair->hbMissCount = 9;
    tv_service_enable_heartbeat(0, 1, nullptr); // starts no timer, but counts from 0 again
    EXPECT_TRUE(pair->hbSequence == 0 && pair->hbMissCount == 0);
    log.take();
    close_channel(pair);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    EXPECT_TRUE(pair->hbTimerId == -1 && pair->hbMode == TV_HEARTBEAT_OFF && pair->hbCount == 0);
    EXPECT_EQ(tv_pair_fd_handler(-1, 0, 0), 0);
    EXPECT_EQ(tv_get_all_client_fds(&fd, 1), 0);
    EXPECT_LOG({"internal list error, should never reach here",
                "could not find channel with fd[-1]", "internal data error"});
    EXPECT_EQ(server_remove_channel(pair), 0);
    EXPECT_EQ(server_remove_channel(pair), 1);
    tv_close_client_connection(pair->channelId);
    play("=> a: peer_got EOF");
}

TEST_F(Server, OperationsOnPairsReturnTheirResults)
{
    EXPECT_EQ(tv_register_connected_callback(0, nullptr), 0);
    EXPECT_EQ(tv_register_disconnected_callback(0, nullptr), 0);
    EXPECT_EQ(tv_register_client_fd_open_callback([](int fd) {
                  tv_close_channel(
                      ((tv_channel_node *)tv_service_server.pairList.prev)->channel->channelId);
                  EXPECT_EQ(fcntl(fd, F_GETFD), -1);
              }),
              0);
    EXPECT_EQ(tv_register_client_fd_close_callback(nullptr), 0);
    EXPECT_EQ(create_pair_channel(dup(0)), -1); // closed by the callback
    tv_register_client_fd_open_callback(nullptr);
    remove_handlers(serverId);
    int fds[40]; // more than are looked up without the index
    for (int &fd : fds)
        EXPECT_EQ(create_pair_channel(fd = dup(0)), 0);
    for (const int fd : fds) {
        log.take();
        EXPECT_EQ(tv_pair_fd_handler(fd, 0, 0), 0);
        EXPECT_NE(log.take().back(), "could not find channel with fd[" + std::to_string(fd) + "]");
    }
    EXPECT_EQ(tv_pair_fd_handler(-1, 0, 0), 0);
    EXPECT_EQ(log.take().back(), "could not find channel with fd[-1]");
    tv_channel *const pair = ((tv_channel_node *)tv_service_server.pairList.next)->channel;
    EXPECT_EQ(update_pair_channel(pair, "tcp://a:1"), 0);
    const auto copy = [](Text msg) { return (char *)count_block(strdup(msg.c_str())); };
    EXPECT_EQ(login_msg_received(pair, copy("0\nno login")), 0);
    EXPECT_EQ(login_msg_received(pair, copy(message(0, "login", "", marker + "b"))), 0);
    EXPECT_STREQ(pair->url, "b");
    EXPECT_EQ(logout_msg_received(pair, copy("1\nno logout")), 0);
}

TEST_F(Server, ChannelsThatFindNoMemoryAreNotCreated)
{
    const tv_client_addr address = {"127.0.0.1", "link", 80, 7};
    stop_server();
    log.take();
    chosenFault.calls = {"malloc"};
    for (int first = 2; first > 0; first--) { // the socket, then the record too
        injection = {&chosenFault, ECONNREFUSED, first, true};
        EXPECT_EQ(tv_create_client_channel(&address), -1);
        injection.calls = 0;
        EXPECT_EQ(tv_start_server("127.0.0.1", 0), -1);
    }
    EXPECT_LOG({"malloc error in function create_client_channel",
                "malloc error in function create_server_channel"});
    chosenFault.calls = {"calloc"}; // the entry in the repository
    injection.calls = 0;
    EXPECT_EQ(tv_create_client_channel(&address), -1);
    EXPECT_EQ(tv_start_server("127.0.0.1", 0), -1);
    EXPECT_EQ(log.take().back(), "malloc error in function tv_start_service_server");
    chosenFault.calls.clear();
}

TEST_F(Loop, FiresTimersAndServesReadyDescriptorsInSlotOrder)
{
    stop_server(); // and leave the first slot free
    static std::string served;
    const auto handle = [](int, intptr_t name, intptr_t negative) {
        served += std::to_string(name + 10 * negative) + " ";
        return -1; // ignored
    };
    const int low = eventfd(1, 0), high = eventfd(1, 0), closed = 400;
    const int order[] = {high, low, closed, high}; // not the order of their numbers
    for (int i = 0; i < 4; i++)
        tv_register_polling_fd(order[i], handle, i, -i);
    ruvo_start_timer(
        1, [](intptr_t a, intptr_t b) { served += std::to_string(a + b) + " "; }, 70, 7);
    run("be_busy 1; advance 4");
    EXPECT_EQ(served, "77 0 -9 -18 0 ");                // the lower slot serves both
    EXPECT_EQ(lastPerror, "poll: Bad file descriptor"); // how the simulated loop ends
    for (const int fd : order)
        tv_unregister_polling_fd(fd);
    close(low);
    close(high);
}
