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

std::vector<size_t> PacketSizes(BulkInQueue& queue)
{
    std::vector<size_t> sizes;
    while (!queue.Empty())
        sizes.push_back(Take(queue, 512).size());
    return sizes;
}

TEST(BulkInCutting, ContainerGoesOutIn512BytePacketsWithShortLast)
{
    BulkInQueue queue;
    queue.QueueContainer(Bytes(1100));
    EXPECT_EQ(PacketSizes(queue), (std::vector<size_t>{512, 512, 76}));
}

TEST(BulkInCutting, MultipleOf512IsFollowedByZeroLengthPacket)
{
    BulkInQueue queue;
    queue.QueueContainer(Bytes(1024));
    EXPECT_EQ(PacketSizes(queue), (std::vector<size_t>{512, 512, 0}));
    queue.QueueRaw(Bytes(512));
    EXPECT_EQ(PacketSizes(queue), (std::vector<size_t>{512, 0}));
    queue.QueueRaw({});
    EXPECT_EQ(PacketSizes(queue), (std::vector<size_t>{0}));
}

TEST(BulkInCutting, PacketSizesAreUsedOnceEachThenDefault)
{
    BulkInQueue queue;
    queue.SetPacketSizes({12, 100});
    queue.QueueContainer(Bytes(52));  // 12 + 40: second size is cut by the container's end
    queue.QueueContainer(Bytes(600)); // sizes used up
    EXPECT_EQ(PacketSizes(queue), (std::vector<size_t>{12, 40, 512, 88}));
}

TEST(BulkInCutting, ZeroSizeInsertsZeroLengthPacketMidContainer)
{
    BulkInQueue queue;
    queue.SetPacketSizes({10, 0, 10});
    queue.QueueContainer(Bytes(30));
    EXPECT_EQ(PacketSizes(queue), (std::vector<size_t>{10, 0, 10, 10}));
}

TEST(BulkInCutting, RawBytesIgnorePacketSizes)
{
    BulkInQueue queue;
    queue.SetPacketSizes({5});
    queue.QueueRaw(Bytes(20));
    queue.QueueContainer(Bytes(20));
    EXPECT_EQ(PacketSizes(queue), (std::vector<size_t>{20, 5, 15}));
}

TEST(BulkInTransfer, ShortPacketEndsTransferAndKeepsTheRest)
{
    BulkInQueue queue;
    queue.QueuePackets({Bytes(512), Bytes(30), Bytes(7)});
    int status = -1;
    std::vector<uint8_t> got = Take(queue, 4096, &status);
    EXPECT_EQ(got.size(), 542u);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(got[512], 1);
    EXPECT_EQ(Take(queue, 4096).size(), 7u);
}

TEST(BulkInTransfer, FullBufferEndsTransferBeforeZeroLengthPacket)
{
    BulkInQueue queue;
    queue.QueueContainer(Bytes(1024));
    EXPECT_EQ(Take(queue, 1024).size(), 1024u);
    EXPECT_EQ(queue.PacketCount(), 1u);
    bool finished = false;
    EXPECT_TRUE(Take(queue, 512, nullptr, &finished).empty());
    EXPECT_TRUE(finished);
    EXPECT_TRUE(queue.Empty());
}

TEST(BulkInTransfer, PacketBiggerThanRoomOverflows)
{
    BulkInQueue queue;
    queue.QueuePackets({Bytes(100), Bytes(3)});
    int status = 0;
    std::vector<uint8_t> got = Take(queue, 12, &status);
    EXPECT_EQ(status, -EOVERFLOW);
    EXPECT_EQ(got, std::vector<uint8_t>(Bytes(12)));
    // The rest of the babbling packet is lost.
    EXPECT_EQ(Take(queue, 512).size(), 3u);
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

TEST(BulkInTransfer, EmptyTransferFinishesWithoutTakingAPacket)
{
    BulkInQueue queue;
    queue.QueuePackets({Bytes(4)});
    bool finished = false;
    EXPECT_TRUE(Take(queue, 0, nullptr, &finished).empty());
    EXPECT_TRUE(finished);
    EXPECT_EQ(queue.PacketCount(), 1u);
}

} // namespace
