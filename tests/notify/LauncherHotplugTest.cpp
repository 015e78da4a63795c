// SPDX-License-Identifier: MIT
// The launcher plugs and pulls cameras while its program runs; the
// camera_watch example, as that program, sees them come and go.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/common/ChildProcess.h"

namespace {

using Outcome = qktest::ChildRun;

Outcome Launch(const std::vector<std::string>& argv) { return qktest::RunChild(argv); }

const std::string launcher = QKSIM_LAUNCHER;
const std::string watch = QK_CAMERA_WATCH;

TEST(LauncherHotplug, WatchSeesACameraComeAndGo)
{
    // Plugged before the watch's first poll, pulled between its second and
    // third; the watch ends after its fourth.
    Outcome run = Launch({launcher, "--verbose", "--camera", "SX160:QKS0001", "--plug-after", "200",
                      "A1400:QKS0002:Virtual A1400 IS", "--unplug-after", "2500", "QKS0002", "--", watch,
                      "4"});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out,
              "QKS0001 ; QK Virtual Camera SX160\n"
              "QKS0002 ; Virtual A1400 IS\n"
              "left: QKS0002 ; Virtual A1400 IS\n")
        << run.err;
    EXPECT_NE(run.err.find("plugged Virtual A1400 IS, serial QKS0002, at 1193:12353:1:3"), std::string::npos)
        << run.err;
    EXPECT_NE(run.err.find("unplugged serial QKS0002 from 1193:12353:1:3"), std::string::npos) << run.err;
}

TEST(LauncherHotplug, ScheduleIsCheckedAndAnUnplugOfAnAbsentCameraIsSaid)
{
    EXPECT_EQ(Launch({launcher, "--plug-after", "soon", "SX160:QKS0001", "--", "/bin/true"}).status, 2);
    EXPECT_EQ(Launch({launcher, "--plug-after", "10", "SX160", "--", "/bin/true"}).status, 2);
    EXPECT_EQ(Launch({launcher, "--plug-after", "10"}).status, 2);
    Outcome unknown = Launch({launcher, "--camera", "SX160:QKS0001", "--unplug-after", "10", "QKS0009", "--",
                          "/bin/true"});
    EXPECT_EQ(unknown.status, 2);
    EXPECT_NE(unknown.err.find("no camera with serial QKS0009"), std::string::npos) << unknown.err;

    // Pulled before it was plugged: said, and the run goes on.
    Outcome early = Launch({launcher, "--unplug-after", "0", "QKS0002", "--plug-after", "50", "A1400:QKS0002",
                        "--", "/bin/sleep", "0.3"});
    EXPECT_EQ(early.status, 0);
    EXPECT_NE(early.err.find("no camera QKS0002 on the bus to unplug"), std::string::npos) << early.err;

    EXPECT_EQ(Launch({watch, "later"}).status, 2);
    EXPECT_EQ(Launch({watch, "1", "2"}).status, 2);
}

} // namespace
