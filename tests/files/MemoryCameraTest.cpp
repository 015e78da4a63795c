// SPDX-License-Identifier: MIT
// Downloads against the in-memory camera, which answers at memory speed: a
// download there often takes less than the clock's millisecond.

#include <fstream>
#include <iterator>

#include "DevicePTP/DevicePTP.h"
#include "sim/MemoryCamera.h"
#include "tests/common/TestLog.h"
#include "tests/common/VirtualCameraTest.h"

namespace {

using qktest::LogMark;

TEST(MemoryCameraDownload, DownloadFasterThanTheClockShowsFiniteFiguresAndRetriedDataLeavesOneCopy)
{
    auto memory = std::make_shared<qksim::MemoryCamera>();
    const uint32_t tiny =
        memory->AddFile("IMG_0001.JPG", std::make_shared<const std::vector<uint8_t>>(10, uint8_t{7}));
    const std::vector<uint8_t> bytes = qktest::Pattern(0x100000 * 2 + 1234, 31);
    const uint32_t movie = memory->AddFile("MVI_0001.MOV", std::make_shared<const std::vector<uint8_t>>(bytes));
    auto device = DevicePTP::build(memory, qksim::MemoryCamera::Path());
    ASSERT_EQ(device->Init(), QK_OK);
    LogMark mark;
    for (int i = 0; i < 40; ++i)
        ASSERT_EQ(device->PTPDownloadFile(static_cast<int>(tiny), qktest::TempDir() + "/tiny.jpg"), QK_OK);
    // Ten bytes in memory take microseconds: the clock shows no time, and the
    // rate is taken over its resolution of one millisecond, not divided by 0.
    const int instant = mark.Count("download time: 0.0000 sec");
    EXPECT_GE(instant, 1);
    EXPECT_GE(mark.Count("download rate: 0.0095 MB/sec"), instant);
    EXPECT_EQ(mark.Count("inf"), 0);
    EXPECT_EQ(mark.Count("nan"), 0);

    memory->GeneralErrorAfterData(2);
    const std::string path = qktest::TempDir() + "/retried.mov";
    ASSERT_EQ(device->PTPDownloadFile(static_cast<int>(movie), path), QK_OK);
    std::ifstream in(path, std::ios::binary);
    EXPECT_EQ(std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()), bytes);
}

} // namespace
