// SPDX-License-Identifier: MIT
// The preview_dump example under the launcher: frames pulled from a virtual
// camera land as BMP files of the picture size.

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "tests/common/ChildProcess.h"
#include "tests/common/TestLog.h"

namespace {

const std::string launcher = QKSIM_LAUNCHER;
const std::string dump = QK_PREVIEW_DUMP;

std::vector<uint8_t> ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

uint32_t Le32(const uint8_t* p) { return p[0] | p[1] << 8 | p[2] << 16 | static_cast<uint32_t>(p[3]) << 24; }

TEST(PreviewExample, DumpsFramesOfEachSizeAsBmpFiles)
{
    struct Case {
        const char* preview;
        uint32_t width, height, bytes;
    } cases[] = {{"704x480", 640, 480, 921654}, {"720x180:240", 320, 240, 230454}};
    for (const Case& c : cases) {
        const std::string dir = qktest::TempDir() + "/dump-" + std::to_string(c.width);
        ASSERT_EQ(qktest::RunChild({"/bin/mkdir", "-p", dir}).status, 0);
        qktest::ChildRun run = qktest::RunChild(
            {launcher, "--preview", c.preview, "--camera", "SX160:QKS0001", "--", dump, "3", dir});
        ASSERT_EQ(run.status, 0) << run.err;
        EXPECT_NE(run.out.find("camera QK Virtual Camera SX160, serial QKS0001"), std::string::npos) << run.out;
        EXPECT_NE(run.out.find("3 of 3 frames"), std::string::npos) << run.out;
        std::vector<uint8_t> previous;
        for (const char* name : {"/preview_000.bmp", "/preview_001.bmp", "/preview_002.bmp"}) {
            const std::vector<uint8_t> file = ReadFile(dir + name);
            ASSERT_EQ(file.size(), c.bytes) << name;
            EXPECT_EQ(file[0], 'B');
            EXPECT_EQ(Le32(&file[18]), c.width);
            EXPECT_EQ(Le32(&file[22]), c.height);
            EXPECT_NE(file, previous) << "each frame has the marker further on";
            previous = file;
        }
    }
}

TEST(PreviewExample, BadArgumentsAreRefused)
{
    EXPECT_EQ(qktest::RunChild({launcher, "--preview", "722x240", "--", "/bin/true"}).status, 2);
    EXPECT_EQ(qktest::RunChild({launcher, "--preview", "720x180", "--", "/bin/true"}).status, 2);
    EXPECT_EQ(qktest::RunChild({dump, "0"}, true).status, 2);
    EXPECT_EQ(qktest::RunChild({dump, "1", "/tmp", "x"}, true).status, 2);
    // No camera on the bus.
    qktest::ChildRun none = qktest::RunChild({launcher, "--", dump, "1"});
    EXPECT_EQ(none.status, 1);
    EXPECT_NE(none.err.find("camera not found"), std::string::npos) << none.err;
}

} // namespace
