// channel_fixture.h - GoogleTest fixture that plays the scenarios of scenario.h.
#ifndef CHANNEL_FIXTURE_H
#define CHANNEL_FIXTURE_H

#include "log_capture.h"
#include "scenario.h"

using namespace std::string_literals;

// Joins all words with single blanks and replaces a NUL by "~".
inline std::string one_line(std::string text)
{
    std::replace(text.begin(), text.end(), '\0', '~');
    std::istringstream words(text);
    std::string line;
    for (std::string word; words >> word;)
        line += (line.empty() ? "" : " ") + word;
    return line;
}

inline std::string joined(const Texts &texts)
{
    std::string all;
    for (Text each : texts)
        all += (all.empty() ? "" : ", ") + one_line(each);
    return all;
}

static void remove_handlers(int id)
{
    tv_register_resp_handler(id, nullptr);
    tv_register_timeout_handler(id, nullptr);
    tv_register_linkdown_callback(id, nullptr);
}

struct ChannelTest : testing::Test {
    LogCapture log;
    Texts logged; // by the previous line

    ChannelTest()
    {
        static Fault chosen = {{}, {ECONNREFUSED}, ANY, ""};
        injection = {&chosen, ECONNREFUSED, 1, true};
        chosen.calls.clear();
        verbs["fail"] = [](const Step &s) { chosen.calls = {s.a}; };
        verbs["remove_handlers"] = [](const Step &s) { remove_handlers(s.id); };
        verbs["logged"] = [this](const Step &s) { EXPECT_EQ(joined(logged), one_line(s.words)); };
        verbs["last_logged"] = [this](const Step &s) {
            EXPECT_EQ(one_line(logged.back()), one_line(s.words));
        };
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
        std::vector<std::pair<std::string, std::string>> parts; // steps and expected notes
        for (std::string line; std::getline(lines, line);) {
            const size_t arrow = std::min(line.find("=>"), line.size());
            const std::string steps = one_line(line.substr(0, arrow));
            if (!steps.empty() || parts.empty())
                parts.emplace_back(steps, "");
            parts.back().second += line.substr(std::min(arrow + 2, line.size())) + " ";
        }
        for (const auto &[steps, wanted] : parts) {
            run(steps);
            logged = log.take();
            const std::string notes = happened();
            EXPECT_EQ(notes, one_line(wanted) == "..." ? notes : one_line(wanted)) << steps;
        }
    }
};

#endif
