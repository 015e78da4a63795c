// SPDX-License-Identifier: MIT
// The camera object: identity, the serial number, memory handed to callers,
// hooks of a derived camera and the lifetime of the device handle.

#include <atomic>
#include <thread>

#include "DevicePTP/DevicePTP.h"
#include "DevicePTP/PtpCodes.h"
#include "sim/PtpReplies.h"
#include "tests/common/TestLog.h"
#include "tests/common/VirtualCameraTest.h"

namespace {

using qksim::DataReply;
using qksim::PtpCommand;
using qksim::PtpReply;
using qksim::RefusalReply;
using qktest::LogMark;

class DevicePTPTest : public qktest::VirtualCameraTest {};

TEST_F(DevicePTPTest, InitFindsTheRecordAndTheSerialRequestIsExact)
{
    auto camera = AddCamera("SX160", "QKS0001", "Virtual SX160 HS");
    auto device = DevicePTP::build(Transport(), camera->Path());
    ASSERT_EQ(device->Init(), QK_OK);
    EXPECT_EQ(device->GetCameraName(), L"Virtual SX160 HS");
    EXPECT_EQ(device->GetSerialNumber(), L"");

    ASSERT_EQ(device->QKMLoadSerialNumber(), QK_OK);
    EXPECT_EQ(device->GetSerialNumber(), L"QKS0001");
    // 10 00 00 00 | 01 00 | 99 99 | 00 00 00 00 | A1 00 00 00
    EXPECT_EQ(qktest::Records(camera->ReceivedCommands()), (std::vector<std::vector<uint32_t>>{{16, 1, 0x9999, 0, 0xA1}}));
    EXPECT_EQ(camera->Traffic().outLengths, std::vector<uint32_t>{16});
}

TEST_F(DevicePTPTest, SerialTakesEveryEvenByteZerosIncludedAndAnUnreadableOneKeepsThePrevious)
{
    auto camera = AddCamera("A1400", "X");
    auto device = DevicePTP::build(Transport(), camera->Path());
    ASSERT_EQ(device->Init(), QK_OK);
    struct Case {
        PtpReply reply;
        std::wstring serial;
    } cases[] = {
        {DataReply({'A', 0, 'B', 0, 'C'}), L"ABC"},
        {RefusalReply(0x2005), L"ABC"},
        {DataReply({'A', 'x', 0, 'y', 'C', 0}), std::wstring{L'A', L'\0', L'C'}},
        {DataReply({0xE9, 0}), std::wstring{wchar_t(0xE9)}},
        {DataReply({}), L""},
    };
    for (const Case& c : cases) {
        const bool refused = c.reply.responseCode != 0x2001;
        SCOPED_TRACE(refused ? "refused" : "answered");
        const PtpReply reply = c.reply;
        camera->SetVendorHandler(PTP_QKM_GetSerialNumber, [reply](const PtpCommand&) { return reply; });
        LogMark mark;
        EXPECT_EQ(device->QKMLoadSerialNumber(), refused ? QK_ERROR : QK_OK);
        EXPECT_EQ(device->GetSerialNumber(), c.serial);
        EXPECT_EQ(mark.Count("PTP_QKM_GetSerialNumber failed"), refused ? 1 : 0);
        EXPECT_EQ(mark.Count("PtpTransaction failed"), refused ? 1 : 0);
    }
}

TEST_F(DevicePTPTest, RecognitionTakesTheFirstNameContainedInTheProduct)
{
    // An empty product is the virtual camera's own, which must name the
    // record even when the model is given by its short name. Without a
    // record the device is open all the same.
    struct Case {
        const char* model;
        const char* product;
        const wchar_t* id;
    } cases[] = {
        {"SX160", "QK SX400IS", L"SX400IS"}, {"SX160", "QK SX40HS", L"SX40HS"},
        {"SX160", "camera A810 x", L"A810"}, {"SX160", "sx160", L""},
        {"SX160", "IXUS170IXUS145", L"IXUS145"}, {"SX40", "", L"SX40HS"},
        {"SX400", "", L"SX400IS"},           {"SX410", "", L"SX410IS"},
        {"SX160", "Virtual Camera Z99", L""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.product);
        auto camera = AddCamera(c.model, "QKS0002", c.product);
        auto device = DevicePTP::build(Transport(), camera->Path());
        LogMark mark;
        EXPECT_EQ(device->Init(), *c.id ? QK_OK : QK_ERROR);
        EXPECT_EQ(mark.Count(std::string("camera config not found: ") + c.product), *c.id ? 0 : 1);
        const std::wstring name = *c.product ? strToWstr(c.product) : L"QK Virtual Camera " + std::wstring(c.id);
        EXPECT_EQ(device->GetCameraName(), name);
        EXPECT_EQ(device->GetCameraId(), c.id);
        EXPECT_EQ(device->QKMLoadSerialNumber(), QK_OK);
        EXPECT_EQ(device->GetSerialNumber(), L"QKS0002");
        device.reset();
        TearDown();
    }
}

TEST_F(DevicePTPTest, OneClaimHeldFromInitUntilTheObjectIsDeleted)
{
    auto camera = AddCamera("SX160", "S");
    // A claim that fails leaves the object empty.
    camera->FailClaim(true);
    auto first = DevicePTP::build(Transport(), camera->Path());
    EXPECT_EQ(first->Init(), QK_ERROR);
    EXPECT_EQ(first->GetCameraName(), L"");
    EXPECT_EQ(first->GetCameraId(), L"");
    EXPECT_EQ(first->QKMLoadSerialNumber(), QK_ERROR);
    EXPECT_TRUE(camera->ReceivedCommands().empty());

    camera->FailClaim(false);
    ASSERT_EQ(first->Init(), QK_OK);
    // A second Init keeps the open handle.
    EXPECT_EQ(first->Init(), QK_OK);
    EXPECT_EQ(first->GetCameraId(), L"SX160");
    EXPECT_EQ(first->QKMLoadSerialNumber(), QK_OK);
    // While the first object holds the interface, a second can't claim it.
    EXPECT_EQ(DevicePTP::build(usb, camera->Path())->Init(), QK_ERROR);

    LogMark mark;
    first.reset();
    EXPECT_EQ(mark.Count("DevicePTP deleted"), 1);
    EXPECT_EQ(DevicePTP::build(usb, camera->Path())->Init(), QK_OK);
}

TEST_F(DevicePTPTest, FreePointerReleasesOnceLogsUnknownPointersAndServesManyThreads)
{
    auto device = DevicePTP::build(Transport(), L"1193:12353:1:1");
    int released = 0;
    int* memory = new int[4];
    device->RegisterPointer(memory, [&](void* p) {
        ++released;
        delete[] static_cast<int*>(p);
    });
    LogMark mark;
    device->FreePointer(memory);
    EXPECT_EQ(released, 1);
    EXPECT_EQ(mark.Count("FreePointer: unknown pointer"), 0);
    device->FreePointer(memory);
    EXPECT_EQ(released, 1);
    EXPECT_EQ(mark.Count("FreePointer: unknown pointer"), 1);

    // Registering again replaces the function.
    int first = 0, second = 0;
    static int replaced;
    device->RegisterPointer(&replaced, [&](void*) { ++first; });
    device->RegisterPointer(&replaced, [&](void*) { ++second; });
    device->FreePointer(&replaced);
    EXPECT_EQ(first, 0);
    EXPECT_EQ(second, 1);

    // From many threads, while others register.
    constexpr int count = 400;
    std::vector<int> slots(count);
    std::atomic<int> freed{0};
    for (int& slot : slots)
        device->RegisterPointer(&slot, [&](void*) { ++freed; });
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int i = t; i < count; i += 4)
                device->FreePointer(&slots[i]);
        });
    // Registering goes on while others free.
    std::vector<int> more(count);
    for (int& slot : more)
        device->RegisterPointer(&slot, [&](void*) { ++freed; });
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(freed.load(), count);
    for (int& slot : more)
        device->FreePointer(&slot);
    EXPECT_EQ(freed.load(), 2 * count);
}

TEST_F(DevicePTPTest, DefaultHooksLogAtDebugLevel)
{
    auto device = DevicePTP::build(Transport(), L"1193:12353:1:1");
    LogMark mark;
    device->OnZoomChanged();
    device->OnPropertyChanged(7);
    device->OnPropertyListChanged();
    device->OnShootCompleted(QKFileInfo());
    device->OnFocusChanged();
    for (const char* line : {"OnZoomChanged event", "OnPropertyChanged event: 7", "OnPropertyListChanged event",
                             "OnShootCompleted event", "OnFocusChanged event"})
        EXPECT_EQ(mark.Count(line, "DEB"), 1) << line;
    // A host that overrides nothing is never held back.
    EXPECT_EQ(device->GuardOpenSession(), QK_OK);
}

} // namespace
