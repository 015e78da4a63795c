// SPDX-License-Identifier: MIT
// The vendor channel: reply words, the session, record mode, the single
// commands, the module version and the event word.

#include <chrono>

#include "sim/PtpReplies.h"
#include "tests/common/ModelCameraTest.h"

namespace {

using namespace qktest;
using qksim::PtpCommand;
using qksim::PtpReply;

class VendorChannelTest : public PropertyTest {
protected:
    void SetUp() override { Open("SX160"); }
    void Refuse(uint32_t sub) { AnswerVendor(sub, qksim::RefusalReply(qksim::ptp::RC_OperationNotSupported)); }
    void Reply(uint32_t sub, std::vector<uint8_t> data) { AnswerVendor(sub, qksim::DataReply(std::move(data))); }
};

TEST_F(VendorChannelTest, WordsAreSignedAndBoundedByTheReply)
{
    Reply(0x55, {0xFF, 0xFF, 0xFF, 0xFF, 7, 0, 0, 0, 9, 9});
    std::vector<int> words{42};
    ASSERT_EQ(device->PTPQKMGet(0x55, 2, &words), QK_OK);
    EXPECT_EQ(words, (std::vector<int>{-1, 7}));
    LogMark mark;
    EXPECT_EQ(device->PTPQKMGet(0x55, 3, &words), QK_ERROR);
    EXPECT_EQ(words, (std::vector<int>{-1, 7}));
    EXPECT_EQ(mark.Count("PTPQKMGet failed: 85"), 1);
    Refuse(0x55);
    EXPECT_EQ(device->PTPQKMGet(0x55, 1, &words), QK_ERROR);
    EXPECT_EQ(mark.Count("PTPQKMGet failed: 85"), 2);
}

TEST_F(VendorChannelTest, OpenSessionStartsTheIdsAgain)
{
    ASSERT_EQ(device->QKMLoadSerialNumber(), QK_OK);
    ASSERT_EQ(device->QKMLoadSerialNumber(), QK_OK);
    ASSERT_EQ(device->PTPOpenSession(), QK_OK);
    ASSERT_EQ(device->QKMLoadSerialNumber(), QK_OK);
    EXPECT_EQ(Records(camera->ReceivedCommands()),
              (std::vector<std::vector<uint32_t>>{{16, 1, 0x9999, 0, 0xA1}, {16, 1, 0x9999, 1, 0xA1},
                                                  {16, 1, 0x1002, 0, 1}, {16, 1, 0x9999, 1, 0xA1}}));

    // Session already open.
    Answer(0x1002, qksim::RefusalReply(0x201E));
    LogMark mark;
    EXPECT_EQ(device->PTPOpenSession(), QK_ERROR);
    EXPECT_EQ(mark.Count("PTP_OC_OpenSession failed"), 1);
}

TEST_F(VendorChannelTest, RecordModeIsPolledEveryTenthOfASecond)
{
    ASSERT_EQ(device->PTPWaitForRecMode(), QK_OK);
    EXPECT_EQ(VendorCalls(*camera, PTP_QKM_GetMode).size(), 1u);

    camera->ClearRecords();
    Settings().SetRecordModeAfterPolls(2);
    auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(device->PTPWaitForRecMode(), QK_OK);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200));
    EXPECT_EQ(VendorCalls(*camera, PTP_QKM_GetMode).size(), 3u);

    // With a limit: gives up once it has passed, still polling at the same pace.
    camera->ClearRecords();
    Settings().SetRecordModeAfterPolls(1000);
    {
        LogMark mark;
        EXPECT_EQ(device->PTPWaitForRecMode(std::chrono::milliseconds(250)), QK_NOT_READY);
        EXPECT_EQ(mark.Count("PTPWaitForRecMode: no record mode after 250 ms"), 1);
        EXPECT_EQ(VendorCalls(*camera, PTP_QKM_GetMode).size(), 4u);
    }

    Refuse(PTP_QKM_GetMode);
    LogMark mark;
    EXPECT_EQ(device->PTPWaitForRecMode(), QK_ERROR);
    EXPECT_EQ(mark.Count("PTP_QKM_GetMode failed"), 1);
}

TEST_F(VendorChannelTest, SingleCommandsAndTheirFailures)
{
    ASSERT_EQ(device->EnableKbdAndLcd(), QK_OK);
    ASSERT_EQ(device->EnableLcd(), QK_OK);
    ASSERT_EQ(device->PTPReset(), QK_OK);
    ASSERT_EQ(device->PTPPowerDown(), QK_OK);
    EXPECT_EQ(Settings().Commands(),
              (std::vector<uint32_t>{PTP_QKM_EnableKbd, PTP_QKM_EnableLCD, PTP_QKM_EnableLCD, PTP_QKM_Reset,
                                     PTP_QKM_PowerDown}));

    camera->ClearRecords();
    Refuse(PTP_QKM_EnableKbd);
    LogMark mark;
    EXPECT_EQ(device->EnableKbdAndLcd(), QK_ERROR);
    EXPECT_EQ(mark.Count("EnableKbdAndLcd: PTP_QKM_EnableKbd failed"), 1);
    EXPECT_TRUE(VendorCalls(*camera, PTP_QKM_EnableLCD).empty());

    Refuse(PTP_QKM_EnableLCD);
    Refuse(PTP_QKM_PowerDown);
    Refuse(PTP_QKM_Reset);
    Refuse(PTP_QKM_MfOff);
    EXPECT_EQ(device->EnableLcd(), QK_ERROR);
    EXPECT_EQ(device->PTPPowerDown(), QK_ERROR);
    EXPECT_EQ(device->PTPReset(), QK_ERROR);
    EXPECT_EQ(device->PTPManualFocusEnable(false), QK_ERROR);
    EXPECT_EQ(mark.Count("EnableKbdAndLcd: PTP_QKM_EnableLCD failed"), 1);
    EXPECT_EQ(mark.Count("PTP_QKM_PowerDown failed"), 1);
    EXPECT_EQ(mark.Count("PTP_QKM_Reset failed"), 1);
    EXPECT_EQ(mark.Count("PTPManualFocusEnable: Off", "DEB"), 1);
    EXPECT_EQ(mark.Count("PTP_QKM_MfOn failed"), 1);
}

TEST_F(VendorChannelTest, VersionComparison)
{
    struct Case {
        const char* camera;
        const char* required;
        QKResult result;
    } cases[] = {
        {"1.2.3.4", "1.2.3.5", QK_OLD_MODULE}, {"1.3.0.0", "1.2.9.9", QK_OK},
        {"1.2.3.4", "1.2.3.4", QK_OK},          {"1.9.9.9", "2", QK_OLD_MODULE},
        {"2.0.0.0", "2", QK_OK},                {"1.2", "1.2.0.1", QK_OLD_MODULE},
        {"garbage", "0.0.0.1", QK_OLD_MODULE},
    };
    for (const Case& c : cases) {
        Settings().SetModuleVersion(c.camera);
        LogMark mark;
        EXPECT_EQ(device->QKMLoadVersion(c.required), c.result) << c.camera << " vs " << c.required;
        EXPECT_EQ(device->ModuleVersion(), strToWstr(c.camera));
        const std::string line =
            std::string("Old QKm version. Current: '") + c.camera + "', required: '" + c.required + "'";
        EXPECT_EQ(mark.Count(line), c.result == QK_OLD_MODULE ? 1 : 0) << line;
    }
    Settings().SetModuleVersion("7.7.7.7");
    EXPECT_EQ(device->QKMLoadVersion(nullptr), QK_OK);
    EXPECT_EQ(device->ModuleVersion(), L"7.7.7.7");

    // A version without its closing zero stays inside the reply.
    Reply(PTP_QKM_GetQKmVersion, {'1', '.', '2'});
    EXPECT_EQ(device->QKMLoadVersion("1.1"), QK_OK);
    EXPECT_EQ(device->ModuleVersion(), L"1.2");
    Reply(PTP_QKM_GetQKmVersion, {});
    EXPECT_EQ(device->QKMLoadVersion(nullptr), QK_OK);
    EXPECT_EQ(device->ModuleVersion(), L"");
}

class EventProbe : public RecordingCamera {
public:
    using RecordingCamera::RecordingCamera;
    bool Event(CameraEvent e) { return cameraEvents.at(e); }
};

TEST_F(VendorChannelTest, EventBitsSetFlagsThatStayUntilCleared)
{
    auto probe = std::make_shared<EventProbe>(usb, camera->Path());
    device.reset();
    ASSERT_EQ(probe->Init(), QK_OK);

    Settings().RaiseEvents(0x7000 | 0x200);
    ASSERT_EQ(probe->PTPLoadEvents(), QK_OK);
    EXPECT_FALSE(probe->Event(SHOOT_FINISHED));
    EXPECT_FALSE(probe->Event(ZOOM_FINISHED));

    Settings().RaiseEvents(0x0A);
    ASSERT_EQ(probe->PTPLoadEvents(), QK_OK);
    EXPECT_TRUE(probe->Event(SHOOT_FINISHED));
    EXPECT_TRUE(probe->Event(ZOOM_FINISHED));
    ASSERT_EQ(probe->PTPLoadEvents(), QK_OK); // a word of 0 clears nothing
    EXPECT_TRUE(probe->Event(SHOOT_FINISHED));

    Reply(PTP_QKM_GetEvents, {0x0A, 0});
    LogMark mark;
    EXPECT_EQ(probe->PTPLoadEvents(), QK_ERROR);
    EXPECT_EQ(mark.Count("PTP_QKM_GetEvents failed"), 1);
}

} // namespace
