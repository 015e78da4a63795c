// The transport against virtual cameras: enumeration, open, and the read and
// write rules seen as USB transfers.

#include <cstring>

#include "tests/common/TestLog.h"
#include "tests/common/VirtualCameraTest.h"

namespace {

using qktest::LogMark;
using qktest::Pattern;

class UsbTransportTest : public qktest::VirtualCameraTest {
protected:
    void* Open(const std::shared_ptr<qksim::VirtualCamera>& camera)
    {
        void* handle = Transport()->OpenDevice(camera->Path());
        EXPECT_NE(handle, nullptr);
        camera->ClearRecords();
        return handle;
    }

    bool Read(void* handle, std::vector<uint8_t>& out, size_t size)
    {
        out.assign(size, 0);
        DataLen buffer(out.data(), static_cast<unsigned int>(size));
        return usb->Read(&buffer, handle);
    }

    static std::vector<uint8_t> Slice(const std::vector<uint8_t>& bytes, size_t from, size_t size)
    {
        return std::vector<uint8_t>(bytes.begin() + from, bytes.begin() + from + size);
    }
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

TEST_F(UsbTransportTest, OpenReadsProductStringAndUnknownPathFailsSilently)
{
    auto camera = AddCamera("SX160", "S1", "Virtual SX160 HS");
    LogMark mark;
    EXPECT_EQ(Transport()->OpenDevice(L"1193:12353:9:99"), nullptr);
    EXPECT_EQ(mark.Since(), "");

    void* handle = usb->OpenDevice(camera->Path());
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(usb->GetDeviceName(handle), L"Virtual SX160 HS");
    usb->CloseDevice(handle);
    // Closing released the interface: the device can be claimed again.
    handle = usb->OpenDevice(camera->Path());
    ASSERT_NE(handle, nullptr);
    usb->CloseDevice(handle);
}

TEST_F(UsbTransportTest, FailedClaimIsLoggedAndGivesNoHandle)
{
    auto camera = AddCamera("SX160", "S1");
    camera->FailClaim(true);
    LogMark mark;
    EXPECT_EQ(Transport()->OpenDevice(camera->Path()), nullptr);
    EXPECT_EQ(mark.Count("libusb_claim_interface error: -6"), 1);
}

TEST_F(UsbTransportTest, SmallReadKeepsTheRestOfThePacketAsResidue)
{
    auto camera = AddCamera("SX160", "S1");
    void* handle = Open(camera);
    std::vector<uint8_t> packet = Pattern(512, 3);
    camera->QueueRawPackets({packet});

    std::vector<uint8_t> got;
    ASSERT_TRUE(Read(handle, got, 12));
    EXPECT_EQ(got, Slice(packet, 0, 12));
    ASSERT_TRUE(Read(handle, got, 300));
    EXPECT_EQ(got, Slice(packet, 12, 300));
    ASSERT_TRUE(Read(handle, got, 200));
    EXPECT_EQ(got, Slice(packet, 312, 200));
    // One transfer served all three reads, and it asked for a whole packet.
    EXPECT_EQ(camera->Traffic().inRequests, std::vector<uint32_t>{512});
    usb->CloseDevice(handle);
}

TEST_F(UsbTransportTest, ReadBeyondResidueFetchesAnotherWholePacket)
{
    auto camera = AddCamera("SX160", "S1");
    void* handle = Open(camera);
    std::vector<uint8_t> first = Pattern(512, 1), second = Pattern(100, 77);
    camera->QueueRawPackets({first, second});

    std::vector<uint8_t> got;
    ASSERT_TRUE(Read(handle, got, 12));
    ASSERT_TRUE(Read(handle, got, 600));
    std::vector<uint8_t> expected = Slice(first, 12, 500);
    expected.insert(expected.end(), second.begin(), second.end());
    EXPECT_EQ(got, expected);
    EXPECT_EQ(camera->Traffic().inRequests, (std::vector<uint32_t>{512, 512}));
    usb->CloseDevice(handle);
}

TEST_F(UsbTransportTest, ShortAndZeroLengthPacketsDoNotEndASmallRead)
{
    auto camera = AddCamera("SX160", "S1");
    void* handle = Open(camera);
    camera->QueueRawPackets({{1, 2, 3}, {}, {4, 5, 6, 7, 8}});
    std::vector<uint8_t> got;
    ASSERT_TRUE(Read(handle, got, 8));
    EXPECT_EQ(got, (std::vector<uint8_t>{1, 2, 3, 4, 5, 6, 7, 8}));
    EXPECT_EQ(camera->Traffic().inRequests.size(), 3u);
    usb->CloseDevice(handle);
}

TEST_F(UsbTransportTest, LargeReadGoesInPiecesOfOneMebibyte)
{
    auto camera = AddCamera("SX160", "S1");
    void* handle = Open(camera);
    const size_t size = 2 * 0x100000 + 100;
    std::vector<uint8_t> data = Pattern(size, 9);
    camera->QueueRawIn(data);

    std::vector<uint8_t> got;
    ASSERT_TRUE(Read(handle, got, size));
    EXPECT_TRUE(got == data);
    EXPECT_EQ(camera->Traffic().inRequests, (std::vector<uint32_t>{0x100000, 0x100000, 100}));
    usb->CloseDevice(handle);
}

TEST_F(UsbTransportTest, StalledSmallReadClearsHaltFiveTimesThenFails)
{
    auto camera = AddCamera("SX160", "S1");
    void* handle = Open(camera);
    camera->StallNext(0x81, 5);
    camera->QueueRawPackets({Pattern(20, 0)});
    LogMark mark;
    std::vector<uint8_t> got;
    EXPECT_FALSE(Read(handle, got, 12));
    EXPECT_EQ(camera->Traffic().inRequests.size(), 5u);
    EXPECT_EQ(camera->Traffic().clearHalts, 5);
    EXPECT_EQ(mark.Count("Usb read to buffer failed: -9"), 1);
    usb->CloseDevice(handle);
}

TEST_F(UsbTransportTest, SmallReadRecoversFromFourStalls)
{
    auto camera = AddCamera("SX160", "S1");
    void* handle = Open(camera);
    camera->StallNext(0x81, 4);
    std::vector<uint8_t> packet = Pattern(20, 5);
    camera->QueueRawPackets({packet});
    std::vector<uint8_t> got;
    ASSERT_TRUE(Read(handle, got, 20));
    EXPECT_EQ(got, packet);
    EXPECT_EQ(camera->Traffic().clearHalts, 4);
    usb->CloseDevice(handle);
}

TEST_F(UsbTransportTest, LargeReadWithNoDataAtAllFailsAtOnce)
{
    auto camera = AddCamera("SX160", "S1");
    void* handle = Open(camera);
    camera->StallNext(0x81, 1);
    LogMark mark;
    std::vector<uint8_t> got;
    EXPECT_FALSE(Read(handle, got, 4096));
    EXPECT_EQ(camera->Traffic().inRequests.size(), 1u);
    EXPECT_EQ(camera->Traffic().clearHalts, 0);
    EXPECT_EQ(mark.Count("libusb_bulk_transfer: size == 0"), 1);
    usb->CloseDevice(handle);
}

TEST_F(UsbTransportTest, WriteOfZeroBytesStillMakesOneTransfer)
{
    auto camera = AddCamera("SX160", "S1");
    void* handle = Open(camera);
    DataLen empty(nullptr, 0);
    EXPECT_TRUE(usb->Write(&empty, handle));
    EXPECT_EQ(camera->Traffic().outLengths, std::vector<uint32_t>{0});
    usb->CloseDevice(handle);
}

TEST_F(UsbTransportTest, WriteRetriesAfterStallsUpToFiveAttempts)
{
    auto camera = AddCamera("SX160", "S1");
    void* handle = Open(camera);
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
    usb->CloseDevice(handle);
}

TEST_F(UsbTransportTest, TwoCamerasOnOneTransportKeepTheirOwnResidue)
{
    auto a = AddCamera("SX160", "S1");
    auto b = AddCamera("A1400", "S2");
    void* ha = Open(a);
    void* hb = Open(b);
    std::vector<uint8_t> pa = Pattern(512, 10), pb = Pattern(512, 200);
    a->QueueRawPackets({pa});
    b->QueueRawPackets({pb});

    std::vector<uint8_t> got;
    ASSERT_TRUE(Read(ha, got, 12));
    ASSERT_TRUE(Read(hb, got, 12));
    ASSERT_TRUE(Read(ha, got, 500));
    EXPECT_EQ(got, Slice(pa, 12, 500));
    ASSERT_TRUE(Read(hb, got, 500));
    EXPECT_EQ(got, Slice(pb, 12, 500));
    usb->CloseDevice(ha);
    usb->CloseDevice(hb);
}

TEST_F(UsbTransportTest, UnpluggedCameraFailsReadsAndWrites)
{
    auto camera = AddCamera("SX160", "S1");
    void* handle = Open(camera);
    camera->Unplug();
    LogMark mark;
    std::vector<uint8_t> got;
    EXPECT_FALSE(Read(handle, got, 12));
    EXPECT_EQ(mark.Count("Usb read to buffer failed: -4"), 1);
    uint8_t byte = 0;
    DataLen one(&byte, 1);
    EXPECT_FALSE(usb->Write(&one, handle));
    usb->CloseDevice(handle);
}

TEST_F(UsbTransportTest, ReadTimesOutWhenTheCameraSendsNothing)
{
    auto camera = AddCamera("SX160", "S1");
    void* handle = Open(camera);
    LogMark mark;
    std::vector<uint8_t> got;
    EXPECT_FALSE(Read(handle, got, 12));
    EXPECT_EQ(mark.Count("Usb read to buffer failed: -7"), 1);
    usb->CloseDevice(handle);
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
