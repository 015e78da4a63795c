// SPDX-License-Identifier: MIT
// qkcam-virtual runs unmodified programs against virtual cameras.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "sim/VirtualBus.h"
#include "tests/common/ChildProcess.h"

namespace {

using Args = std::vector<std::string>;

qktest::ChildRun Launch(Args args)
{
    args.insert(args.begin(), QKSIM_LAUNCHER);
    return qktest::RunChild(args);
}

// Only the cameras are asked for a serial; other devices are just listed.
TEST(Launcher, ChildSeesTheCamerasTheirSerialsAndOtherDevices)
{
    auto run = Launch({"--camera", "SX160:QKS0001", "--camera", "A1400:QKS0002:Virtual A1400 IS", "--other",
                       "046d:c077:Mouse", "--", QKSIM_PROBE});
    EXPECT_EQ(run.status, 0) << run.err;
    for (const char* line : {"1193:12353:1:2 \"QK Virtual Camera SX160\" serial QKS0001\n",
                             "1193:12353:1:3 \"Virtual A1400 IS\" serial QKS0002\n", "1133:49271:1:4 \"Mouse\"\n"})
        EXPECT_NE(run.out.find(line), std::string::npos) << line << run.out;
    size_t asked = 0;
    for (size_t at = run.out.find("serial"); at != std::string::npos; at = run.out.find("serial", at + 1))
        ++asked;
    EXPECT_EQ(asked, 2u) << run.out;
}

TEST(Launcher, ExitsWithTheChildsStatus)
{
    EXPECT_EQ(Launch({"--camera", "SX160:QKS0001", "--", QKSIM_PROBE, "7"}).status, 7);
    EXPECT_EQ(Launch({"--", "/bin/sh", "-c", "kill -TERM $$"}).status, 128 + 15);
    EXPECT_EQ(Launch({"--", "/nonexistent/program"}).status, 127);
}

TEST(Launcher, ChildEnvironmentPointsAtTheTestbed)
{
    auto run = Launch({"--", "/bin/sh", "-c", "echo \"$LD_PRELOAD\"; ls \"$UMOCKDEV_DIR\"/sys/bus/usb/devices"});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_NE(run.out.find("libumockdev-preload.so.0"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("usb1"), std::string::npos) << run.out;
}

TEST(Launcher, HelpAndUsageErrors)
{
    auto help = Launch({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.out.rfind("Usage: qkcam-virtual", 0), 0u) << help.out;
    for (const Args& wrong : {Args{"--camera", "SX160:QKS0001"}, Args{"--camera", "SX160", "--", "true"},
                              Args{"--other", "zz:1:x", "--", "true"}, Args{"--bogus", "--", "true"}})
        EXPECT_EQ(Launch(wrong).status, 2) << wrong[0];
    // More cameras than umockdev can emulate in one program: refused by name.
    Args many;
    for (int i = 0; i <= qksim::VirtualBus::maxCameras; ++i)
        many.insert(many.end(), {"--camera", "SX160:S" + std::to_string(i)});
    many.insert(many.end(), {"--", "true"});
    auto refused = Launch(many);
    EXPECT_EQ(refused.status, 2);
    EXPECT_NE(refused.err.find("51 cameras asked for, at most 50 can be emulated"), std::string::npos)
        << refused.err;
}

} // namespace
