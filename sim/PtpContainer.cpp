// SPDX-License-Identifier: MIT
#include "sim/PtpContainer.h"

namespace qksim {

uint16_t GetLe16(const uint8_t* p)
{
    return static_cast<uint16_t>(p[0] | (p[1] << 8));
}

uint32_t GetLe32(const uint8_t* p)
{
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
           (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

void PutLe16(std::vector<uint8_t>& out, uint16_t value)
{
    out.push_back(static_cast<uint8_t>(value));
    out.push_back(static_cast<uint8_t>(value >> 8));
}

void PutLe32(std::vector<uint8_t>& out, uint32_t value)
{
    for (int shift = 0; shift < 32; shift += 8)
        out.push_back(static_cast<uint8_t>(value >> shift));
}

std::vector<uint8_t> MakeContainer(uint16_t type, uint16_t code, uint32_t transId,
                                   const std::vector<uint8_t>& payload)
{
    std::vector<uint8_t> out;
    out.reserve(ptp::kHeaderSize + payload.size());
    // A data phase of 4 GiB or more can't be told in the length field; real
    // devices send 0xFFFFFFFF then, and so do we.
    uint64_t total = ptp::kHeaderSize + static_cast<uint64_t>(payload.size());
    PutLe32(out, total > 0xFFFFFFFFu ? 0xFFFFFFFFu : static_cast<uint32_t>(total));
    PutLe16(out, type);
    PutLe16(out, code);
    PutLe32(out, transId);
    out.insert(out.end(), payload.begin(), payload.end());
    return out;
}

std::vector<uint8_t> MakeRawHeader(uint32_t length, uint16_t type, uint16_t code, uint32_t transId,
                                   size_t bytes)
{
    std::vector<uint8_t> out;
    PutLe32(out, length);
    PutLe16(out, type);
    PutLe16(out, code);
    PutLe32(out, transId);
    if (bytes > out.size())
        out.resize(bytes, 0);
    return out;
}

std::vector<uint8_t> MakeParamContainer(uint16_t type, uint16_t code, uint32_t transId,
                                        const std::vector<uint32_t>& params)
{
    std::vector<uint8_t> payload;
    for (size_t i = 0; i < params.size() && i < ptp::kMaxParams; ++i)
        PutLe32(payload, params[i]);
    return MakeContainer(type, code, transId, payload);
}

} // namespace qksim
