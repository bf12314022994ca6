// fuzz_replay.cpp - main() of a fuzz target built without libFuzzer: runs each line of a corpus
// file as one input. corpus.py describes the format.

#include "require.h"

#include <fstream>
#include <stdint.h>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

static std::string unescaped(const std::string &line)
{
    std::string bytes;
    for (size_t i = 0; i < line.size(); i++) {
        if (line[i] != '\\') {
            bytes += line[i];
        } else if (line[++i] == 'n') {
            bytes += '\n';
        } else { // \x and two digits
            bytes += (char)std::stoi(line.substr(i + 1, 2), nullptr, 16);
            i += 2;
        }
    }
    return bytes;
}

int main(int, char **argv)
{
    std::ifstream file(argv[1]);
    int count = 0;
    for (std::string line; std::getline(file, line); count++) {
        const std::string input = unescaped(line);
        LLVMFuzzerTestOneInput((const uint8_t *)input.data(), input.size());
    }
    printf("%d inputs\n", count);
    REQUIRE(count > 0);
    return 0;
}
