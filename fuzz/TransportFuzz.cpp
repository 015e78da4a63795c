// SPDX-License-Identifier: MIT
// The transport's read bookkeeping against a device whose transfers the
// input describes. The device sends a known byte stream, so every read that
// succeeds can be checked: its bytes must be the next ones of the stream
// after what earlier reads took or lost.

#include <libusb.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "fuzz/CameraFamilies.h"
#include "usb/BulkIn.h"

namespace {

constexpr unsigned int maxRead = 2u << 20;
// Bytes the device sends in one input at most, so that every input stays quick.
constexpr uint64_t maxStream = 16u << 20;
// The device sends position % period at each position: a prime, so that a
// byte handed out from the wrong place, by a packet or a piece, shows.
constexpr unsigned int period = 251;

// The stream from any position on, for any transfer or read.
const uint8_t* StreamAt(uint64_t position)
{
    static const std::vector<uint8_t> pattern = [] {
        std::vector<uint8_t> bytes(maxRead + period);
        for (size_t i = 0; i < bytes.size(); ++i)
            bytes[i] = static_cast<uint8_t>(i % period);
        return bytes;
    }();
    return pattern.data() + position % period;
}

// Each transfer takes a control byte: bits 0-1 the result (OK, stall,
// time-out, OK), bit 2 a full transfer, else a count byte follows (times 64
// with bit 3). Transfers behave as USB allows: never more than asked.
class ScriptedEndpoint : public BulkInEndpoint {
public:
    ScriptedEndpoint(const uint8_t* data, size_t size) : script(data), end(data + size) {}

    bool More() const { return script < end && sent < maxStream; }
    uint8_t Next() { return script < end ? *script++ : 0; }
    uint64_t Sent() const { return sent; }

    int Transfer(unsigned char* data, unsigned int len, int* received) override
    {
        *received = 0;
        if (!More())
            return LIBUSB_ERROR_TIMEOUT;
        const uint8_t control = Next();
        unsigned int count = len;
        if (!(control & 4))
            count = std::min(len, static_cast<unsigned int>(Next()) * ((control & 8) ? 64u : 1u));
        static const int results[] = {0, LIBUSB_ERROR_PIPE, LIBUSB_ERROR_TIMEOUT, 0};
        const int result = results[control & 3];
        // A short packet ends a transfer with success: a failed one brings
        // whole packets only, and none when it asked for a single one.
        if (result != 0) {
            const unsigned int partial = std::min(count, len - 1);
            count = partial - partial % bulkin::packetSize;
        }
        std::memcpy(data, StreamAt(sent), count);
        sent += count;
        *received = static_cast<int>(count);
        return result;
    }
    void ClearHalt() override {}

private:
    const uint8_t* script;
    const uint8_t* end;
    uint64_t sent = 0;
};

[[noreturn]] void Broken(const char* what, uint64_t position)
{
    std::fprintf(stderr, "transport: %s at stream position %llu\n", what,
                 static_cast<unsigned long long>(position));
    std::abort();
}

// The residue is always the newest bytes the device sent.
void CheckResidue(const std::vector<unsigned char>& residue, uint64_t sent)
{
    if (residue.size() > sent)
        Broken("residue longer than what was sent", sent);
    const uint64_t start = sent - residue.size();
    if (!residue.empty() && std::memcmp(residue.data(), StreamAt(start), residue.size()) != 0)
        Broken("residue differs from the stream", start);
}

} // namespace

// Each read takes three bytes: bit 0 of the first multiplies the 16-bit
// length that follows by 32, so that large reads span several pieces.
void RunTransport(const uint8_t* data, size_t size)
{
    ScriptedEndpoint endpoint(data, size);
    std::vector<unsigned char> residue;
    static std::vector<unsigned char> buffer(maxRead);
    while (endpoint.More()) {
        const uint8_t options = endpoint.Next();
        unsigned int len = endpoint.Next();
        len |= static_cast<unsigned int>(endpoint.Next()) << 8;
        if (options & 1)
            len = std::min(len * 32, maxRead);
        // No stream byte is 0xFF: a byte the read never wrote shows.
        std::memset(buffer.data(), 0xFF, len);
        const uint64_t start = endpoint.Sent() - residue.size();
        if (bulkin::ReadWhole(endpoint, residue, buffer.data(), len, 5)) {
            if (endpoint.Sent() - residue.size() != start + len)
                Broken("a read took more or less than asked", start);
            if (len > 0 && std::memcmp(buffer.data(), StreamAt(start), len) != 0)
                Broken("a read handed out other bytes than the stream's", start);
        }
        CheckResidue(residue, endpoint.Sent());
    }
}
