// fuzz_replay.cpp - main() of a fuzz target built without libFuzzer: runs each line of a corpus
// file as one input. corpus.py describes the format.

#include "require.h"

#include <fstream>
#include <stdint.h>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int, char **argv)
{
    std::ifstream file(argv[1]);
    REQUIRE(file.peek() != EOF); // neither missing nor empty
    for (std::string line; std::getline(file, line);) {
        for (size_t i = 0; (i = line.find('\\', i)) != std::string::npos; i++) {
            if (line[i + 1] == 'n')
                line.replace(i, 2, "\n");
            else // \x and two digits
                line.replace(i, 4, 1, (char)std::stoi(line.substr(i + 2, 2), nullptr, 16));
        }
        LLVMFuzzerTestOneInput((const uint8_t *)line.data(), line.size());
    }
    return 0;
}
