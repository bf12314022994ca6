// fuzz_channels.cpp - any text as a scenario, while a call of the library may fail.
//
// Input: three bytes, which choose a fault and the way it fails; the first call that fails; whether
// it lasts (1), whether a channel is closed when its link is down (2), and whether there is a log (4).
// Then a scenario, in which a word that is no verb stands for the next one in the alphabet.

#include "scenario.h"

static std::string nearest_verb(Text word)
{
    const auto next = verbs.lower_bound(word);
    return next == verbs.end() ? verbs.begin()->first : next->first;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 3)
        return 0;
    find_verb = nearest_verb;
    injection = {};
    const size_t number = data[0] % 64;
    if (number < std::size(faults)) {
        injection.fault = &faults[number];
        injection.way = faults[number].ways[data[0] / 64 % faults[number].ways.size()];
    }
    injection.first = data[1];
    injection.lasting = data[2] & 1;
    closesOnLinkDown = data[2] & 2;
    tv_set_log_file(data[2] & 4 ? "/dev/null" : "");
    begin();
    run({(const char *)data + 3, size - 3});
    end();
    return 0;
}
