// Without libFuzzer: replays every file given on the command line, then runs
// a fixed-seed mutation loop from well-formed replies, so the ordinary test
// run exercises the same entry point with thousands of broken conversations.

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

void Put32(std::vector<uint8_t>& out, uint32_t v)
{
    for (int i = 0; i < 4; ++i)
        out.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

void Container(std::vector<uint8_t>& out, uint16_t type, uint16_t code, const std::vector<uint8_t>& payload)
{
    Put32(out, static_cast<uint32_t>(12 + payload.size()));
    out.push_back(static_cast<uint8_t>(type));
    out.push_back(static_cast<uint8_t>(type >> 8));
    out.push_back(static_cast<uint8_t>(code));
    out.push_back(static_cast<uint8_t>(code >> 8));
    Put32(out, 0);
    out.insert(out.end(), payload.begin(), payload.end());
}

// A conversation in which every transaction gets data and an OK response.
std::vector<uint8_t> WellFormed(uint32_t word, size_t transactions)
{
    std::vector<uint8_t> script;
    std::vector<uint8_t> payload;
    for (int i = 0; i < 4; ++i)
        Put32(payload, word + i);
    payload.push_back(0);
    for (size_t i = 0; i < transactions; ++i) {
        Container(script, 2, 0x9999, payload);
        Container(script, 3, 0x2001, {});
    }
    return script;
}

} // namespace

int main(int argc, char** argv)
{
    for (int i = 1; i < argc; ++i) {
        std::ifstream in(argv[i], std::ios::binary);
        std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    }
    std::mt19937 random(20261122);
    const int rounds = 20000;
    for (int round = 0; round < rounds; ++round) {
        std::vector<uint8_t> script = WellFormed(random() % 4, 1 + random() % 40);
        const int mutations = 1 + static_cast<int>(random() % 8);
        for (int m = 0; m < mutations && !script.empty(); ++m) {
            size_t at = random() % script.size();
            switch (random() % 4) {
            case 0: script[at] = static_cast<uint8_t>(random()); break;
            case 1: script.resize(at); break;
            case 2: script.insert(script.begin() + static_cast<long>(at), static_cast<uint8_t>(random())); break;
            default: script[at] ^= static_cast<uint8_t>(1u << (random() % 8)); break;
            }
        }
        LLVMFuzzerTestOneInput(script.data(), script.size());
    }
    std::printf("%d scripted conversations survived\n", rounds + argc - 1);
    return 0;
}
