// The camera-list tool, run as a program of its own against virtual cameras
// that live in this test process (it inherits the virtual bus through its
// environment), and once through the launcher.

#include "DevicePTP/PtpCodes.h"
#include "tests/common/ChildProcess.h"
#include "tests/common/TestLog.h"
#include "tests/common/VirtualCameraTest.h"

namespace {

using ProgramRun = qktest::ChildRun;

ProgramRun RunProgram(const std::vector<std::string>& argv, bool alone = false)
{
    return qktest::RunChild(argv, alone);
}

class ToolTest : public qktest::VirtualCameraTest {};

TEST_F(ToolTest, NoCameraGivesMessageAndStatus255)
{
    qksim::VirtualBus::Instance().AddOtherDevice(0x1d6b, 0x0104, "Not a camera");
    ProgramRun run = RunProgram({QK_TOOL_PATH});
    EXPECT_EQ(run.status, 255);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "camera not found\n");
}

TEST_F(ToolTest, OneLinePerCameraInPathOrder)
{
    qksim::CameraSetup first;
    first.model = "SX160";
    first.serial = "QKS0001";
    first.address = 9;
    qksim::CameraSetup second;
    second.model = "A1400";
    second.serial = "QKS0002";
    second.address = 10;
    auto a = qksim::VirtualBus::Instance().AddCamera(first);
    auto b = qksim::VirtualBus::Instance().AddCamera(second);

    ProgramRun run = RunProgram({QK_TOOL_PATH});
    EXPECT_EQ(run.status, 0);
    // "...:1:10" sorts before "...:1:9": the order is that of the path strings.
    EXPECT_EQ(run.out, "QKS0002 ; QK Virtual Camera A1400\nQKS0001 ; QK Virtual Camera SX160\n");
    EXPECT_EQ(run.err, "");
    // Each camera was asked once, and the first transaction of a fresh object has id 0.
    for (const auto& camera : {a, b}) {
        std::vector<qksim::PtpCommand> sent = camera->ReceivedCommands();
        ASSERT_EQ(sent.size(), 1u);
        EXPECT_EQ(sent[0].transId, 0u);
        EXPECT_EQ(sent[0].params, std::vector<uint32_t>{PTP_QKM_GetSerialNumber});
    }
}

TEST_F(ToolTest, UnknownProductAndUnreadableSerialStillPrintTheirLines)
{
    qksim::CameraSetup unknown;
    unknown.serial = "QKS0003";
    unknown.product = "Virtual Camera Z99";
    unknown.address = 4;
    qksim::CameraSetup mute;
    mute.model = "G15";
    mute.serial = "QKS0004";
    mute.address = 5;
    qksim::VirtualBus::Instance().AddCamera(unknown);
    auto silent = qksim::VirtualBus::Instance().AddCamera(mute);
    qksim::PtpReply refused;
    refused.responseCode = 0x2005;
    silent->SetVendorHandler(PTP_QKM_GetSerialNumber, [refused](const qksim::PtpCommand&) { return refused; });

    ProgramRun run = RunProgram({QK_TOOL_PATH});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, "QKS0003 ; Virtual Camera Z99\n ; QK Virtual Camera G15\n");
}

TEST_F(ToolTest, CameraThatCannotBeOpenedStillShows)
{
    auto camera = AddCamera("SX170", "QKS0005");
    camera->FailClaim(true);
    ProgramRun run = RunProgram({QK_TOOL_PATH});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, " ; \n");
    EXPECT_TRUE(camera->ReceivedCommands().empty());
}

TEST(ToolThroughLauncher, ListsTheLaunchersCameras)
{
    ProgramRun run = RunProgram({QK_LAUNCHER_PATH, "--camera", "SX160:QKS0001", "--camera", "A1400:QKS0002",
                          "--", QK_TOOL_PATH}, true);
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, "QKS0001 ; QK Virtual Camera SX160\nQKS0002 ; QK Virtual Camera A1400\n");

    run = RunProgram({QK_LAUNCHER_PATH, "--", QK_TOOL_PATH}, true);
    EXPECT_EQ(run.status, 255);
    EXPECT_EQ(run.err, "camera not found\n");
}

} // namespace
