// test_scenarios.cpp - plays the scenarios of tests/scenarios, each as a test of its own.

#include "channel_fixture.h"

static const struct Suite {
    const char *name, *file, *start; // the start precedes each scenario of the file
} suites[] = {
    // A client's peer sends no login. It skips that number, so that both kinds of peer count alike.
    {"OnAClient", "link.txt", "create_client; connect; drop_frames 1 => ...\n"},
    {"OnAPair", "link.txt", "peer_logs_in tcp://link:7 => ...\n"},
    {"Client", "client.txt", ""},
    {"Server", "server.txt", ""},
    {"Loop", "loop.txt", ""},
};

struct ScenarioTest : ChannelTest {
    explicit ScenarioTest(Text steps) : steps(steps) {}
    void TestBody() override { play(steps); }
    const std::string steps;
};

int main(int argc, char **argv)
{
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
