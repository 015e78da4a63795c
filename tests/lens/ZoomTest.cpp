// SPDX-License-Identifier: MIT
// Zoom: the chain from request to hook on the wire, its limits and failures,
// taking over a zoom made on the camera, and all of it from two threads.

#include <algorithm>
#include <atomic>
#include <thread>

#include "tests/lens/LensFixture.h"

namespace {

using namespace qktest;
using namespace std::chrono_literals;
using qksim::PtpCommand;
using qksim::PtpReply;

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

TEST_F(LensTest, ZoomRunsFromCommandToHookOnceWithinTheLens)
{
    Open("SX160");
    std::atomic<int64_t> arrival{0};
    TimeZoomCommands(*camera, &arrival);
    Clock::time_point hookAt;
    device->onZoomHook = [&hookAt] { hookAt = Clock::now(); };
    LogMark mark;

    ContProc* proc = device->PTPSetZoom(60);
    EXPECT_TRUE(camera->ReceivedCommands().empty()) << "nothing happens before the chain runs";
    ASSERT_EQ(ContProc::run(proc), QK_OK);

    // A 60-position move is over before the first poll: one event fetch.
    const std::vector<uint32_t> chain{PTP_QKM_MfOn, PTP_QKM_SetZoom, PTP_QKM_GetEvents, PTP_QKM_MfOff};
    EXPECT_EQ(SubCommands(*camera), chain);
    EXPECT_EQ(ArgsOf(*camera, PTP_QKM_SetZoom), (std::vector<std::vector<uint32_t>>{{60}}));
    ASSERT_EQ(device->ZoomHooks(), std::vector<int>{60});
    EXPECT_GE(Since(arrival, hookAt), 350ms);
    EXPECT_EQ(ZoomNow(), 60);
    EXPECT_FALSE(Settings().ManualFocusOn());
    for (const char* line : {"Manual focus on zoom: on", "Set zoom on camera: 60", "zoom finished for: 60",
                             "Manual focus on zoom: off", "zoom changed: 60"})
        EXPECT_EQ(mark.Count(line), 1) << line;
    EXPECT_EQ(mark.Count("OnZoomChanged"), 0) << "the derived hook replaces the default";

    // The same position again: every step reaches the camera, nothing is announced.
    camera->ClearRecords();
    LogMark again;
    ASSERT_EQ(Zoom(60), QK_OK);
    EXPECT_EQ(SubCommands(*camera), chain);
    EXPECT_EQ(again.Count("zoom finished for: 60"), 1);
    EXPECT_EQ(again.Count("zoom changed:"), 0);

    // Asked beyond either end of the lens, the chain goes to that end.
    camera->SetVendorHandler(PTP_QKM_SetZoom, nullptr);
    for (int asked : {1000, -7}) {
        const uint32_t end = asked > 0 ? 125 : 0;
        LogMark clamped;
        ASSERT_EQ(Zoom(asked), QK_OK);
        EXPECT_EQ(ArgsOf(*camera, PTP_QKM_SetZoom).back(), std::vector<uint32_t>{end});
        EXPECT_EQ(clamped.Count("Set zoom on camera: " + std::to_string(end)), 1);
        EXPECT_EQ(clamped.Count("zoom finished for: " + std::to_string(end)), 1);
    }
    EXPECT_EQ(device->ZoomHooks(), (std::vector<int>{60, 125, 0}));
    int most = -1;
    EXPECT_EQ(device->GetMaximumZoom(&most), QK_OK);
    EXPECT_EQ(most, 125);
}

TEST_F(LensTest, EarlierFinishEventDoesNotEndANewZoom)
{
    Open("SX160");
    // A finish left in the object's flag from before.
    Settings().RaiseEvents(qksim::ptp::EVENT_ZOOM_FINISHED);
    ASSERT_EQ(device->PTPLoadEvents(), QK_OK);
    ASSERT_TRUE(device->ZoomFinishedFlag());

    Lens().SetZoomTimePerPosition(5ms); // 80 positions: 400 ms
    std::atomic<int64_t> arrival{0};
    TimeZoomCommands(*camera, &arrival);
    bool movingAtHook = true;
    int lensAtHook = -1;
    Clock::time_point hookAt;
    device->onZoomHook = [&] {
        hookAt = Clock::now();
        movingAtHook = Lens().ZoomMoving();
        lensAtHook = Lens().ZoomPosition();
    };
    ASSERT_EQ(Zoom(80), QK_OK);

    ASSERT_EQ(device->ZoomHooks(), std::vector<int>{80});
    EXPECT_GE(Since(arrival, hookAt), 400ms + 250ms);
    EXPECT_GE(ArgsOf(*camera, PTP_QKM_GetEvents).size(), 4u);
    EXPECT_FALSE(movingAtHook);
    EXPECT_EQ(lensAtHook, 80);
}

TEST_F(LensTest, ManualFocusIsHeldAndAskedOnlyWhereTheModelHasIt)
{
    enum Setup { HostSwitchedItOn, CameraOffersNone, ModelHasNone };
    const struct {
        const char* model;
        Setup setup;
        int asked;
        uint32_t sent;
    } cases[] = {{"SX160", HostSwitchedItOn, 10, 10}, {"SX160", CameraOffersNone, 10, 10}, {"A1400", ModelHasNone, 100, 63}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.setup);
        Open(c.model);
        if (c.setup == HostSwitchedItOn) {
            ASSERT_EQ(device->SetPropertyData(static_cast<int>(QKProp::ManualFocusMode), 0), QK_OK);
        } else if (c.setup == CameraOffersNone) {
            Settings().SetFlagWord(0x5);
            ASSERT_EQ(device->LoadCameraFlags(), QK_OK);
        }
        camera->ClearRecords();
        LogMark mark;
        if (c.setup != HostSwitchedItOn) {
            EXPECT_EQ(device->UpdateFocusPos(), QK_UNKNOWN_PROPERTY);
            EXPECT_TRUE(camera->ReceivedCommands().empty());
        }
        ASSERT_EQ(Zoom(c.asked), QK_OK);
        EXPECT_EQ(SubCommands(*camera), (std::vector<uint32_t>{PTP_QKM_SetZoom, PTP_QKM_GetEvents}));
        EXPECT_EQ(ArgsOf(*camera, PTP_QKM_SetZoom), (std::vector<std::vector<uint32_t>>{{c.sent}}));
        EXPECT_EQ(device->ZoomHooks(), std::vector<int>{static_cast<int>(c.sent)});
        // Neither switched nor complained about.
        EXPECT_EQ(mark.Count("Manual focus on zoom"), 0);
        EXPECT_EQ(mark.Count("", "ERR"), 0);
        EXPECT_EQ(Settings().ManualFocusOn(), c.setup == HostSwitchedItOn) << "the host's choice stands";
        TearDown();
    }
}

TEST_F(LensTest, FailedZoomChainLeavesManualFocusOnAndTheNextZoomWorks)
{
    struct Case {
        const char* what;
        uint32_t sub;
        PtpReply reply;
        std::vector<std::pair<std::string, std::string>> lines; // text, type
        size_t leastFetches, mostFetches;
        std::chrono::milliseconds leastTime;
        int32_t lensAfter; // the lens may have moved
    } cases[] = {
        {"refused zoom command", PTP_QKM_SetZoom, Refused(), {{"PTP_QKM_SetZoom failed", "ERR"}}, 0, 0, 0ms, 0},
        {"failed event fetch", PTP_QKM_GetEvents, Refused(),
         {{"PTP_QKM_GetEvents failed", ""}, {"PTPLoadEvents() failed", "ERR"}}, 1, 1, 0ms, 50},
        {"finish never reported", PTP_QKM_SetZoom, PtpReply{},
         {{"zoom to 50 not finished within 300 ms", "ERR"}, {"PTPLoadEvents() failed", "ERR"}}, 3, 1000, 300ms, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Open("SX160");
        AnswerVendor(c.sub, c.reply);
        device->SetChainTimeLimit(300ms);
        LogMark mark;
        const Clock::time_point start = Clock::now();
        EXPECT_EQ(Zoom(50), QK_ERROR);
        EXPECT_GE(Clock::now() - start, c.leastTime);
        for (const auto& line : c.lines)
            EXPECT_EQ(mark.Count(line.first, line.second), 1) << line.first;
        EXPECT_EQ(mark.Count("zoom finished"), 0);
        // Nothing but event fetches after the command: manual focus is not switched back.
        const std::vector<uint32_t> subs = SubCommands(*camera);
        ASSERT_GE(subs.size(), 2u);
        EXPECT_EQ(std::vector<uint32_t>(subs.begin(), subs.begin() + 2), (std::vector<uint32_t>{PTP_QKM_MfOn, PTP_QKM_SetZoom}));
        const size_t fetches = subs.size() - 2;
        EXPECT_EQ(static_cast<size_t>(std::count(subs.begin() + 2, subs.end(), PTP_QKM_GetEvents)), fetches);
        EXPECT_TRUE(fetches >= c.leastFetches && fetches <= c.mostFetches) << fetches;
        EXPECT_TRUE(Settings().ManualFocusOn());
        EXPECT_TRUE(device->ZoomHooks().empty());
        EXPECT_EQ(ZoomNow(), 0);
        EXPECT_EQ(Lens().ZoomPosition(), c.lensAfter);

        camera->SetVendorHandler(c.sub, nullptr);
        EXPECT_EQ(Zoom(50), QK_OK);
        EXPECT_EQ(device->ZoomHooks(), std::vector<int>{50});
        EXPECT_FALSE(Settings().ManualFocusOn());
        TearDown();
    }
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
    EXPECT_EQ(ArgsOf(*camera, PTP_QKM_GetZoom).size(), 1u);

    Settings().SetZoomPosition(40); // turned on the camera
    // A failed read changes nothing.
    AnswerVendor(PTP_QKM_GetZoom, WordsReply({}));
    LogMark failed;
    EXPECT_EQ(device->UpdateZoom(), QK_ERROR);
    EXPECT_EQ(failed.Count("PTP_QKM_GetZoom failed", "ERR"), 1);
    EXPECT_EQ(failed.Count("Get zoom failed", "ERR"), 1);
    EXPECT_EQ(ZoomNow(), 0);
    EXPECT_EQ(device->ZoomHooks(), std::vector<int>{0});

    camera->SetVendorHandler(PTP_QKM_GetZoom, nullptr);
    LogMark mark;
    EXPECT_EQ(device->UpdateZoom(), QK_OK);
    EXPECT_EQ(device->UpdateZoom(), QK_OK);
    EXPECT_EQ(mark.Count("zoom changed from camera: 40", "INF"), 1);
    EXPECT_EQ(device->ZoomHooks(), (std::vector<int>{0, 40}));

    // Beyond the lens, the camera's word is taken as the longest position.
    Settings().SetZoomPosition(999);
    EXPECT_EQ(device->UpdateZoom(), QK_OK);
    EXPECT_EQ(device->ZoomHooks(), (std::vector<int>{0, 40, 125}));
}

// The lens from two threads: a zoom chain on one, queries, take-overs and
// focus shifts on another, as a host with a polling loop would do.
TEST_F(LensTest, QueriesFromAnotherThreadWhileTheZoomChainRuns)
{
    Open("SX160");
    Lens().SetZoomTimePerPosition(8ms); // 100 positions: 800 ms
    ASSERT_EQ(device->PTPManualFocusSet(Row(0)[10], nullptr), QK_OK);

    std::atomic<bool> done{false};
    QKResult chainResult = QK_ERROR;
    std::thread chain([&] {
        chainResult = Zoom(100);
        done = true;
    });
    int rounds = 0;
    while (!done) {
        int zoom = -1, focus = -1;
        EXPECT_EQ(device->UpdateZoom(), QK_OK);
        EXPECT_EQ(device->GetZoom(&zoom), QK_OK);
        EXPECT_GE(zoom, 0);
        EXPECT_LE(zoom, 100);
        EXPECT_EQ(device->UpdateFocusPos(), QK_OK);
        EXPECT_EQ(device->GetFocus(&focus), QK_OK);
        EXPECT_EQ(device->FocusShift(rounds % 2 ? 1 : -1), QK_OK);
        // Copies the model record afresh while the chain reads it.
        EXPECT_EQ(device->Init(), QK_OK);
        ++rounds;
    }
    chain.join();
    ASSERT_EQ(chainResult, QK_OK);
    EXPECT_GE(rounds, 3);

    // The camera's positions while moving, then the chain's; each once.
    std::vector<int> hooks = device->ZoomHooks();
    ASSERT_GE(hooks.size(), 2u);
    EXPECT_LT(hooks.front(), 100);
    EXPECT_EQ(hooks.back(), 100);
    for (size_t i = 1; i < hooks.size(); ++i)
        EXPECT_LT(hooks[i - 1], hooks[i]) << "at " << i;
    EXPECT_EQ(ZoomNow(), 100);
}

TEST_F(LensTest, TwoThreadsTakingOverOneChangeAnnounceItOnce)
{
    Open("SX160");
    std::vector<int> expected;
    for (int position = 5; position <= 100; position += 5) {
        Settings().SetZoomPosition(position);
        std::thread other([&] { EXPECT_EQ(device->UpdateZoom(), QK_OK); });
        EXPECT_EQ(device->UpdateZoom(), QK_OK);
        other.join();
        expected.push_back(position);
    }
    EXPECT_EQ(device->ZoomHooks(), expected);
}

} // namespace
