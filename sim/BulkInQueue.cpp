// SPDX-License-Identifier: MIT
#include "sim/BulkInQueue.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace qksim {

void BulkInQueue::Cut(const std::vector<uint8_t>& bytes, bool useSizes)
{
    size_t at = 0;
    bool lastFull = true; // nothing sent yet: an empty container is a ZLP alone
    while (at < bytes.size()) {
        uint32_t size = kMaxPacket;
        if (useSizes && !sizes.empty()) {
            size = sizes.front();
            sizes.pop_front();
        }
        if (size == 0) {
            packets.emplace_back();
            continue;
        }
        const size_t take = std::min<size_t>(size, bytes.size() - at);
        packets.emplace_back(bytes.begin() + static_cast<std::ptrdiff_t>(at),
                             bytes.begin() + static_cast<std::ptrdiff_t>(at + take));
        at += take;
        lastFull = take >= kMaxPacket;
    }
    if (lastFull)
        packets.emplace_back();
}

void BulkInQueue::QueueContainer(const std::vector<uint8_t>& bytes)
{
    Cut(bytes, true);
}

void BulkInQueue::QueueRaw(const std::vector<uint8_t>& bytes)
{
    Cut(bytes, false);
}

void BulkInQueue::QueuePackets(const std::vector<std::vector<uint8_t>>& more)
{
    packets.insert(packets.end(), more.begin(), more.end());
}

void BulkInQueue::SetPacketSizes(const std::vector<uint32_t>& more)
{
    sizes.assign(more.begin(), more.end());
}

void BulkInQueue::Clear()
{
    packets.clear();
    sizes.clear();
}

bool BulkInQueue::Fill(Transfer& transfer)
{
    if (transfer.filled >= transfer.length)
        return true;
    while (!packets.empty()) {
        std::vector<uint8_t> packet = std::move(packets.front());
        packets.pop_front();
        const uint32_t room = transfer.length - transfer.filled;
        if (packet.size() > room) {
            std::memcpy(transfer.buffer + transfer.filled, packet.data(), room);
            transfer.filled = transfer.length;
            transfer.status = -EOVERFLOW;
            return true;
        }
        if (!packet.empty())
            std::memcpy(transfer.buffer + transfer.filled, packet.data(), packet.size());
        transfer.filled += static_cast<uint32_t>(packet.size());
        if (packet.size() < kMaxPacket || transfer.filled == transfer.length) {
            transfer.status = 0;
            return true;
        }
    }
    return false;
}

} // namespace qksim
