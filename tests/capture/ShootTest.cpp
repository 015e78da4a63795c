// SPDX-License-Identifier: MIT
// Normal shots as a host runs them: shoot, find the file, download it,
// compare it with the card, remove it; the ways a shot goes wrong; and video.

#include <chrono>

#include "tests/common/CardCameraTest.h"

namespace {

using qksim::PtpReply;
using qksim::RefusalReply;
using qktest::LogMark;
using Clock = std::chrono::steady_clock;

class Shoot : public qktest::CardCameraTest {};

TEST_F(Shoot, ShotIsFoundDownloadedAndRemoved)
{
    LogMark mark;
    ASSERT_EQ(ContProc::run(device->PTPShoot()), QK_OK);
    EXPECT_EQ(device->hooks, (std::vector<std::string>{"stop preview", "pre-shoot", "completed", "resume preview"}));
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
    EXPECT_EQ(mark.Count("name: IMG_0005.JPG"), 1);

    const std::string path = Local("shot.jpg");
    ASSERT_EQ(device->PTPDownloadFile(shot.id, path), QK_OK);
    EXPECT_EQ(ReadFile(path), Card().Content(handle));

    // A host's completion function replaces the hook; the next shot is its own file.
    std::vector<QKFileInfo> shots;
    ASSERT_EQ(ContProc::run(device->PTPShoot_Normal([&shots](QKFileInfo file) { shots.push_back(file); })), QK_OK);
    ASSERT_EQ(shots.size(), 1u);
    EXPECT_EQ(device->completed.size(), 1u);
    EXPECT_EQ(std::wstring(shots[0].name), L"IMG_0006.JPG");
    EXPECT_EQ(shots[0].id, static_cast<int>(Card().Find("IMG_0006.JPG")));

    ASSERT_EQ(device->PTPRemoveFile(shot.id), QK_OK);
    EXPECT_FALSE(Card().Has(handle));
    for (const QKFileInfo& f : device->Objects())
        EXPECT_NE(std::wstring(f.name), L"IMG_0005.JPG");
}

TEST_F(Shoot, ShotThatTakesTimeIsPolledUntilFinishedAndMemoryLoggedAtItsMilestones)
{
    Shutter().SetShotDuration(350);
    device->SetMemLogging(true);
    LogMark mark;
    ASSERT_EQ(ContProc::run(device->PTPShoot()), QK_OK);
    EXPECT_GE(Sent(PTP_OC_QKM, PTP_QKM_GetEvents), 3);
    EXPECT_EQ(device->completed.size(), 1u);
    EXPECT_EQ(mark.Count("memory: SHOOT_FINISHED event", "DEB"), 1);
    EXPECT_EQ(mark.Count("memory: after PTPUpdateObjectsInfo", "DEB"), 1);
    EXPECT_EQ(Sent(PTP_OC_QKM, PTP_BASEMOD_ReadMem), 2);
}

// A file listed only at the second look is found; one that never shows
// fails the shot after five listings (after the baseline).
TEST_F(Shoot, FileIsLookedForFiveTimes)
{
    for (const bool never : {false, true}) {
        device->completed.clear();
        camera->ClearRecords();
        Shutter().SetFileDelay(never ? 0 : 250, never);
        LogMark mark;
        EXPECT_EQ(ContProc::run(device->PTPShoot()), never ? QK_ERROR : QK_OK);
        for (int retry = 1; retry <= 4; ++retry)
            EXPECT_EQ(mark.Count("Shoot: new file not found. Retry: " + std::to_string(retry), "ERR"),
                      never || retry == 1 ? 1 : 0);
        EXPECT_EQ(mark.Count("Shoot: new file not found", "ERR"), never ? 5 : 1);
        EXPECT_EQ(Sent(PTP_OC_GetStorageIDs), never ? 6 : 3);
        EXPECT_EQ(Names(device->completed), never ? std::vector<std::wstring>{} : std::vector<std::wstring>{L"IMG_0005.JPG"});
    }
}

TEST_F(Shoot, FailuresEndTheChainWithTheirMessageBeforeTheFile)
{
    // The preview stays stopped: undoing that is the host's business.
    const std::vector<std::string> stopped{"stop preview", "pre-shoot"};
    struct Case {
        const char* message;
        QKResult result;
        uint32_t subCommand; // refused with "device busy"; 0: none
        uint16_t operation;  // refused with code 0x2005; 0: none
        int shots;           // shoot commands sent; -1: no command at all
    } cases[] = {
        {"SetPreShootProperty() failed", QK_LOW_BATTERY, 0, 0, -1},
        {"PTPUpdateObjectsInfo() failed", QK_ERROR, 0, PTP_OC_GetStorageIDs, 0},
        {"PTP_QKM_Shoot failed", QK_ERROR, PTP_QKM_Shoot, 0, 1},
        {"PTPLoadEvents() failed", QK_ERROR, PTP_QKM_GetEvents, 0, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.message);
        device->preShootResult = c.shots < 0 ? c.result : QK_OK;
        if (c.subCommand)
            AnswerVendor(c.subCommand, qksim::RefusalReply(qksim::ptp::RC_DeviceBusy));
        if (c.operation)
            Answer(c.operation, qksim::RefusalReply(0x2005));
        device->hooks.clear();
        camera->ClearRecords();
        LogMark mark;
        EXPECT_EQ(ContProc::run(device->PTPShoot()), c.result);
        EXPECT_EQ(mark.Count(c.message, "ERR"), 1);
        if (c.shots < 0)
            EXPECT_TRUE(camera->ReceivedCommands().empty());
        else
            EXPECT_EQ(Sent(PTP_OC_QKM, PTP_QKM_Shoot), c.shots);
        EXPECT_TRUE(device->completed.empty());
        EXPECT_EQ(device->hooks, stopped);
        if (c.subCommand)
            camera->SetVendorHandler(c.subCommand, nullptr);
        if (c.operation)
            camera->SetOperationHandler(c.operation, nullptr);
    }
}

// Video recording, which bars shots while it runs and leaves a movie on the
// card, and the AE/AF update with its second of settling.

class Video : public qktest::CardCameraTest {
protected:
    static QKFileInfo Untouched()
    {
        QKFileInfo file;
        file.id = 4242;
        file.size = 77;
        return file;
    }
};

TEST_F(Video, ShotsAreRefusedUntilTheRecordingStops)
{
    // Building a chain sends nothing; a host that doesn't run it deletes it.
    delete device->PTPShoot();
    delete device->PTPShoot_Direct([](QKFileInfo) {});
    delete device->PTPUpdateAeAf();
    EXPECT_TRUE(camera->ReceivedCommands().empty());
    EXPECT_TRUE(device->hooks.empty());

    ASSERT_EQ(device->PTPStartVideo(), QK_OK);
    EXPECT_TRUE(device->VideoRecording());
    EXPECT_TRUE(Shutter().Recording());

    camera->ClearRecords();
    LogMark mark;
    EXPECT_EQ(ContProc::run(device->PTPShoot()), QK_ERROR);
    EXPECT_EQ(ContProc::run(device->PTPShoot_Direct([](QKFileInfo) {})), QK_ERROR);
    EXPECT_EQ(mark.Count("Shooting not supported: video recording started", "ERR"), 2);
    EXPECT_TRUE(camera->ReceivedCommands().empty());
    EXPECT_TRUE(device->hooks.empty());

    QKFileInfo movie = Untouched();
    ASSERT_EQ(device->PTPStopVideo(&movie), QK_OK);
    EXPECT_FALSE(device->VideoRecording());
    EXPECT_EQ(std::wstring(movie.name), L"MVI_0005.MOV");
    const uint32_t handle = Card().Find("MVI_0005.MOV");
    EXPECT_EQ(movie.id, static_cast<int>(handle));
    EXPECT_EQ(movie.size, static_cast<int>(Card().Content(handle).size()));

    ASSERT_EQ(ContProc::run(device->PTPShoot()), QK_OK);
    EXPECT_EQ(std::wstring(device->completed.at(0).name), L"IMG_0006.JPG");
}

TEST_F(Video, StopWithoutANewFileStillEndsTheRecording)
{
    // A camera that takes both commands and writes no movie.
    AnswerVendor(PTP_QKM_StartVideo, PtpReply{});
    AnswerVendor(PTP_QKM_StopVideo, PtpReply{});
    ASSERT_EQ(device->PTPStartVideo(), QK_OK);
    QKFileInfo movie = Untouched();
    LogMark mark;
    EXPECT_EQ(device->PTPStopVideo(&movie), QK_ERROR);
    EXPECT_EQ(mark.Count("PTPStopVideo: new file not found", "ERR"), 1);
    EXPECT_FALSE(device->VideoRecording());
    EXPECT_EQ(movie.id, 4242);

    // An empty card after the stop reads the same.
    ASSERT_EQ(device->PTPStartVideo(), QK_OK);
    Card().Clear();
    EXPECT_EQ(device->PTPStopVideo(&movie), QK_ERROR);
    EXPECT_EQ(mark.Count("PTPStopVideo: new file not found", "ERR"), 2);
}

TEST_F(Video, FailedStartLeavesNoRecordingFlagAndRefusedStopKeepsItRunning)
{
    Answer(PTP_OC_GetStorageIDs, RefusalReply(0x2005));
    LogMark started;
    EXPECT_EQ(device->PTPStartVideo(), QK_ERROR);
    EXPECT_EQ(started.Count("PTPUpdateObjectsInfo() failed", "ERR"), 1);
    EXPECT_FALSE(device->VideoRecording());
    EXPECT_EQ(Sent(PTP_OC_QKM, PTP_QKM_StartVideo), 0);
    camera->SetOperationHandler(PTP_OC_GetStorageIDs, nullptr);
    AnswerVendor(PTP_QKM_StartVideo, RefusalReply(qksim::ptp::RC_DeviceBusy));
    EXPECT_EQ(device->PTPStartVideo(), QK_ERROR);
    EXPECT_EQ(started.Count("PTP_QKM_StartVideo failed", "ERR"), 1);
    EXPECT_FALSE(device->VideoRecording());

    camera->SetVendorHandler(PTP_QKM_StartVideo, nullptr);
    ASSERT_EQ(device->PTPStartVideo(), QK_OK);
    AnswerVendor(PTP_QKM_StopVideo, RefusalReply(qksim::ptp::RC_DeviceBusy));
    QKFileInfo movie = Untouched();
    LogMark mark;
    EXPECT_EQ(device->PTPStopVideo(&movie), QK_ERROR);
    EXPECT_EQ(mark.Count("PTP_QKM_StopVideo failed", "ERR"), 1);
    EXPECT_TRUE(device->VideoRecording());
    EXPECT_EQ(movie.id, 4242);
    EXPECT_EQ(ContProc::run(device->PTPShoot()), QK_ERROR);

    // With several new files, the first listed is reported.
    camera->SetVendorHandler(PTP_QKM_StopVideo, nullptr);
    Card().AddFile("IMG_0100.JPG", {1, 2, 3});
    ASSERT_EQ(device->PTPStopVideo(&movie), QK_OK);
    EXPECT_EQ(std::wstring(movie.name), L"IMG_0100.JPG");
}

TEST_F(Video, AeAfUpdateSettlesForASecond)
{
    const Clock::time_point start = Clock::now();
    ASSERT_EQ(ContProc::run(device->PTPUpdateAeAf()), QK_OK);
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(1000));
    EXPECT_EQ(Shutter().AeAfUpdates(), 1);
    EXPECT_EQ(Sent(PTP_OC_QKM, PTP_QKM_UpdateAEAF), 1);

    AnswerVendor(PTP_QKM_UpdateAEAF, RefusalReply(qksim::ptp::RC_DeviceBusy));
    LogMark mark;
    const Clock::time_point failed = Clock::now();
    EXPECT_EQ(ContProc::run(device->PTPUpdateAeAf()), QK_ERROR);
    // A refused update ends at once, without the settling wait.
    EXPECT_LT(Clock::now() - failed, std::chrono::milliseconds(900));
    EXPECT_EQ(mark.Count("PTP_QKM_UpdateAEAF failed", "ERR"), 1);
}

} // namespace
