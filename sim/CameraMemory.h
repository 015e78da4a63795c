// SPDX-License-Identifier: MIT
#pragma once
// The RAM of a virtual camera as the base module's memory read shows it:
// regions of bytes at addresses, zeros everywhere else. A camera of each
// model keeps its memory-statistics record at that model's address.

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace qksim {

class CameraMemory {
public:
    // The largest read the camera serves at once.
    static constexpr uint32_t kMaxRead = 16u << 20;

    // Starts with the statistics record of `model` filled in.
    explicit CameraMemory(const std::string& model);

    // Where a model keeps its memory-statistics record.
    static uint32_t StatisticsAddress(const std::string& model);
    uint32_t StatisticsAddress() const { return statisticsAddress; }
    // The record: nine 32-bit words.
    void SetStatistics(const std::vector<uint32_t>& words);

    void Write(uint32_t address, std::vector<uint8_t> bytes);
    // Later writes win where regions overlap.
    std::vector<uint8_t> Read(uint32_t address, uint32_t length) const;
    // Reads served so far, as (address, length).
    std::vector<std::pair<uint32_t, uint32_t>> Reads() const;
    void NoteRead(uint32_t address, uint32_t length);

private:
    mutable std::mutex mutex;
    uint32_t statisticsAddress;
    std::vector<std::pair<uint32_t, std::vector<uint8_t>>> regions; // in order of writing
    std::vector<std::pair<uint32_t, uint32_t>> reads;
};

class PtpResponder;

// The base module's memory read: parameters address and length.
void InstallMemoryOperations(PtpResponder& responder, const std::shared_ptr<CameraMemory>& memory);

} // namespace qksim
