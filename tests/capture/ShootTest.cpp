// Normal shots as a host runs them: shoot, find the file, download it,
// compare it with the card, remove it; and the ways a shot goes wrong.

#include "sim/TestJpeg.h"
#include "tests/common/CardCameraTest.h"

namespace {

using qksim::PtpCommand;
using qksim::PtpReply;
using qktest::LogMark;

class Shoot : public qktest::CardCameraTest {
protected:
    void Refuse(uint32_t subCommand, uint16_t code)
    {
        PtpReply refused;
        refused.responseCode = code;
        camera->SetVendorHandler(subCommand, [refused](const PtpCommand&) { return refused; });
    }
    std::vector<std::string> Completed() const { return {"stop preview", "pre-shoot", "completed", "resume preview"}; }
};

TEST_F(Shoot, ShotIsFoundDownloadedAndRemoved)
{
    LogMark mark;
    ASSERT_EQ(ContProc::run(device->PTPShoot()), QK_OK);
    EXPECT_EQ(device->hooks, Completed());
    ASSERT_EQ(device->completed.size(), 1u);
    const QKFileInfo shot = device->completed[0];
    EXPECT_EQ(std::wstring(shot.name), L"IMG_0005.JPG");
    const uint32_t handle = Card().Find("IMG_0005.JPG");
    ASSERT_NE(handle, 0u);
    EXPECT_EQ(shot.id, static_cast<int>(handle));
    EXPECT_EQ(shot.size, static_cast<int>(Card().Content(handle).size()));
    EXPECT_EQ(device->LatestFileId(), shot.id);
    EXPECT_EQ(Sent(PTP_OC_QKM, PTP_QKM_Shoot), 1);
    EXPECT_GE(Sent(PTP_OC_QKM, PTP_QKM_GetEvents), 1);
    EXPECT_EQ(mark.Count("Shoot started on camera", "INF"), 1);
    EXPECT_EQ(mark.Count("Shoot Completed:", "INF"), 1);
    EXPECT_EQ(mark.Count("name: IMG_0005.JPG"), 1);

    const std::string path = Local("shot.jpg");
    ASSERT_EQ(device->PTPDownloadFile(shot.id, path), QK_OK);
    EXPECT_EQ(ReadFile(path), Card().Content(handle));
    int width = 0, height = 0;
    EXPECT_TRUE(qksim::JpegSize(ReadFile(path), &width, &height));

    ASSERT_EQ(device->PTPRemoveFile(shot.id), QK_OK);
    EXPECT_FALSE(Card().Has(handle));
    for (const QKFileInfo& f : device->Objects())
        EXPECT_NE(std::wstring(f.name), L"IMG_0005.JPG");
}

TEST_F(Shoot, TwoShotsInARowReportTheirOwnFiles)
{
    std::vector<QKFileInfo> shots;
    auto keep = [&shots](QKFileInfo file) { shots.push_back(file); };
    ASSERT_EQ(ContProc::run(device->PTPShoot_Normal(keep)), QK_OK);
    ASSERT_EQ(ContProc::run(device->PTPShoot_Normal(keep)), QK_OK);
    ASSERT_EQ(shots.size(), 2u);
    EXPECT_EQ(std::wstring(shots[0].name), L"IMG_0005.JPG");
    EXPECT_EQ(std::wstring(shots[1].name), L"IMG_0006.JPG");
    EXPECT_NE(shots[0].id, shots[1].id);
    EXPECT_EQ(shots[1].id, static_cast<int>(Card().Find("IMG_0006.JPG")));
    // A host's completion function replaces the hook.
    EXPECT_TRUE(device->completed.empty());
    // The pictures differ: each shows its own number.
    EXPECT_NE(Card().Content(shots[0].id), Card().Content(shots[1].id));
}

TEST_F(Shoot, ShotThatTakesTimeIsPolledUntilFinished)
{
    Shutter().SetShotDuration(350);
    ASSERT_EQ(ContProc::run(device->PTPShoot()), QK_OK);
    EXPECT_GE(Sent(PTP_OC_QKM, PTP_QKM_GetEvents), 3);
    EXPECT_EQ(device->completed.size(), 1u);
}

TEST_F(Shoot, FileListedOnlyAtTheSecondLookIsFound)
{
    Shutter().SetFileDelay(250);
    LogMark mark;
    ASSERT_EQ(ContProc::run(device->PTPShoot()), QK_OK);
    EXPECT_EQ(mark.Count("Shoot: new file not found. Retry: 1", "ERR"), 1);
    EXPECT_EQ(mark.Count("Retry: 2"), 0);
    ASSERT_EQ(device->completed.size(), 1u);
    EXPECT_EQ(std::wstring(device->completed[0].name), L"IMG_0005.JPG");
}

TEST_F(Shoot, FileThatNeverShowsFailsAfterFiveListings)
{
    Shutter().SetFileDelay(0, true);
    LogMark mark;
    EXPECT_EQ(ContProc::run(device->PTPShoot()), QK_ERROR);
    for (int retry = 1; retry <= 4; ++retry)
        EXPECT_EQ(mark.Count("Shoot: new file not found. Retry: " + std::to_string(retry), "ERR"), 1);
    EXPECT_EQ(mark.Count("Shoot: new file not found", "ERR"), 5);
    // Baseline plus five listings after the shot.
    EXPECT_EQ(Sent(PTP_OC_GetStorageIDs), 6);
    EXPECT_TRUE(device->completed.empty());
    // The preview stays stopped: undoing that is the host's business.
    EXPECT_EQ(device->hooks, (std::vector<std::string>{"stop preview", "pre-shoot"}));
}

TEST_F(Shoot, RefusingHookStopsTheShotBeforeTheCamera)
{
    device->preShootResult = QK_LOW_BATTERY;
    LogMark mark;
    EXPECT_EQ(ContProc::run(device->PTPShoot()), QK_LOW_BATTERY);
    EXPECT_EQ(mark.Count("SetPreShootProperty() failed", "ERR"), 1);
    EXPECT_TRUE(camera->ReceivedCommands().empty());
    EXPECT_EQ(device->hooks, (std::vector<std::string>{"stop preview", "pre-shoot"}));
}

TEST_F(Shoot, CameraFailuresEndTheChainWithTheirMessage)
{
    struct Case {
        uint32_t subCommand;
        const char* message;
    } cases[] = {{PTP_QKM_Shoot, "PTP_QKM_Shoot failed"}, {PTP_QKM_GetEvents, "PTPLoadEvents() failed"}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.message);
        Refuse(c.subCommand, qksim::ptp::RC_DeviceBusy);
        device->hooks.clear();
        LogMark mark;
        EXPECT_EQ(ContProc::run(device->PTPShoot()), QK_ERROR);
        EXPECT_EQ(mark.Count(c.message, "ERR"), 1);
        EXPECT_TRUE(device->completed.empty());
        EXPECT_EQ(device->hooks, (std::vector<std::string>{"stop preview", "pre-shoot"}));
        camera->SetVendorHandler(c.subCommand, nullptr);
    }
}

TEST_F(Shoot, BaselineListingThatFailsSendsNoShot)
{
    PtpReply refused;
    refused.responseCode = 0x2005;
    camera->SetOperationHandler(PTP_OC_GetStorageIDs, [refused](const PtpCommand&) { return refused; });
    LogMark mark;
    EXPECT_EQ(ContProc::run(device->PTPShoot()), QK_ERROR);
    EXPECT_EQ(mark.Count("PTPUpdateObjectsInfo() failed", "ERR"), 1);
    EXPECT_EQ(Sent(PTP_OC_QKM, PTP_QKM_Shoot), 0);
}

TEST_F(Shoot, MemoryFiguresAreLoggedAtTheShotsMilestones)
{
    device->SetMemLogging(true);
    LogMark mark;
    ASSERT_EQ(ContProc::run(device->PTPShoot()), QK_OK);
    EXPECT_EQ(mark.Count("memory: SHOOT_FINISHED event", "DEB"), 1);
    EXPECT_EQ(mark.Count("memory: after PTPUpdateObjectsInfo", "DEB"), 1);
    EXPECT_EQ(Sent(PTP_OC_QKM, PTP_BASEMOD_ReadMem), 2);
}

} // namespace
