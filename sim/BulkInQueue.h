// SPDX-License-Identifier: MIT
#pragma once
// The packets a device has ready on a bulk IN endpoint, and how a host
// controller moves them into the transfers the host asks for.

#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

namespace qksim {

class BulkInQueue {
public:
    static constexpr uint32_t kMaxPacket = 512;

    // A transfer the host waits on; `status` is 0 or a negative errno.
    struct Transfer {
        uint8_t* buffer = nullptr;
        uint32_t length = 0;
        uint32_t filled = 0;
        int status = 0;
    };

    // One container, cut by the packet sizes in turn (512 when none are
    // left); a zero-length packet follows when the last one is full.
    void QueueContainer(const std::vector<uint8_t>& bytes);
    // Bytes as they are, in 512-byte packets.
    void QueueRaw(const std::vector<uint8_t>& bytes);
    void QueuePackets(const std::vector<std::vector<uint8_t>>& packets);
    // Sizes for the packets of the containers to come, each used once; a
    // zero puts a zero-length packet in the stream without using up bytes.
    void SetPacketSizes(const std::vector<uint32_t>& sizes);

    bool Empty() const { return packets.empty(); }
    size_t PacketCount() const { return packets.size(); }
    void Clear();

    // Moves packets into `transfer`; true when it is finished: full, ended by
    // a short packet, or overflowed by a packet bigger than the room left
    // (what fits is kept, the rest of that packet is lost, -EOVERFLOW).
    bool Fill(Transfer& transfer);

private:
    void Cut(const std::vector<uint8_t>& bytes, bool useSizes);

    std::deque<std::vector<uint8_t>> packets;
    std::deque<uint32_t> sizes;
};

} // namespace qksim
