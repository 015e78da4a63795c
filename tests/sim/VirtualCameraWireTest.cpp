// SPDX-License-Identifier: MIT
// PTP transactions with a virtual camera, seen as bytes and transfers on the
// bus, and the faults it can be told to produce.

#include "tests/sim/SimBusTest.h"

#include <chrono>
#include <ctime>
#include <thread>

namespace {

using namespace simtest;
using qktest::Pattern;

using CameraTransaction = SimOpenCamera;

TEST_F(CameraTransaction, RequestsRepliesAndRecordsOnTheWire)
{
    ASSERT_EQ(Send(handle, kSerialRequest), 0);
    EXPECT_EQ(Receive(handle, 512), (Bytes{25, 0, 0, 0, 2, 0, 0x99, 0x99, 0, 0, 0, 0, 'Q', 0, 'K', 0, 'S',
                                           0, '0', 0, '0', 0, '0', 0, '1'}));
    EXPECT_EQ(Receive(handle, 512), (Bytes{12, 0, 0, 0, 3, 0, 0x01, 0x20, 0, 0, 0, 0}));
    ASSERT_EQ(Send(handle, Command(0x1001, 1, {})), 0);
    EXPECT_EQ(Get16(Receive(handle, 512), 6), 0x2005); // not known yet: no data phase
    ASSERT_EQ(Send(handle, Command(0x9999, 2, {0x55, 7, 8})), 0);
    EXPECT_EQ(Get16(Receive(handle, 512), 6), 0x2005);

    EXPECT_EQ(qktest::Records(camera->ReceivedCommands()),
              (std::vector<std::vector<uint32_t>>{
                  {16, 1, 0x9999, 0, 0xA1}, {12, 1, 0x1001, 1}, {24, 1, 0x9999, 2, 0x55, 7, 8}}));
    auto traffic = camera->Traffic();
    EXPECT_EQ(traffic.outLengths, (std::vector<uint32_t>{16, 12, 24}));
    EXPECT_EQ(traffic.inRequests, (std::vector<uint32_t>{512, 512, 512, 512}));
    EXPECT_EQ(traffic.clearHalts, 0);
}

// The handler's data phase is as long as the command's first parameter; the
// cutting rules themselves are in BulkInQueueTest.
TEST_F(CameraTransaction, HandlerRepliesTravelInContainersCutIntoPacketsOfTheDefaultOrChosenSizes)
{
    camera->SetOperationHandler(0x1009, [](const qksim::PtpCommand& command) {
        qksim::PtpReply reply;
        reply.hasData = true;
        reply.data = Pattern(command.params.at(0), 1);
        reply.responseParams = {9, 8};
        return reply;
    });
    ASSERT_EQ(Send(handle, Command(0x1009, 3, {40})), 0);
    EXPECT_EQ(Receive(handle, 512), qksim::MakeContainer(qksim::ptp::kData, 0x1009, 3, Pattern(40, 1)));
    EXPECT_EQ(Receive(handle, 512), (Bytes{20, 0, 0, 0, 3, 0, 0x01, 0x20, 3, 0, 0, 0, 9, 0, 0, 0, 8, 0, 0, 0}));

    // A large read ends at the container's short packet.
    ASSERT_EQ(Send(handle, Command(0x1009, 5, {3000})), 0);
    EXPECT_EQ(Receive(handle, 1 << 20), qksim::MakeContainer(qksim::ptp::kData, 0x1009, 5, Pattern(3000, 1)));
    EXPECT_EQ(Receive(handle, 512).size(), 20u);
    // Exactly the container's size: full before the short packet was needed.
    ASSERT_EQ(Send(handle, Command(0x1009, 6, {3000})), 0);
    Receive(handle, 512);
    EXPECT_EQ(Receive(handle, 3012 - 512).size(), 2500u);
    EXPECT_EQ(Receive(handle, 512).size(), 20u);

    // Chosen packet sizes split the next reply.
    camera->SetPacketSizes({12, 4});
    ASSERT_EQ(Send(handle, kSerialRequest), 0);
    EXPECT_EQ(Receive(handle, 512).size(), 12u);
    EXPECT_EQ(Receive(handle, 512), (Bytes{'Q', 0, 'K', 0}));
    EXPECT_EQ(Receive(handle, 512).size(), 9u);  // the sizes are used up
    EXPECT_EQ(Receive(handle, 512).size(), 12u); // the response
}

using CameraPackets = SimOpenCamera;

TEST_F(CameraPackets, RawBytesAreSentAsTheyAreOverflowSmallBuffersAndStandInForSilencedReplies)
{
    Bytes got; // queued while the host waits, they arrive at once
    std::thread reader([&] { got = Receive(handle, 512); });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    camera->QueueRawIn({7, 7, 7});
    reader.join();
    EXPECT_EQ(got, (Bytes{7, 7, 7}));
    camera->ClearRecords();

    Bytes raw = Pattern(600, 1);
    camera->QueueRawIn(raw);
    EXPECT_EQ(Receive(handle, 4096), raw);
    // 512 bytes: a full packet, then the zero-length one ends the transfer.
    camera->QueueRawIn(Pattern(512, 1));
    EXPECT_EQ(Receive(handle, 4096).size(), 512u);
    camera->QueueRawPackets({{1, 2, 3}, {}, {4, 5, 6, 7, 8}});
    EXPECT_EQ(Receive(handle, 512), (Bytes{1, 2, 3}));
    EXPECT_EQ(Receive(handle, 512), Bytes{});
    EXPECT_EQ(Receive(handle, 512), (Bytes{4, 5, 6, 7, 8}));
    EXPECT_EQ(camera->Traffic().inRequests, (std::vector<uint32_t>{4096, 4096, 512, 512, 512}));

    camera->QueueRawPackets({Pattern(100, 1), {9}});
    int result = 0;
    Receive(handle, 12, &result);
    EXPECT_EQ(result, LIBUSB_ERROR_OVERFLOW);
    EXPECT_EQ(Receive(handle, 512), Bytes{9});

    // A silenced command lets raw bytes stand in for the reply.
    camera->ClearRecords();
    camera->SilenceNext(1);
    camera->QueueRawIn({8, 0, 0, 0, 3, 0, 1, 0x20});
    ASSERT_EQ(Send(handle, kSerialRequest), 0);
    EXPECT_EQ(Receive(handle, 512).size(), 8u);
    ASSERT_EQ(Send(handle, Command(0x1002, 1, {1})), 0);
    EXPECT_EQ(Receive(handle, 512), (Bytes{12, 0, 0, 0, 3, 0, 0x01, 0x20, 1, 0, 0, 0}));
    EXPECT_EQ(camera->ReceivedCommands().size(), 2u);
}

using CameraFaults = SimOpenCamera;

TEST_F(CameraFaults, StallsHoldUntilClearedAndLoseTheCommand)
{
    camera->StallNext(0x81, 2);
    camera->QueueRawIn({1, 2, 3});
    uint8_t status[2] = {};
    for (int i = 0; i < 2; ++i) {
        int result = 0;
        EXPECT_TRUE(Receive(handle, 512, &result).empty());
        EXPECT_EQ(result, LIBUSB_ERROR_PIPE);
        ASSERT_EQ(libusb_control_transfer(handle, 0x82, 0, 0, 0x81, status, 2, kTimeoutMs), 2);
        EXPECT_EQ(status[0], 1); // halted
        EXPECT_EQ(libusb_clear_halt(handle, 0x81), 0);
    }
    ASSERT_EQ(libusb_control_transfer(handle, 0x82, 0, 0, 0x81, status, 2, kTimeoutMs), 2);
    EXPECT_EQ(status[0], 0);
    EXPECT_EQ(Receive(handle, 512), (Bytes{1, 2, 3}));
    auto traffic = camera->Traffic();
    EXPECT_EQ(traffic.inRequests.size(), 3u);
    EXPECT_EQ(traffic.clearHalts, 2);

    camera->StallNext(0x02, 1);
    EXPECT_EQ(Send(handle, kSerialRequest), LIBUSB_ERROR_PIPE);
    EXPECT_TRUE(camera->ReceivedCommands().empty());
    EXPECT_EQ(libusb_clear_halt(handle, 0x02), 0);
    EXPECT_EQ(Send(handle, kSerialRequest), 0);
    EXPECT_EQ(camera->ReceivedCommands().size(), 1u);
    EXPECT_EQ(camera->Traffic().outLengths, (std::vector<uint32_t>{16, 16}));
}

TEST_F(CameraFaults, TimedOutTransfersEndAfterTheirTimeoutWithoutBusyWaiting)
{
    camera->TimeOutNext(0x81, 1);
    camera->QueueRawIn({5, 5});
    const std::clock_t cpuBefore = std::clock(); // all threads of the process
    const auto start = std::chrono::steady_clock::now();
    int result = 0;
    EXPECT_TRUE(Receive(handle, 512, &result, 300).empty());
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(result, LIBUSB_ERROR_TIMEOUT);
    EXPECT_GE(waited, std::chrono::milliseconds(290));
    EXPECT_LT(static_cast<double>(std::clock() - cpuBefore) / CLOCKS_PER_SEC, 0.15);
    // The bytes were not taken by the transfer that timed out.
    EXPECT_EQ(Receive(handle, 512), (Bytes{5, 5}));

    // A timed-out write never reaches the camera.
    camera->TimeOutNext(0x02, 1);
    EXPECT_EQ(Send(handle, kSerialRequest, 200), LIBUSB_ERROR_TIMEOUT);
    EXPECT_TRUE(camera->ReceivedCommands().empty());
    EXPECT_EQ(Send(handle, kSerialRequest), 0);
    EXPECT_EQ(Receive(handle, 512).size(), 25u);
}

} // namespace
