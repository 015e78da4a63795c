// SPDX-License-Identifier: MIT
// Without libFuzzer: replays every file given on the command line (a
// directory stands for the files in it), then runs a fixed-seed mutation
// series over those inputs, so that the ordinary test run exercises the
// readers with thousands of broken conversations.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>

#include "fuzz/CameraFamilies.h"

namespace {

std::vector<uint8_t> ReadFile(const std::filesystem::path& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

// Outside the fuzzing build a general error costs a 300 ms wait per retry:
// inputs that may hold one stay out of the series.
bool MayHoldGeneralError(const std::vector<uint8_t>& input)
{
    const uint8_t code[] = {0x02, 0x20};
    return std::search(input.begin(), input.end(), std::begin(code), std::end(code)) != input.end();
}

} // namespace

int main(int argc, char** argv)
{
    std::vector<std::filesystem::path> files;
    for (int i = 1; i < argc; ++i) {
        if (std::filesystem::is_directory(argv[i])) {
            for (const auto& entry : std::filesystem::directory_iterator(argv[i]))
                if (entry.is_regular_file())
                    files.push_back(entry.path());
        } else {
            files.emplace_back(argv[i]);
        }
    }
    std::sort(files.begin(), files.end());

    std::vector<std::vector<uint8_t>> quick;
    for (const auto& file : files) {
        std::vector<uint8_t> input = ReadFile(file);
        RunInput(input.data(), input.size());
        if (input.size() > 2 && !FamilyPolls(FamilyOf(input[0])) && !MayHoldGeneralError(input))
            quick.push_back(std::move(input));
    }
    if (quick.empty()) {
        std::fprintf(stderr, "no input to mutate: give the corpus directory\n");
        return 1;
    }

    // The family byte stays, so that no mutant turns into a polling family.
    std::mt19937 random(20261122);
    const int rounds = 10000;
    int mutants = 0;
    for (int round = 0; round < rounds; ++round) {
        std::vector<uint8_t> script = quick[random() % quick.size()];
        const int mutations = 1 + static_cast<int>(random() % 8);
        for (int m = 0; m < mutations; ++m) {
            size_t at = 1 + random() % (script.size() - 1);
            switch (random() % 4) {
            case 0: script[at] = static_cast<uint8_t>(random()); break;
            case 1: script.resize(std::max<size_t>(at, 2)); break;
            case 2: script.insert(script.begin() + static_cast<long>(at), static_cast<uint8_t>(random())); break;
            default: script[at] ^= static_cast<uint8_t>(1u << (random() % 8)); break;
            }
        }
        if (MayHoldGeneralError(script))
            continue;
        RunInput(script.data(), script.size());
        ++mutants;
    }
    std::printf("%zu inputs and %d mutants survived\n", files.size(), mutants);
    return 0;
}
