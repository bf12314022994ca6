// fuzz_replay.cpp - the main() of a fuzz target without libFuzzer: every file in the folder that is
// named is one input.

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdint.h>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int, char **argv)
{
    bool empty = true;
    for (const auto &entry : std::filesystem::directory_iterator(argv[1])) {
        std::ifstream file(entry.path(), std::ios::binary);
        const std::string input(std::istreambuf_iterator<char>(file), {});
        LLVMFuzzerTestOneInput((const uint8_t *)input.data(), input.size());
        empty = false;
    }
    return empty;
}
