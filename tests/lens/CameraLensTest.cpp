// SPDX-License-Identifier: MIT
// The virtual lens on its own: the zoom motor's timing and finish event, and
// where the focus lands. Positions are checked against the clock read around
// each question, so a slow machine cannot make them fail.

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <thread>

#include "sim/CameraLens.h"
#include "sim/CameraSettings.h"
#include "sim/PtpContainer.h"
#include "sim/PtpResponder.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using qksim::CameraLens;
using qksim::CameraSettings;

// A lens installed as a camera has it, so its finish reaches the event word.
struct Lens {
    explicit Lens(const std::string& model)
        : settings(std::make_shared<CameraSettings>(model, "")),
          lens(std::make_shared<CameraLens>(model, "", settings))
    {
        qksim::InstallLensOperations(responder, lens, *settings);
    }
    qksim::PtpResponder responder;
    std::shared_ptr<CameraSettings> settings;
    std::shared_ptr<CameraLens> lens;
};

int64_t Ms(Clock::duration d) { return std::chrono::duration_cast<std::chrono::milliseconds>(d).count(); }

TEST(CameraLens, ZoomMotorTakesItsTimePerPosition)
{
    Lens l("SX160");
    EXPECT_EQ(l.lens->MaxZoom(), 125);
    l.lens->SetZoomTimePerPosition(10ms);
    // The motor starts somewhere between these two.
    const Clock::time_point beforeStart = Clock::now();
    ASSERT_TRUE(l.lens->StartZoom(30));
    const Clock::time_point afterStart = Clock::now();
    for (int i = 0; i < 5; ++i) {
        std::this_thread::sleep_for(40ms);
        const int64_t least = Ms(Clock::now() - afterStart);
        const int32_t position = l.lens->ZoomPosition();
        const int64_t most = Ms(Clock::now() - beforeStart);
        EXPECT_GE(position, std::min<int64_t>(30, least / 10));
        EXPECT_LE(position, std::min<int64_t>(30, most / 10));
    }
    while (l.lens->ZoomMoving())
        std::this_thread::sleep_for(5ms);
    EXPECT_EQ(l.lens->ZoomPosition(), 30);
    EXPECT_EQ(l.settings->ZoomPosition(), 30) << "the lens rests where it arrived";
    // ... and takes its resting place from the settings.
    l.settings->SetZoomPosition(42);
    EXPECT_EQ(l.lens->ZoomPosition(), 42);
    l.lens->SetZoomTimePerPosition(0ms);
    ASSERT_TRUE(l.lens->StartZoom(40));
    EXPECT_EQ(l.lens->ZoomPosition(), 40);
}

TEST(CameraLens, FinishIsReportedOnceThroughTheEventWord)
{
    Lens l("SX160");
    l.lens->SetZoomTimePerPosition(20ms);
    const Clock::time_point start = Clock::now();
    ASSERT_TRUE(l.lens->StartZoom(5)); // 100 ms
    const uint32_t early = l.settings->TakeEvents();
    if (Clock::now() - start < 100ms) {
        EXPECT_EQ(early & qksim::ptp::EVENT_ZOOM_FINISHED, 0u);
    }
    std::this_thread::sleep_for(120ms);
    EXPECT_EQ(l.settings->TakeEvents() & qksim::ptp::EVENT_ZOOM_FINISHED, qksim::ptp::EVENT_ZOOM_FINISHED);
    EXPECT_EQ(l.settings->TakeEvents() & qksim::ptp::EVENT_ZOOM_FINISHED, 0u);

    // An arrival not yet reported is forgotten when a new move starts.
    l.lens->SetZoomTimePerPosition(0ms);
    ASSERT_TRUE(l.lens->StartZoom(9));
    EXPECT_EQ(l.lens->ZoomPosition(), 9);
    l.lens->SetZoomTimePerPosition(1000ms);
    ASSERT_TRUE(l.lens->StartZoom(10));
    EXPECT_EQ(l.settings->TakeEvents() & qksim::ptp::EVENT_ZOOM_FINISHED, 0u);
    EXPECT_EQ(l.lens->ZoomPosition(), 9);
}

TEST(CameraLens, FocusLandsOnTheNearestEntryOfTheZoomsRow)
{
    Lens l("SX160");
    const std::vector<int32_t>& row0 = l.lens->FocusTable().at(0);
    EXPECT_EQ(l.lens->FocusPosition(), row0.back()) << "switched on at the far end";
    const int32_t a = row0[row0.size() - 2], b = row0.back();
    EXPECT_EQ(l.lens->MoveFocusTo(a + (b - a) / 2 - 1), a);
    EXPECT_EQ(l.lens->MoveFocusTo(a + (b - a) / 2 + 1), b);
    EXPECT_EQ(l.lens->MoveFocusTo(0), row0.front());
    EXPECT_EQ(l.lens->MoveFocusTo(b + 100000), b);
    EXPECT_EQ(l.lens->MoveFocusTo(-1), -1);

    l.settings->SetZoomPosition(60);
    const std::vector<int32_t>& row60 = l.lens->FocusTable().at(60);
    EXPECT_EQ(l.lens->MoveFocusTo(row60[7]), row60[7]);

    l.lens->SetFocusStuck(true);
    EXPECT_EQ(l.lens->MoveFocusTo(row60[20]), row60[7]);
    l.lens->SetFocusStuck(false);
    EXPECT_EQ(l.lens->MoveFocusTo(row60[20]), row60[20]);

    // The first word of the focus state follows the manual focus switch.
    EXPECT_EQ(l.lens->FocusParams(), (std::vector<int32_t>{0, row60[20]}));
    l.settings->SetManualFocus(true);
    EXPECT_EQ(l.lens->FocusParams(), (std::vector<int32_t>{1, row60[20]}));
}

TEST(CameraLens, SmallLensRefusesZoomBeyondItAndFocusesWhereItIsTold)
{
    Lens l("A1400");
    EXPECT_FALSE(l.lens->StartZoom(64));
    EXPECT_FALSE(l.lens->StartZoom(-1));
    EXPECT_FALSE(l.lens->ZoomMoving());
    EXPECT_TRUE(l.lens->StartZoom(63));
    // No focus table.
    EXPECT_TRUE(l.lens->FocusTable().empty());
    EXPECT_EQ(l.lens->FocusPosition(), 0);
    EXPECT_EQ(l.lens->MoveFocusTo(1234), 1234);
}

} // namespace
