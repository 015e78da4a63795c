// Zoom: the chain from request to hook on the wire, its limits and failures,
// and taking over a zoom made on the camera.

#include <atomic>

#include "tests/lens/LensFixture.h"

namespace {

using namespace qktest;
using namespace std::chrono_literals;
using qksim::PtpCommand;
using qksim::PtpReply;

constexpr uint32_t eventZoomFinished = 0x08;

// Starts the lens as the camera would, noting when the command arrived.
void TimeZoomCommands(qksim::VirtualCamera& camera, std::atomic<int64_t>* arrival)
{
    qksim::CameraLens* lens = &camera.Lens();
    camera.SetVendorHandler(PTP_QKM_SetZoom, [lens, arrival](const PtpCommand& c) {
        arrival->store(Clock::now().time_since_epoch().count());
        return lens->StartZoom(static_cast<int32_t>(c.params.at(1))) ? PtpReply{} : Refused();
    });
}

std::chrono::nanoseconds Since(const std::atomic<int64_t>& arrival, Clock::time_point later)
{
    return later.time_since_epoch() - std::chrono::nanoseconds(arrival.load());
}

TEST_F(LensTest, ZoomRunsFromCommandToHookOnce)
{
    Open("SX160");
    std::atomic<int64_t> arrival{0};
    TimeZoomCommands(*camera, &arrival);
    LogMark mark;

    ContProc* proc = device->PTPSetZoom(60);
    EXPECT_TRUE(camera->ReceivedCommands().empty()) << "nothing happens before the chain runs";
    ASSERT_EQ(ContProc::run(proc), QK_OK);

    // A 60-position move is over before the first poll: one event fetch.
    EXPECT_EQ(SubCommands(*camera), (std::vector<uint32_t>{PTP_QKM_MfOn, PTP_QKM_SetZoom,
                                                           PTP_QKM_GetEvents, PTP_QKM_MfOff}));
    EXPECT_EQ(ArgsOf(*camera, PTP_QKM_SetZoom), (std::vector<std::vector<uint32_t>>{{60}}));
    ASSERT_EQ(device->ZoomHooks(), std::vector<int>{60});
    EXPECT_GE(Since(arrival, device->ZoomHookTimes()[0]), 350ms);
    int zoom = -1;
    EXPECT_EQ(device->GetZoom(&zoom), QK_OK);
    EXPECT_EQ(zoom, 60);
    EXPECT_EQ(Lens().ZoomPosition(), 60);
    EXPECT_FALSE(Settings().ManualFocusOn());

    EXPECT_EQ(mark.Count("Manual focus on zoom: on", "INF"), 1);
    EXPECT_EQ(mark.Count("Set zoom on camera: 60", "DEB"), 1);
    EXPECT_EQ(mark.Count("zoom finished for: 60", "INF"), 1);
    EXPECT_EQ(mark.Count("Manual focus on zoom: off", "INF"), 1);
    EXPECT_EQ(mark.Count("zoom changed: 60", "INF"), 1);
    EXPECT_EQ(mark.Count("OnZoomChanged"), 0) << "the derived hook replaces the default";

    // The same position again: every step reaches the camera, nothing is announced.
    camera->ClearRecords();
    LogMark again;
    ASSERT_EQ(Zoom(60), QK_OK);
    EXPECT_EQ(SubCommands(*camera), (std::vector<uint32_t>{PTP_QKM_MfOn, PTP_QKM_SetZoom,
                                                           PTP_QKM_GetEvents, PTP_QKM_MfOff}));
    EXPECT_EQ(again.Count("zoom finished for: 60"), 1);
    EXPECT_EQ(again.Count("zoom changed:"), 0);
    EXPECT_EQ(device->ZoomHooks(), std::vector<int>{60});
}

TEST_F(LensTest, ZoomIsLimitedToTheLensAtBothEnds)
{
    Open("SX160");
    LogMark mark;
    ASSERT_EQ(Zoom(1000), QK_OK);
    ASSERT_EQ(Zoom(-7), QK_OK);
    EXPECT_EQ(ArgsOf(*camera, PTP_QKM_SetZoom), (std::vector<std::vector<uint32_t>>{{125}, {0}}));
    EXPECT_EQ(mark.Count("Set zoom on camera: 125"), 1);
    EXPECT_EQ(mark.Count("zoom finished for: 125"), 1);
    EXPECT_EQ(mark.Count("Set zoom on camera: 0"), 1);
    EXPECT_EQ(mark.Count("zoom finished for: 0"), 1);
    EXPECT_EQ(device->ZoomHooks(), (std::vector<int>{125, 0}));
    int zoom = -1;
    device->GetZoom(&zoom);
    EXPECT_EQ(zoom, 0);
    EXPECT_EQ(device->GetMaximumZoom(&zoom), QK_OK);
    EXPECT_EQ(zoom, 125);
}

TEST_F(LensTest, EarlierFinishEventDoesNotEndANewZoom)
{
    Open("SX160");
    // A finish left in the object's flag from before.
    Settings().RaiseEvents(eventZoomFinished);
    ASSERT_EQ(device->PTPLoadEvents(), QK_OK);
    ASSERT_TRUE(device->ZoomFinishedFlag());

    Lens().SetZoomTimePerPosition(5ms); // 80 positions: 400 ms
    std::atomic<int64_t> arrival{0};
    TimeZoomCommands(*camera, &arrival);
    bool movingAtHook = true;
    int lensAtHook = -1;
    device->onZoomHook = [&] {
        movingAtHook = Lens().ZoomMoving();
        lensAtHook = Lens().ZoomPosition();
    };
    ASSERT_EQ(Zoom(80), QK_OK);

    ASSERT_EQ(device->ZoomHooks(), std::vector<int>{80});
    EXPECT_GE(Since(arrival, device->ZoomHookTimes()[0]), 400ms + 250ms);
    EXPECT_GE(CountOf(*camera, PTP_QKM_GetEvents), 4u);
    EXPECT_FALSE(movingAtHook);
    EXPECT_EQ(lensAtHook, 80);
}

TEST_F(LensTest, ManualFocusIsHeldOnlyWhereTheModelHasItOff)
{
    const std::vector<uint32_t> plain{PTP_QKM_SetZoom, PTP_QKM_GetEvents};
    {
        SCOPED_TRACE("SX160 with manual focus switched on by the host");
        Open("SX160");
        ASSERT_EQ(device->SetPropertyData(static_cast<int>(QKProp::ManualFocusMode), 0), QK_OK);
        camera->ClearRecords();
        LogMark mark;
        ASSERT_EQ(Zoom(10), QK_OK);
        EXPECT_EQ(SubCommands(*camera), plain);
        EXPECT_EQ(mark.Count("Manual focus on zoom"), 0);
        EXPECT_TRUE(Settings().ManualFocusOn()) << "the host's choice stands";
        TearDown();
    }
    {
        SCOPED_TRACE("SX160 whose camera offers no manual focus");
        Open("SX160");
        Settings().SetFlagWord(0x5);
        ASSERT_EQ(device->LoadCameraFlags(), QK_OK);
        camera->ClearRecords();
        ASSERT_EQ(Zoom(10), QK_OK);
        EXPECT_EQ(SubCommands(*camera), plain);
        TearDown();
    }
    {
        SCOPED_TRACE("A1400, a model without the property");
        Open("A1400");
        ASSERT_EQ(Zoom(100), QK_OK);
        EXPECT_EQ(SubCommands(*camera), plain);
        EXPECT_EQ(ArgsOf(*camera, PTP_QKM_SetZoom), (std::vector<std::vector<uint32_t>>{{63}}));
        EXPECT_EQ(device->ZoomHooks(), std::vector<int>{63});
    }
}

TEST_F(LensTest, RefusedZoomCommandEndsTheChainWithManualFocusLeftOn)
{
    Open("SX160");
    camera->SetVendorHandler(PTP_QKM_SetZoom, [](const PtpCommand&) { return Refused(); });
    LogMark mark;
    EXPECT_EQ(Zoom(50), QK_ERROR);
    EXPECT_EQ(mark.Count("PTP_QKM_SetZoom failed", "ERR"), 1);
    EXPECT_EQ(SubCommands(*camera), (std::vector<uint32_t>{PTP_QKM_MfOn, PTP_QKM_SetZoom}));
    EXPECT_TRUE(Settings().ManualFocusOn());
    EXPECT_TRUE(device->ZoomHooks().empty());
    int zoom = -1;
    device->GetZoom(&zoom);
    EXPECT_EQ(zoom, 0);
}

TEST_F(LensTest, FailedEventFetchEndsTheChainAndTheLensMayHaveMoved)
{
    Open("SX160");
    camera->SetVendorHandler(PTP_QKM_GetEvents, [](const PtpCommand&) { return Refused(); });
    LogMark mark;
    EXPECT_EQ(Zoom(50), QK_ERROR);
    EXPECT_EQ(mark.Count("PTP_QKM_GetEvents failed"), 1);
    EXPECT_EQ(mark.Count("PTPLoadEvents() failed", "ERR"), 1);
    EXPECT_EQ(mark.Count("zoom finished"), 0);
    EXPECT_EQ(CountOf(*camera, PTP_QKM_MfOff), 0u);
    EXPECT_TRUE(device->ZoomHooks().empty());
    int zoom = -1;
    device->GetZoom(&zoom);
    EXPECT_EQ(zoom, 0);
    EXPECT_EQ(Lens().ZoomPosition(), 50);
}

TEST_F(LensTest, FinishNeverReportedEndsAfterTheLimitAndTheNextZoomWorks)
{
    Open("SX160");
    // The camera takes the command but the lens never moves.
    camera->SetVendorHandler(PTP_QKM_SetZoom, [](const PtpCommand&) { return PtpReply{}; });
    device->SetZoomFinishLimit(300ms);
    LogMark mark;
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(Zoom(50), QK_ERROR);
    EXPECT_GE(Clock::now() - start, 300ms);
    EXPECT_GE(CountOf(*camera, PTP_QKM_GetEvents), 3u);
    EXPECT_EQ(mark.Count("zoom to 50 not finished within 300 ms", "ERR"), 1);
    EXPECT_EQ(mark.Count("PTPLoadEvents() failed", "ERR"), 1);
    EXPECT_TRUE(device->ZoomHooks().empty());
    EXPECT_TRUE(Settings().ManualFocusOn());

    camera->SetVendorHandler(PTP_QKM_SetZoom, nullptr);
    EXPECT_EQ(Zoom(50), QK_OK);
    EXPECT_EQ(device->ZoomHooks(), std::vector<int>{50});
    EXPECT_FALSE(Settings().ManualFocusOn());
}

TEST_F(LensTest, UpdateZoomTakesOverTheCameraAndAnnouncesOnce)
{
    Open("SX160");
    // The load leaves nothing announced, so the first announcement says 0.
    device->SendZoomChanged();
    device->SendZoomChanged();
    EXPECT_EQ(device->ZoomHooks(), std::vector<int>{0});

    LogMark unchanged;
    EXPECT_EQ(device->UpdateZoom(), QK_OK);
    EXPECT_EQ(unchanged.Count("zoom"), 0);
    EXPECT_EQ(CountOf(*camera, PTP_QKM_GetZoom), 1u);

    Settings().SetZoomPosition(40); // turned on the camera
    LogMark mark;
    EXPECT_EQ(device->UpdateZoom(), QK_OK);
    EXPECT_EQ(device->UpdateZoom(), QK_OK);
    EXPECT_EQ(mark.Count("zoom changed from camera: 40", "INF"), 1);
    EXPECT_EQ(mark.Count("zoom changed: 40", "INF"), 1);
    EXPECT_EQ(device->ZoomHooks(), (std::vector<int>{0, 40}));

    // Beyond the lens, the camera's word is taken as the longest position.
    Settings().SetZoomPosition(999);
    EXPECT_EQ(device->UpdateZoom(), QK_OK);
    EXPECT_EQ(device->ZoomHooks(), (std::vector<int>{0, 40, 125}));
}

TEST_F(LensTest, UpdateZoomWithAFailedReadChangesNothing)
{
    Open("SX160");
    Settings().SetZoomPosition(40);
    camera->SetVendorHandler(PTP_QKM_GetZoom, [](const PtpCommand&) { return WordsReply({}); });
    LogMark mark;
    EXPECT_EQ(device->UpdateZoom(), QK_ERROR);
    EXPECT_EQ(mark.Count("PTP_QKM_GetZoom failed", "ERR"), 1);
    EXPECT_EQ(mark.Count("Get zoom failed", "ERR"), 1);
    int zoom = -1;
    device->GetZoom(&zoom);
    EXPECT_EQ(zoom, 0);
    EXPECT_TRUE(device->ZoomHooks().empty());
}

} // namespace
