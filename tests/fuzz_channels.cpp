// fuzz_channels.cpp - any text as a scenario, while one kind of the library's calls may fail.
//
// Input: which call fails in which way, from which one on, once or lasting; whether there is a log,
// and whether a link that is down is closed; then the text.

#include "scenario.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 3)
        return 0;
    const unsigned number = data[0] % 64 - 1;
    active = number < std::size(faults) ? &faults[number] : nullptr;
    way = active == nullptr ? 0 : active->ways[data[0] / 64 % active->ways.size()];
    target = data[1];
    lasting = data[2] & 1;
    careless = data[2] & 2;
    tv_set_log_file(data[2] & 4 ? "/dev/null" : "");
    lenient = true;
    begin();
    run({(const char *)data + 3, size - 3});
    end();
    return 0;
}
