// How packets are cut from containers and moved into host transfers.

#include "sim/BulkInQueue.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <numeric>

namespace {

using qksim::BulkInQueue;

std::vector<uint8_t> Bytes(size_t size)
{
    std::vector<uint8_t> out(size);
    std::iota(out.begin(), out.end(), uint8_t{1});
    return out;
}

// Reads one transfer of `length` bytes; returns what it got.
std::vector<uint8_t> Take(BulkInQueue& queue, uint32_t length, int* status = nullptr, bool* finished = nullptr)
{
    std::vector<uint8_t> buffer(length);
    BulkInQueue::Transfer transfer;
    transfer.buffer = buffer.data();
    transfer.length = length;
    bool done = queue.Fill(transfer);
    if (status)
        *status = transfer.status;
    if (finished)
        *finished = done;
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

TEST(BulkInTransfer, ShortPacketOrOverflowEndsTransferAndKeepsTheRest)
{
    BulkInQueue queue;
    queue.QueuePackets({Bytes(512), Bytes(30), Bytes(7)});
    int status = -1;
    std::vector<uint8_t> got = Take(queue, 4096, &status);
    EXPECT_EQ(got.size(), 542u);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(got[512], 1);
    EXPECT_EQ(Take(queue, 4096).size(), 7u);

    queue.QueuePackets({Bytes(100), Bytes(3)});
    got = Take(queue, 12, &status);
    EXPECT_EQ(status, -EOVERFLOW);
    EXPECT_EQ(got, std::vector<uint8_t>(Bytes(12)));
    // The rest of the babbling packet is lost.
    EXPECT_EQ(Take(queue, 512).size(), 3u);
}

TEST(BulkInTransfer, FullOrEmptyBufferEndsTransferWithoutTakingMore)
{
    BulkInQueue queue;
    queue.QueueContainer(Bytes(1024));
    EXPECT_EQ(Take(queue, 1024).size(), 1024u);
    EXPECT_EQ(queue.PacketCount(), 1u); // the zero-length packet waits
    bool finished = false;
    EXPECT_TRUE(Take(queue, 512, nullptr, &finished).empty());
    EXPECT_TRUE(finished);
    EXPECT_TRUE(queue.Empty());

    queue.QueuePackets({Bytes(4)});
    finished = false;
    EXPECT_TRUE(Take(queue, 0, nullptr, &finished).empty());
    EXPECT_TRUE(finished);
    EXPECT_EQ(queue.PacketCount(), 1u);
}

TEST(BulkInTransfer, WaitsWhileFullPacketsLeaveRoom)
{
    BulkInQueue queue;
    queue.QueuePackets({Bytes(512)});
    std::vector<uint8_t> buffer(2048);
    BulkInQueue::Transfer transfer;
    transfer.buffer = buffer.data();
    transfer.length = 2048;
    EXPECT_FALSE(queue.Fill(transfer));
    EXPECT_EQ(transfer.filled, 512u);
    queue.QueuePackets({Bytes(4)});
    EXPECT_TRUE(queue.Fill(transfer));
    EXPECT_EQ(transfer.filled, 516u);
}

} // namespace
