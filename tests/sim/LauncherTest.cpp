// qkcam-virtual runs unmodified programs against virtual cameras.

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdio>
#include <string>

#include "sim/VirtualBus.h"

namespace {

struct Outcome {
    std::string output;
    int status = -1;
};

Outcome Launch(const std::string& arguments)
{
    Outcome run;
    const std::string command = std::string(QKSIM_LAUNCHER) + " " + arguments + " 2>&1";
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe)
        return run;
    char chunk[512];
    size_t got;
    while ((got = fread(chunk, 1, sizeof chunk, pipe)) > 0)
        run.output.append(chunk, got);
    const int status = pclose(pipe);
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return run;
}

const std::string kProbe = QKSIM_PROBE;

TEST(Launcher, ChildSeesTheCamerasAndTheirSerials)
{
    Outcome run = Launch("--camera SX160:QKS0001 --camera 'A1400:QKS0002:Virtual A1400 IS' -- " + kProbe);
    EXPECT_EQ(run.status, 0) << run.output;
    EXPECT_NE(run.output.find("1193:12353:1:2 \"QK Virtual Camera SX160\" serial QKS0001\n"), std::string::npos)
        << run.output;
    EXPECT_NE(run.output.find("1193:12353:1:3 \"Virtual A1400 IS\" serial QKS0002\n"), std::string::npos)
        << run.output;
}

TEST(Launcher, OtherDevicesAreListedButNotAsked)
{
    Outcome run = Launch("--other 046d:c077:Mouse -- " + kProbe);
    EXPECT_EQ(run.status, 0) << run.output;
    EXPECT_NE(run.output.find("1133:49271:1:2 \"Mouse\"\n"), std::string::npos) << run.output;
    EXPECT_EQ(run.output.find("serial"), std::string::npos) << run.output;
}

TEST(Launcher, ExitsWithTheChildsStatus)
{
    EXPECT_EQ(Launch("--camera SX160:QKS0001 -- " + kProbe + " 7").status, 7);
    EXPECT_EQ(Launch("-- sh -c 'kill -TERM $$'").status, 128 + 15);
    EXPECT_EQ(Launch("-- /nonexistent/program").status, 127);
}

TEST(Launcher, ChildEnvironmentPointsAtTheTestbed)
{
    Outcome run = Launch("-- sh -c 'echo \"$LD_PRELOAD\"; ls \"$UMOCKDEV_DIR\"/sys/bus/usb/devices'");
    EXPECT_EQ(run.status, 0) << run.output;
    EXPECT_NE(run.output.find("libumockdev-preload.so.0"), std::string::npos) << run.output;
    EXPECT_NE(run.output.find("usb1"), std::string::npos) << run.output;
}

TEST(Launcher, HelpAndUsageErrors)
{
    Outcome help = Launch("--help");
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.output.rfind("Usage: qkcam-virtual", 0), 0u) << help.output;
    EXPECT_EQ(Launch("--camera SX160:QKS0001").status, 2);
    EXPECT_EQ(Launch("--camera SX160 -- true").status, 2);
    EXPECT_EQ(Launch("--other zz:1:x -- true").status, 2);
    EXPECT_EQ(Launch("--bogus -- true").status, 2);
    // More cameras than umockdev can emulate in one program: refused by name.
    std::string many;
    for (int i = 0; i <= qksim::VirtualBus::maxCameras; ++i)
        many += " --camera SX160:S" + std::to_string(i);
    Outcome refused = Launch(many + " -- true");
    EXPECT_EQ(refused.status, 2);
    EXPECT_NE(refused.output.find("51 cameras asked for, at most 50 can be emulated"), std::string::npos)
        << refused.output;
}

} // namespace
