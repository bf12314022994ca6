// fuzz_channels.cpp - plays any text as a scenario, while calls of the library may fail.
//
// Input: a letter for the fault ('A' is the first one; other characters: none), then three digits,
// then a scenario. The digits are the way the call fails, the first call that fails, and a sum of
// options (1: the next 300 calls fail, too; 2: close a channel whose link is down; 4: write a log).
// A word that is not a verb means the next verb in the alphabet.

#include "scenario.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 4)
        return 0;
    anyVerb = true;
    injection = {};
    const size_t number = data[0] - 'A';
    if (number < std::size(faults)) {
        injection.fault = &faults[number];
        injection.way = faults[number].ways[data[1] % faults[number].ways.size()];
    }
    injection.first = data[2] - '0';
    injection.lasting = data[3] & 1;
    closesOnLinkDown = data[3] & 2;
    tv_set_log_file(data[3] & 4 ? "/dev/null" : "");
    begin();
    run({(const char *)data + 4, size - 4});
    end();
    return 0;
}
