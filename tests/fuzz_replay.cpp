// fuzz_replay.cpp - the main() of a fuzz target without libFuzzer: every file below the folders
// that are named is one input.

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdint.h>
#include <stdio.h>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv)
{
    int inputs = 0;
    for (int i = 1; i < argc; i++) {
        for (const auto &entry : std::filesystem::recursive_directory_iterator(argv[i])) {
            std::ifstream file(entry.path(), std::ios::binary);
            const std::string input((std::istreambuf_iterator<char>(file)), {});
            LLVMFuzzerTestOneInput((const uint8_t *)input.data(), input.size());
            inputs++;
        }
    }
    printf("%d inputs replayed\n", inputs);
    return inputs > 0 ? 0 : 1;
}
