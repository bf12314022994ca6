// channel_fixture.h - scenarios as tests: parts of them, each with all that it brings about.
//
//     play(R"(
//         a: login tcp://a:1  => a: fd-open, a: connected tcp://a:1;
//         ask ping 100        => a: hears request ping;
//         in resp ask pong 0 & close;
//         gets reply pong     => a: resp pong, a: hears request pong, a: fd-close, a: hears the end)");
#ifndef CHANNEL_FIXTURE_H
#define CHANNEL_FIXTURE_H

#include "log_capture.h"
#include "scenario.h"

using namespace std::string_literals;

// The same words in one line, a NUL as "~".
inline std::string squeeze(std::string text)
{
    std::replace(text.begin(), text.end(), '\0', '~');
    std::istringstream words(text);
    std::string line;
    for (std::string word; words >> word;)
        line += (line.empty() ? "" : " ") + word;
    return line;
}

struct ChannelTest : testing::Test {
    LogCapture log;
    Texts logged; // by the part before

    ChannelTest()
    {
        static fault chosen = {"", {ECONNREFUSED}, EITHER, ""};
        active = &chosen;
        way = chosen.ways[0];
        target = lasting = careless = true;
        verbs["fail"] = [](Step s) { chosen.calls = " " + s.a + " "; }; // a call, from now on
        verbs["log"] = [this](Step) { notes.insert(notes.end(), logged.begin(), logged.end()); };
        chosen.calls.clear();
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
        std::string all;
        for (Text each : std::exchange(notes, {}))
            all += (all.empty() ? "" : ", ") + squeeze(each);
        return all;
    }
    void prepare(Text part) // what it brings about is left unseen
    {
        run(part);
        happened();
        log.take();
    }
    void play(Text scenario)
    {
        std::istringstream parts(scenario);
        for (std::string part; std::getline(parts, part, ';');) {
            const size_t arrow = std::min(part.find("=>"), part.size());
            run(part.substr(0, arrow));
            logged = log.take();
            const std::string wanted = arrow == part.size() ? "" : part.substr(arrow + 2);
            EXPECT_EQ(happened(), squeeze(wanted)) << part;
        }
    }
};

#endif
