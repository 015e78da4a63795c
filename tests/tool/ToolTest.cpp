// SPDX-License-Identifier: MIT
// The camera-list tool, run as a program of its own against virtual cameras
// that live in this test process (it inherits the virtual bus through its
// environment), and once through the launcher.

#include <libusb.h>

#include <fstream>
#include <regex>
#include <set>

#include "DevicePTP/PtpCodes.h"
#include "sim/PtpReplies.h"
#include "usb/UsbLib_libusb.h"
#include "tests/common/ChildProcess.h"
#include "tests/common/TestLog.h"
#include "tests/common/VirtualCameraTest.h"

namespace {

using qktest::RunChild;

using ToolTest = qktest::VirtualCameraTest;

TEST_F(ToolTest, NoCameraGivesMessageAndStatus255)
{
    qksim::VirtualBus::Instance().AddOtherDevice(0x1d6b, 0x0104, "Not a camera");
    qktest::ChildRun run = RunChild({QK_TOOL_PATH});
    EXPECT_EQ(run.status, 255);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "camera not found\n");
}

// Unknown products, unreadable serials and cameras that cannot be opened
// still get their line.
TEST_F(ToolTest, OneLinePerCameraInPathOrder)
{
    auto a = AddCamera("SX160", "QKS0001", "", 9);
    auto b = AddCamera("A1400", "QKS0002", "", 10);
    AddCamera("SX160", "QKS0003", "Virtual Camera Z99", 4);
    AddCamera("G15", "QKS0004", "", 5)->SetVendorHandler(PTP_QKM_GetSerialNumber, [](const qksim::PtpCommand&) {
        return qksim::RefusalReply(0x2005);
    });
    auto busy = AddCamera("SX170", "QKS0005", "", 6);
    busy->FailClaim(true);

    qktest::ChildRun run = RunChild({QK_TOOL_PATH});
    EXPECT_EQ(run.status, 0);
    // "...:1:10" sorts before "...:1:4": the order is that of the path strings.
    EXPECT_EQ(run.out, "QKS0002 ; QK Virtual Camera A1400\nQKS0003 ; Virtual Camera Z99\n ; QK Virtual Camera G15\n"
                       " ; \nQKS0001 ; QK Virtual Camera SX160\n");
    // The camera held by another program is named on stderr with what to do.
    EXPECT_EQ(run.err, "qkcam-list: camera " + wstrToStr(busy->Path()) + ": " +
                           UsbLib_libusb::AdviceFor(LIBUSB_ERROR_BUSY) + "\n");
    // Each camera was asked once, and the first transaction of a fresh object has id 0.
    for (const auto& camera : {a, b}) {
        std::vector<qksim::PtpCommand> sent = camera->ReceivedCommands();
        ASSERT_EQ(sent.size(), 1u);
        EXPECT_EQ(sent[0].transId, 0u);
        EXPECT_EQ(sent[0].params, std::vector<uint32_t>{PTP_QKM_GetSerialNumber});
    }
    EXPECT_TRUE(busy->ReceivedCommands().empty());
}

TEST(ToolThroughLauncher, ListsTheLaunchersCameras)
{
    qktest::ChildRun run = RunChild({QK_LAUNCHER_PATH, "--camera", "SX160:QKS0001", "--camera", "A1400:QKS0002",
                                     "--", QK_TOOL_PATH}, true);
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, "QKS0001 ; QK Virtual Camera SX160\nQKS0002 ; QK Virtual Camera A1400\n");

    // With a trace: one line per command, with its camera, sub-command and
    // arrival time; the program is told where the trace is.
    const std::string trace = qktest::TempDir() + "/trace.jsonl";
    run = RunChild({QK_LAUNCHER_PATH, "--camera", "SX160:QKS0001", "--camera", "A1400:QKS0002", "--trace", trace,
                    "--", "/bin/sh", "-c", QK_TOOL_PATH " && echo \"$QKCAM_TRACE\""}, true);
    EXPECT_EQ(run.status, 0);
    EXPECT_NE(run.out.find("\n" + trace + "\n"), std::string::npos) << run.out;
    std::ifstream lines(trace);
    std::set<std::string> serials;
    std::string line;
    const std::regex shape("\\{\"serial\":\"(QKS000[12])\",\"operation\":39321,\"subCommand\":" +
                           std::to_string(PTP_QKM_GetSerialNumber) + ",\"ns\":[1-9][0-9]*\\}");
    for (std::smatch field; std::getline(lines, line); serials.insert(field[1])) {
        ASSERT_TRUE(std::regex_match(line, field, shape)) << line;
    }
    EXPECT_EQ(serials, (std::set<std::string>{"QKS0001", "QKS0002"}));
    EXPECT_EQ(RunChild({QK_LAUNCHER_PATH, "--trace", "/nonexistent/dir/t", "--", "/bin/true"}, true).status, 2);
    for (const char* bad : {"0x480", "640x480:99999999999", "640"})
        EXPECT_EQ(RunChild({QK_LAUNCHER_PATH, "--picture", bad, "--", "/bin/true"}, true).status, 2) << bad;

    // The cards as the program left them, written out after it ended.
    const std::string cards = qktest::TempDir() + "/cards";
    EXPECT_EQ(RunChild({QK_LAUNCHER_PATH, "--camera", "SX160:QKS0003", "--card-dir", cards, "--", "/bin/true"}, true)
                  .status,
              0);
    std::ifstream first(cards + "/QKS0003/IMG_0001.JPG", std::ios::binary);
    std::string jpeg((std::istreambuf_iterator<char>(first)), std::istreambuf_iterator<char>());
    EXPECT_EQ(jpeg.substr(0, 2), "\xff\xd8");
    EXPECT_TRUE(std::ifstream(cards + "/QKS0003/MVI_0002.MOV").good());

    run = RunChild({QK_LAUNCHER_PATH, "--", QK_TOOL_PATH}, true);
    EXPECT_EQ(run.status, 255);
    EXPECT_EQ(run.err, "camera not found\n");
}

} // namespace
