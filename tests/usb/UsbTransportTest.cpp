// SPDX-License-Identifier: MIT
// The transport against virtual cameras: enumeration, open, and the read and
// write rules seen as USB transfers.

#include <cstring>
#include <iterator>
#include <numeric>

#include "tests/common/TestLog.h"
#include "tests/common/VirtualCameraTest.h"

namespace {

using qktest::LogMark;
using qktest::Pattern;
using Bytes = std::vector<uint8_t>;

class UsbTransportTest : public qktest::VirtualCameraTest {
protected:
    void TearDown() override
    {
        for (void* handle : opened)
            usb->CloseDevice(handle);
        VirtualCameraTest::TearDown();
    }

    // Opened through the transport, with clean records; closed by the fixture.
    void* Open(const std::shared_ptr<qksim::VirtualCamera>& camera)
    {
        void* handle = Transport()->OpenDevice(camera->Path());
        EXPECT_NE(handle, nullptr);
        if (handle)
            opened.push_back(handle);
        camera->ClearRecords();
        return handle;
    }

    // One per case of a table, all on the bus before the transport starts.
    std::vector<std::shared_ptr<qksim::VirtualCamera>> Cameras(size_t count)
    {
        std::vector<std::shared_ptr<qksim::VirtualCamera>> cameras;
        for (size_t i = 0; i < count; ++i)
            cameras.push_back(AddCamera("SX160", "S" + std::to_string(i)));
        return cameras;
    }

    bool Read(void* handle, Bytes& out, size_t size)
    {
        out.assign(size, 0);
        DataLen buffer(out.data(), static_cast<unsigned int>(size));
        return usb->Read(&buffer, handle);
    }

    static Bytes Slice(const Bytes& bytes, size_t from, size_t size)
    {
        return Bytes(bytes.begin() + from, bytes.begin() + from + size);
    }

    std::vector<void*> opened;
};

TEST_F(UsbTransportTest, EnumerationListsOnlyCamerasSortedByPath)
{
    LogMark mark;
    auto a = AddCamera("SX160", "S1");
    qksim::VirtualBus::Instance().AddOtherDevice(0x1d6b, 0x0104, "Not a camera");
    qksim::VirtualBus::Instance().AddOtherDevice(0x04A9, 0x3042, "Same maker, other product");
    auto b = AddCamera("A1400", "S2");

    std::set<std::wstring> paths = Transport()->GetAllConnectedDevicePaths();
    EXPECT_EQ(paths, (std::set<std::wstring>{a->Path(), b->Path()}));
    EXPECT_EQ(a->Path().rfind(L"1193:12353:", 0), 0u);
    EXPECT_EQ(mark.Since(), "");
}

TEST_F(UsbTransportTest, EmptyBusGivesEmptySetWithoutMessage)
{
    LogMark mark;
    EXPECT_TRUE(Transport()->GetAllConnectedDevicePaths().empty());
    EXPECT_EQ(mark.Count("error"), 0);
}

TEST_F(UsbTransportTest, OpenReadsProductStringAndFailsOnUnknownPathSilentlyOrOnClaimLoudly)
{
    auto camera = AddCamera("SX160", "S1", "Virtual SX160 HS");
    auto busy = AddCamera("SX160", "S2");
    busy->FailClaim(true);
    LogMark mark;
    EXPECT_EQ(Transport()->OpenDevice(L"1193:12353:9:99"), nullptr);
    EXPECT_EQ(mark.Since(), "");
    EXPECT_EQ(usb->OpenDevice(busy->Path()), nullptr);
    EXPECT_EQ(mark.Count("libusb_claim_interface error: -6"), 1);
    // Which problem and what to do, in the log and for a program to show.
    auto* libusb = static_cast<UsbLib_libusb*>(usb.get());
    const std::string advice = libusb->OpenProblem(busy->Path());
    EXPECT_NE(advice.find("held by another program"), std::string::npos) << advice;
    EXPECT_EQ(mark.Count("OpenDevice " + wstrToStr(busy->Path()) + ": " + advice), 1);
#if QK_RELATIVE_PATHS
    // Source files are named from the top of the tree, the same on every machine.
    EXPECT_GE(mark.Count("| usb/UsbLib_libusb.cpp:"), 2) << mark.Since();
#endif
    EXPECT_NE(std::string(UsbLib_libusb::AdviceFor(-3)).find("udev rule 60-qkcam.rules"), std::string::npos);
    EXPECT_EQ(UsbLib_libusb::AdviceFor(-1), nullptr);
    busy->FailClaim(false);
    void* again = usb->OpenDevice(busy->Path());
    EXPECT_NE(again, nullptr);
    EXPECT_EQ(libusb->OpenProblem(busy->Path()), "");
    usb->CloseDevice(again);

    void* handle = usb->OpenDevice(camera->Path());
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(usb->GetDeviceName(handle), L"Virtual SX160 HS");
    usb->CloseDevice(handle);
    // Closing released the interface: the device can be claimed again.
    Open(camera);
}

// Reads take the bytes in order, whatever the packets were; small reads keep
// the rest of a whole-packet transfer as residue, large ones go in 1 MiB pieces.
TEST_F(UsbTransportTest, ReadsSplitAndJoinPacketsIntoTransfers)
{
    const size_t large = 2 * 0x100000 + 100;
    const struct {
        const char* name;
        std::vector<size_t> packets;
        bool raw; // the bytes queued as they are, not as these packets
        std::vector<size_t> reads;
        std::vector<uint32_t> inRequests;
    } cases[] = {
        {"residue serves small reads", {512}, false, {12, 300, 200}, {512}},
        {"beyond residue fetches a whole packet", {512, 100}, false, {12, 600}, {512, 512}},
        {"short and zero-length packets don't end a small read", {3, 0, 5}, false, {8}, {512, 512, 512}},
        {"large read", {large}, true, {large}, {0x100000, 0x100000, 100}},
    };
    auto cameras = Cameras(std::size(cases));
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto camera = cameras[static_cast<size_t>(&c - cases)];
        void* handle = Open(camera);
        const Bytes stream = Pattern(std::accumulate(c.packets.begin(), c.packets.end(), size_t{0}), 3);
        std::vector<Bytes> packets;
        size_t at = 0;
        for (size_t size : c.packets) {
            packets.push_back(Slice(stream, at, size));
            at += size;
        }
        c.raw ? camera->QueueRawIn(stream) : camera->QueueRawPackets(packets);
        at = 0;
        for (size_t size : c.reads) {
            Bytes got;
            ASSERT_TRUE(Read(handle, got, size));
            EXPECT_TRUE(got == Slice(stream, at, size)) << "read of " << size << " at " << at;
            at += size;
        }
        EXPECT_EQ(camera->Traffic().inRequests, c.inRequests);
    }
}

// A small read clears the halt after each stall and tries five times in all;
// a large read that gets no data at all gives up at once; a camera that is
// silent or gone fails the read.
TEST_F(UsbTransportTest, StalledSilentOrGoneReadsRetryOrFailWithTheirLogLine)
{
    enum Camera { Answers, Silent, Gone };
    const struct {
        Camera state;
        int stalls;
        size_t size;
        bool ok;
        size_t inRequests;
        int clearHalts;
        const char* log;
    } cases[] = {
        {Answers, 5, 12, false, 5, 5, "Usb read to buffer failed: -9"},
        {Answers, 4, 20, true, 5, 4, nullptr},
        {Answers, 1, 4096, false, 1, 0, "libusb_bulk_transfer: size == 0"},
        {Silent, 0, 12, false, 1, 0, "Usb read to buffer failed: -7"},
        {Gone, 0, 12, false, 0, 0, "Usb read to buffer failed: -4"},
    };
    auto cameras = Cameras(std::size(cases));
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        auto camera = cameras[static_cast<size_t>(&c - cases)];
        void* handle = Open(camera);
        camera->StallNext(0x81, c.stalls);
        const Bytes packet = Pattern(20, 5);
        if (c.state == Answers)
            camera->QueueRawPackets({packet});
        if (c.state == Gone)
            camera->Unplug();
        LogMark mark;
        Bytes got;
        EXPECT_EQ(Read(handle, got, c.size), c.ok);
        if (c.ok) {
            EXPECT_EQ(got, packet);
            EXPECT_EQ(mark.Since(), "");
        } else {
            EXPECT_EQ(mark.Count(c.log), 1);
        }
        EXPECT_EQ(camera->Traffic().inRequests.size(), c.inRequests);
        EXPECT_EQ(camera->Traffic().clearHalts, c.clearHalts);
    }
}

TEST_F(UsbTransportTest, WritesAreOneTransferEachAndRetryAfterStallsUpToFiveAttempts)
{
    auto camera = AddCamera("SX160", "S1");
    void* handle = Open(camera);
    DataLen empty(nullptr, 0);
    EXPECT_TRUE(usb->Write(&empty, handle));
    EXPECT_EQ(camera->Traffic().outLengths, std::vector<uint32_t>{0});

    uint8_t bytes[16] = {16, 0, 0, 0, 1, 0, 0x99, 0x99, 0, 0, 0, 0, 0xA2, 0, 0, 0};
    DataLen buffer(bytes, sizeof(bytes));
    camera->StallNext(0x02, 2);
    EXPECT_TRUE(usb->Write(&buffer, handle));
    EXPECT_EQ(camera->Traffic().clearHalts, 2);

    camera->ClearRecords();
    camera->StallNext(0x02, 5);
    LogMark mark;
    EXPECT_FALSE(usb->Write(&buffer, handle));
    EXPECT_EQ(camera->Traffic().clearHalts, 5);
    EXPECT_EQ(mark.Count("Read failed: -9"), 1);
    // Nor does a write reach a camera that is gone.
    camera->Unplug();
    EXPECT_FALSE(usb->Write(&buffer, handle));
}

TEST_F(UsbTransportTest, TwoCamerasOnOneTransportKeepTheirOwnResidue)
{
    auto a = AddCamera("SX160", "S1");
    auto b = AddCamera("A1400", "S2");
    void* ha = Open(a);
    void* hb = Open(b);
    Bytes pa = Pattern(512, 10), pb = Pattern(512, 200);
    a->QueueRawPackets({pa});
    b->QueueRawPackets({pb});

    Bytes got;
    ASSERT_TRUE(Read(ha, got, 12));
    ASSERT_TRUE(Read(hb, got, 12));
    ASSERT_TRUE(Read(ha, got, 500));
    EXPECT_EQ(got, Slice(pa, 12, 500));
    ASSERT_TRUE(Read(hb, got, 500));
    EXPECT_EQ(got, Slice(pb, 12, 500));
}

TEST(StringConversion, CarriesEachCharacterByValue)
{
    std::string bytes("a\0\xE9\xFF", 4);
    std::wstring wide = strToWstr(bytes);
    EXPECT_EQ(wide, (std::wstring{L'a', L'\0', wchar_t(0xE9), wchar_t(0xFF)}));
    EXPECT_EQ(wstrToStr(wide), bytes);
    EXPECT_EQ(wstrToStr(std::wstring{wchar_t(0x141)}), std::string("\x41"));
}

} // namespace
