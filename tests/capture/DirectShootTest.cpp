// SPDX-License-Identifier: MIT
// Direct shots: the picture comes over USB in pieces, is assembled by the
// pieces' positions and is held in memory under an id of its own.

#include "tests/common/CardCameraTest.h"

namespace {

using qksim::PtpCommand;
using qksim::PtpReply;
using qksim::RemotePiece;
using qktest::LogMark;

class DirectShoot : public qktest::CardCameraTest {
protected:
    QKResult ShootDirect()
    {
        return ContProc::run(device->PTPShoot_Direct([this](QKFileInfo file) { shots.push_back(file); }));
    }
    static std::vector<uint8_t> Bytes(const std::string& text) { return {text.begin(), text.end()}; }

    std::vector<QKFileInfo> shots;
};

TEST_F(DirectShoot, OutOfOrderRunsGiveThePictureDownloadedAsOftenAsWanted)
{
    ASSERT_EQ(device->PTPUpdateObjectsInfo(), QK_OK);
    const std::vector<QKFileInfo> catalogueBefore = device->Objects();
    const int latestBefore = device->LatestFileId();
    Shutter().SetRemoteChunking(2048, true);
    Shutter().SetRemoteReadyDelay(350);
    LogMark mark;
    ASSERT_EQ(ShootDirect(), QK_OK);
    EXPECT_GE(Sent(PTP_OC_QKM, PTP_QKM_RemoteCaptureIsReady), 3);
    // Events are read at every poll and after every piece; the flags stay.
    EXPECT_GE(Sent(PTP_OC_QKM, PTP_QKM_GetEvents), 4);
    const std::vector<uint8_t> picture = Shutter().LastRemotePicture();
    ASSERT_GT(picture.size(), 3 * 2048u);

    ASSERT_EQ(shots.size(), 1u);
    EXPECT_EQ(shots[0].id, -100);
    EXPECT_EQ(std::wstring(shots[0].name), L"direct_100.jpg");
    EXPECT_EQ(shots[0].size, static_cast<int>(picture.size()));
    EXPECT_EQ(device->hooks, (std::vector<std::string>{"stop preview", "pre-shoot", "resume preview"}));
    const int pieces = static_cast<int>((picture.size() + 2047) / 2048);
    EXPECT_EQ(Sent(PTP_OC_QKM, PTP_QKM_RemoteCaptureGetData), pieces);
    EXPECT_EQ(mark.Count("Total DirectTransfer buffered files: 1", "INF"), 1);
    // The card and its catalogue know nothing of it.
    EXPECT_EQ(Names(device->Objects()), Names(catalogueBefore));
    EXPECT_EQ(device->LatestFileId(), latestBefore);

    std::vector<int> downloaded;
    auto note = [&downloaded](int id) { downloaded.push_back(id); };
    // Paths that can't be written fail without completion; the file stays buffered.
    EXPECT_EQ(device->PTPDownloadFile(-100, Local("missing/dir/x.jpg"), note), QK_ERROR);
    EXPECT_EQ(mark.Count("PTPDownloadFile: output file opening failed", "ERR"), 1);
    EXPECT_EQ(device->PTPDownloadFile(-100, "/dev/full", note), QK_ERROR);
    EXPECT_EQ(mark.Count("PTPDownloadFile: write file failed", "ERR"), 1);
    EXPECT_EQ(mark.Count("DirectTransfer download file completed"), 0);
    ASSERT_EQ(device->PTPDownloadFile(-100, Local("direct-a.jpg"), note), QK_OK);
    ASSERT_EQ(device->PTPDownloadFile(-100, Local("direct-b.jpg"), note), QK_OK);
    EXPECT_EQ(downloaded, (std::vector<int>{-100, -100}));
    EXPECT_EQ(ReadFile(Local("direct-a.jpg")), picture);
    EXPECT_EQ(ReadFile(Local("direct-b.jpg")), picture);

    ASSERT_EQ(device->PTPRemoveFile(-100), QK_OK);
    EXPECT_EQ(device->DirectFileCount(), 0u);
    EXPECT_EQ(device->PTPDownloadFile(-100, Local("direct-c.jpg"), note), QK_ERROR);
    EXPECT_EQ(device->PTPRemoveFile(-100), QK_ERROR);
    EXPECT_EQ(mark.Count("PTPDownloadFile: DirectTransfer FileId not found!", "ERR"), 1);
    EXPECT_EQ(mark.Count("PTPRemoveFile: DirectTransfer FileId not found!", "ERR"), 1);
    EXPECT_FALSE(Exists(Local("direct-c.jpg")));
    EXPECT_EQ(downloaded.size(), 2u);
}

TEST_F(DirectShoot, PositionsOrderTheRunsAndNothingElse)
{
    // Positions 1000, -1, 0 for A, B, C: runs 0: C and 1000: A, B.
    Shutter().QueueRemotePieces({{Bytes("AAAA"), 1000}, {Bytes("BB"), -1}, {Bytes("C"), 0}});
    // A position seen twice adds to the end of its run; an empty piece counts.
    Shutter().QueueRemotePieces({{Bytes("D"), 5}, {Bytes("E"), 0}, {{}, -1}, {Bytes("F"), 5}, {Bytes("G"), -1}});
    // All at -1: one run under 0, in order of arrival.
    Shutter().QueueRemotePieces({{Bytes("x"), -1}, {Bytes("y"), -1}});
    const std::string expected[] = {"CAAAABB", "EDFG", "xy"};
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(ShootDirect(), QK_OK);
        const std::string path = Local("pieces" + std::to_string(i));
        ASSERT_EQ(device->PTPDownloadFile(shots.back().id, path), QK_OK);
        EXPECT_EQ(ReadFile(path), Bytes(expected[i]));
        EXPECT_EQ(shots.back().size, static_cast<int>(expected[i].size()));
    }
    EXPECT_EQ(device->DirectFileCount(), 3u);
    for (const QKFileInfo& shot : shots)
        ASSERT_EQ(device->PTPRemoveFile(shot.id), QK_OK);
}

TEST_F(DirectShoot, IdsGoDownAndAreNeverReused)
{
    ASSERT_EQ(ShootDirect(), QK_OK);
    ASSERT_EQ(device->PTPRemoveFile(-100), QK_OK);

    // A shot whose fetch fails takes no id and keeps nothing.
    qksim::CameraShutter& shutter = Shutter();
    int fetches = 0;
    camera->SetVendorHandler(PTP_QKM_RemoteCaptureGetData, [&shutter, &fetches](const PtpCommand& c) {
        return ++fetches == 2 ? qksim::RefusalReply(qksim::ptp::RC_AccessDenied) : shutter.RemoteCaptureGetData(c);
    });
    Shutter().SetRemoteChunking(2048, false);
    device->hooks.clear();
    LogMark mark;
    EXPECT_EQ(ShootDirect(), QK_ERROR);
    EXPECT_EQ(mark.Count("PTP_QKM_RemoteCaptureGetData failed", "ERR"), 1);
    EXPECT_EQ(device->DirectFileCount(), 0u);
    EXPECT_EQ(device->NextDirectFileId(), -101);
    EXPECT_EQ(device->hooks, (std::vector<std::string>{"stop preview", "pre-shoot"}));
    EXPECT_EQ(shots.size(), 1u);

    camera->SetVendorHandler(PTP_QKM_RemoteCaptureGetData, nullptr);
    // Nor does a shot the camera refuses to start.
    AnswerVendor(PTP_QKM_RemoteCaptureStart, qksim::RefusalReply(qksim::ptp::RC_DeviceBusy));
    camera->ClearRecords();
    EXPECT_EQ(ShootDirect(), QK_ERROR);
    EXPECT_EQ(mark.Count("PTP_QKM_RemoteCaptureStart failed", "ERR"), 1);
    EXPECT_EQ(Sent(PTP_OC_QKM, PTP_QKM_RemoteCaptureIsReady), 0);
    EXPECT_EQ(device->NextDirectFileId(), -101);
    EXPECT_EQ(shots.size(), 1u);
    camera->SetVendorHandler(PTP_QKM_RemoteCaptureStart, nullptr);
    // The camera gives the broken capture up, as after its own time-out.
    Shutter().AbortRemoteCapture();
    Shutter().QueueRemotePieces({{Bytes("second"), 0}});
    ASSERT_EQ(ShootDirect(), QK_OK);
    ASSERT_EQ(shots.size(), 2u);
    EXPECT_EQ(shots[1].id, -101);
    EXPECT_EQ(std::wstring(shots[1].name), L"direct_101.jpg");
    EXPECT_EQ(device->NextDirectFileId(), -102);
    ASSERT_EQ(device->PTPRemoveFile(-101), QK_OK);
}

// A camera that never finishes: each chain ends at its deadline with
// everything it held freed (the leak check of the sanitizer build sees that).
struct Endless {
    const char* what;
    bool direct;
    void (*arrange)(qksim::VirtualCamera&);
    const char* line;
};

void PrintTo(const Endless& e, std::ostream* os) { *os << e.what; }

class EndlessShot : public DirectShoot, public ::testing::WithParamInterface<Endless> {};

TEST_P(EndlessShot, EndsAtTheChainDeadline)
{
    GetParam().arrange(*camera);
    device->SetChainTimeLimit(std::chrono::milliseconds(300));
    LogMark mark;
    const QKResult result = GetParam().direct ? ShootDirect() : ContProc::run(device->PTPShoot());
    EXPECT_EQ(result, QK_ERROR);
    EXPECT_EQ(mark.Count(GetParam().line, "ERR"), 1);
    EXPECT_TRUE(shots.empty());
    EXPECT_TRUE(device->completed.empty());
    EXPECT_EQ(device->DirectFileCount(), 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Chains, EndlessShot,
    ::testing::Values(
        Endless{"NoFinishEvent", false, [](qksim::VirtualCamera& c) { c.Shutter().SetShotDuration(600000); },
                "Shoot: no finish event within 300 ms"},
        Endless{"NeverReady", true, [](qksim::VirtualCamera& c) { c.Shutter().SetRemoteReadyDelay(600000); },
                "Shoot: remote capture not ready within 300 ms"},
        Endless{"MoreForEver", true,
                [](qksim::VirtualCamera& c) {
                    PtpReply piece;
                    piece.hasData = true;
                    piece.data.assign(4096, 0xAB);
                    piece.responseParams = {4096, 1, 0xFFFFFFFFu};
                    c.SetVendorHandler(PTP_QKM_RemoteCaptureGetData, [piece](const PtpCommand&) { return piece; });
                },
                "picture not complete after"}),
    [](const ::testing::TestParamInfo<Endless>& info) { return std::string(info.param.what); });

} // namespace
