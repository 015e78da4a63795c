// Video recording, which bars shots while it runs and leaves a movie on the
// card, and the AE/AF update with its second of settling.

#include <chrono>

#include "tests/common/CardCameraTest.h"

namespace {

using qksim::PtpReply;
using qksim::RefusalReply;
using qktest::LogMark;
using Clock = std::chrono::steady_clock;

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
