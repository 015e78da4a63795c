// SPDX-License-Identifier: MIT
#include "sim/CameraMemory.h"

#include <algorithm>
#include <cstring>

#include "sim/PtpContainer.h"
#include "sim/PtpResponder.h"

namespace qksim {

CameraMemory::CameraMemory(const std::string& model) : statisticsAddress(StatisticsAddress(model))
{
    // Heap start, heap size, three words of the allocator's own, then peak,
    // allocated bytes and block count.
    SetStatistics({0x00000001, 0x001A2B00, 0x00C00000, 0x00000010, 0x00000020, 0x00000030,
                   0x00412000, 0x00301000, 1234});
}

uint32_t CameraMemory::StatisticsAddress(const std::string& model)
{
    if (model == "SX160")
        return 0x10300;
    if (model == "A1400")
        return 0xEF34;
    if (model == "A810")
        return 0xD974;
    return 0x10364;
}

void CameraMemory::SetStatistics(const std::vector<uint32_t>& words)
{
    std::vector<uint8_t> bytes;
    for (uint32_t word : words)
        PutLe32(bytes, word);
    Write(statisticsAddress, std::move(bytes));
}

void CameraMemory::Write(uint32_t address, std::vector<uint8_t> bytes)
{
    std::lock_guard<std::mutex> lock(mutex);
    regions.emplace_back(address, std::move(bytes));
}

std::vector<uint8_t> CameraMemory::Read(uint32_t address, uint32_t length) const
{
    std::lock_guard<std::mutex> lock(mutex);
    std::vector<uint8_t> out(length, 0);
    const uint64_t end = static_cast<uint64_t>(address) + length;
    for (const auto& region : regions) {
        const uint64_t from = std::max<uint64_t>(address, region.first);
        const uint64_t to = std::min<uint64_t>(end, region.first + static_cast<uint64_t>(region.second.size()));
        if (from < to)
            std::memcpy(out.data() + (from - address), region.second.data() + (from - region.first),
                        static_cast<size_t>(to - from));
    }
    return out;
}

std::vector<std::pair<uint32_t, uint32_t>> CameraMemory::Reads() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return reads;
}

void CameraMemory::NoteRead(uint32_t address, uint32_t length)
{
    std::lock_guard<std::mutex> lock(mutex);
    reads.emplace_back(address, length);
}

void InstallMemoryOperations(PtpResponder& responder, const std::shared_ptr<CameraMemory>& memory)
{
    std::weak_ptr<CameraMemory> weak = memory;
    responder.SetBuiltinVendor(ptp::BASEMOD_ReadMem, [weak](const PtpCommand& command) {
        PtpReply reply;
        std::shared_ptr<CameraMemory> m = weak.lock();
        if (!m) {
            reply.responseCode = ptp::RC_GeneralError;
            return reply;
        }
        if (command.params.size() < 3 || command.params[2] > CameraMemory::kMaxRead) {
            reply.responseCode = ptp::RC_InvalidParameter;
            return reply;
        }
        m->NoteRead(command.params[1], command.params[2]);
        reply.hasData = true;
        reply.data = m->Read(command.params[1], command.params[2]);
        return reply;
    });
}

} // namespace qksim
