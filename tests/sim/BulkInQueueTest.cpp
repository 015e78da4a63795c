// SPDX-License-Identifier: MIT
// How packets are cut from containers and moved into host transfers.

#include "sim/BulkInQueue.h"

#include <algorithm>
#include <cerrno>

#include "tests/common/VirtualCameraTest.h"

namespace {

using qksim::BulkInQueue;

std::vector<uint8_t> Bytes(size_t size) { return qktest::Pattern(size, 1); }

// Reads one transfer of `length` bytes; returns what it got.
std::vector<uint8_t> Take(BulkInQueue& queue, uint32_t length)
{
    std::vector<uint8_t> buffer(length);
    BulkInQueue::Transfer transfer;
    transfer.buffer = buffer.data();
    transfer.length = length;
    queue.Fill(transfer);
    buffer.resize(transfer.filled);
    return buffer;
}

TEST(BulkInCutting, PacketsCutFromContainersAndRawBytes)
{
    struct Queued {
        bool container;
        size_t size;
    };
    struct Case {
        std::vector<uint32_t> packetSizes;
        std::vector<Queued> queued;
        std::vector<size_t> packets;
    };
    const Case cases[] = {
        {{}, {{true, 1100}}, {512, 512, 76}},
        // A multiple of 512 is followed by a zero-length packet.
        {{}, {{true, 1024}}, {512, 512, 0}},
        {{}, {{false, 512}}, {512, 0}},
        {{}, {{false, 0}}, {0}},
        // Each size is used once, then 512; the container's end cuts one short.
        {{12, 100}, {{true, 52}, {true, 600}}, {12, 40, 512, 88}},
        // A zero size puts a zero-length packet mid-container.
        {{10, 0, 10}, {{true, 30}}, {10, 0, 10, 10}},
        // Raw bytes ignore the sizes.
        {{5}, {{false, 20}, {true, 20}}, {20, 5, 15}},
    };
    for (const Case& c : cases) {
        BulkInQueue queue;
        queue.SetPacketSizes(c.packetSizes);
        for (const Queued& q : c.queued) {
            if (q.container)
                queue.QueueContainer(Bytes(q.size));
            else
                queue.QueueRaw(Bytes(q.size));
        }
        std::vector<size_t> sizes;
        while (!queue.Empty())
            sizes.push_back(Take(queue, 512).size());
        EXPECT_EQ(sizes, c.packets) << "case " << (&c - cases);
    }
}

TEST(BulkInTransfer, ShortPacketOverflowOrBufferEndEndsTheTransferAndKeepsTheRest)
{
    struct Case {
        std::vector<size_t> packets;
        uint32_t length;
        bool finished;
        size_t filled;
        int status;
        size_t left; // packets still queued: only the last one, whole
    } cases[] = {
        {{512, 30, 7}, 4096, true, 542, 0, 1},
        // The rest of the babbling packet is lost.
        {{100, 3}, 12, true, 12, -EOVERFLOW, 1},
        // A full buffer ends it before the zero-length packet, which waits.
        {{512, 512, 0}, 1024, true, 1024, 0, 1},
        {{0}, 512, true, 0, 0, 0},
        {{4}, 0, true, 0, 0, 1},
        // Full packets leave room: the transfer waits for more.
        {{512}, 2048, false, 512, 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE("case " + std::to_string(&c - cases));
        BulkInQueue queue;
        std::vector<uint8_t> stream;
        for (size_t size : c.packets) {
            const std::vector<uint8_t> packet = Bytes(size);
            queue.QueuePackets({packet});
            stream.insert(stream.end(), packet.begin(), packet.end());
        }
        std::vector<uint8_t> buffer(c.length);
        BulkInQueue::Transfer transfer;
        transfer.buffer = buffer.data();
        transfer.length = c.length;
        EXPECT_EQ(queue.Fill(transfer), c.finished);
        EXPECT_EQ(transfer.status, c.status);
        ASSERT_EQ(transfer.filled, c.filled);
        EXPECT_TRUE(std::equal(stream.begin(), stream.begin() + static_cast<long>(c.filled), buffer.begin()));
        ASSERT_EQ(queue.PacketCount(), c.left);
        if (c.left) {
            EXPECT_EQ(Take(queue, 4096).size(), c.packets.back());
        }
        if (!c.finished) { // the same transfer goes on with the next packet
            queue.QueuePackets({Bytes(4)});
            EXPECT_TRUE(queue.Fill(transfer));
            EXPECT_EQ(transfer.filled, c.filled + 4);
        }
    }
}

} // namespace
