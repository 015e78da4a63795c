// The camera's own diagnostics: its log file shown in our log, and its
// memory statistics read from the model's address when memory logging is on.

#include <algorithm>

#include "tests/common/CardCameraTest.h"

namespace {

using qksim::PtpCommand;
using qksim::PtpReply;
using qktest::LogMark;

class CameraLog : public qktest::CardCameraTest {
protected:
    std::vector<std::vector<uint32_t>> MemoryReads() const
    {
        std::vector<std::vector<uint32_t>> reads;
        for (const PtpCommand& c : camera->ReceivedCommands())
            if (c.code == PTP_OC_QKM && !c.params.empty() && c.params[0] == PTP_BASEMOD_ReadMem)
                reads.push_back(c.params);
        return reads;
    }
};

TEST_F(CameraLog, CameraWritesItsLogAndWeShowItCutByTheLogger)
{
    Shutter().SetCameraLog("first camera line\nsecond camera line\n");
    LogMark mark;
    ASSERT_EQ(device->PTPDownloadCameraLog(), QK_OK);
    EXPECT_EQ(mark.Count("camera log:", "INF"), 1);
    EXPECT_EQ(mark.Count("first camera line"), 1);
    EXPECT_EQ(mark.Count("second camera line"), 1);
    EXPECT_EQ(Sent(PTP_OC_QKM, PTP_QKM_GetCamLog), 1);
    // Fetched into memory, left on the card.
    EXPECT_NE(Card().Find("img_0002.jpg"), 0u);
    EXPECT_EQ(Sent(PTP_OC_GetObject), 1);

    Shutter().SetCameraLog(std::string(6000, 'L'));
    LogMark longMark;
    ASSERT_EQ(device->PTPDownloadCameraLog(), QK_OK);
    size_t longest = 0, run = 0;
    for (char c : longMark.Since()) {
        run = c == 'L' ? run + 1 : 0;
        longest = std::max(longest, run);
    }
    EXPECT_GT(longest, 4000u);
    EXPECT_LE(longest, 4095u);
}

TEST_F(CameraLog, WithoutALogFileOnlyAPictureNamedLikeItIsShownUpToItsFirstZero)
{
    // The camera acknowledges the log command but writes nothing.
    AnswerVendor(PTP_QKM_GetCamLog, PtpReply{});
    LogMark mark;
    ASSERT_EQ(device->PTPDownloadCameraLog(), QK_OK);
    EXPECT_EQ(mark.Count("camera log:"), 0);
    EXPECT_EQ(Sent(PTP_OC_QKM, PTP_QKM_GetCamLog), 1);
    EXPECT_EQ(Sent(PTP_OC_GetObject), 0);

    Card().AddFile("IMG_0002.JPG", {'J', 'F', 'I', 'F', '-', 'x', 0, 'h', 'i', 'd', 'd', 'e', 'n'});
    ASSERT_EQ(device->PTPDownloadCameraLog(), QK_OK);
    EXPECT_EQ(mark.Count("camera log:"), 1);
    EXPECT_EQ(mark.Count("JFIF-x"), 1);
    EXPECT_EQ(mark.Count("hidden"), 0);

    AnswerVendor(PTP_QKM_GetCamLog, qksim::RefusalReply(0x2005));
    camera->ClearRecords();
    EXPECT_EQ(device->PTPDownloadCameraLog(), QK_ERROR);
    EXPECT_EQ(mark.Count("PTP_QKM_GetCamLog failed", "ERR"), 1);
    EXPECT_EQ(Sent(PTP_OC_GetStorageIDs), 0);
}

TEST_F(CameraLog, MemoryFiguresAreReadFromTheModelsAddressOnlyWhenLoggingIsOnAndMayFail)
{
    const uint32_t removed = Card().Find("IMG_0004.JPG");
    ASSERT_EQ(device->PTPDownloadFile(static_cast<int>(removed), Local("a.jpg")), QK_OK);
    ASSERT_EQ(device->PTPRemoveFile(static_cast<int>(removed)), QK_OK);
    EXPECT_TRUE(MemoryReads().empty());

    camera->Memory().SetStatistics({0xFFFFFFFF, 0x1000, 0x200000, 0xA, 0xB, 0xC, 777, 555, 33});
    device->SetMemLogging(true);
    camera->ClearRecords();
    LogMark mark;
    ASSERT_EQ(device->PTPDownloadFile(static_cast<int>(Card().Find("IMG_0001.JPG")), Local("b.jpg")), QK_OK);
    EXPECT_EQ(MemoryReads(), (std::vector<std::vector<uint32_t>>{{PTP_BASEMOD_ReadMem, 0x10300, 36}}));
    EXPECT_EQ(mark.Count("0x10300 memory: after PTP_OC_GetObject", "DEB"), 1);
    for (const char* line : {"start address:   4096", "total size:      2097152", "allocated peak:  777",
                             "allocated size:  555", "allocated count: 33",
                             "hex: ffffffff 00001000 00200000 0000000a 0000000b 0000000c 00000309 0000022b 00000021 "})
        EXPECT_EQ(mark.Count(line), 1) << line;

    // A word of all ones reads -1 where it is shown in decimal.
    camera->Memory().SetStatistics({0, 0xFFFFFFFF, 0, 0, 0, 0, 0, 0, 0});
    device->PTPDebugLogMemory("tagged");
    EXPECT_EQ(mark.Count("start address:   -1"), 1);

    // Unreadable memory, refused or shorter than its nine words, is logged and the operation goes on.
    for (const PtpReply& reply : {qksim::RefusalReply(0x2005), qksim::DataReply(std::vector<uint8_t>(20, 1))}) {
        AnswerVendor(PTP_BASEMOD_ReadMem, reply);
        LogMark failed;
        ASSERT_EQ(device->PTPDownloadFile(static_cast<int>(Card().Find("IMG_0001.JPG")), Local("c.jpg")), QK_OK);
        EXPECT_EQ(failed.Count("PTP_BASEMOD_ReadMem failed", "ERR"), 1);
        EXPECT_EQ(failed.Count("memory: after PTP_OC_GetObject"), 0);
    }
}

using MemoryAddress = qktest::VirtualCameraTest;

TEST_F(MemoryAddress, EachModelReadsItsOwnRecord)
{
    const std::pair<const char*, uint32_t> models[] = {
        {"A1400", 0xEF34}, {"A810", 0xD974}, {"G15", 0x10364}, {"SX160", 0x10300}};
    std::vector<std::shared_ptr<qksim::VirtualCamera>> cameras;
    for (const auto& model : models)
        cameras.push_back(AddCamera(model.first, std::string("QKM") + model.first));
    for (size_t i = 0; i < cameras.size(); ++i) {
        SCOPED_TRACE(models[i].first);
        auto camera = std::make_shared<qktest::CardCamera>(Transport(), cameras[i]->Path());
        ASSERT_EQ(camera->Init(), QK_OK);
        camera->SetMemLogging(true);
        cameras[i]->Memory().SetStatistics({0, 0, 0, 0, 0, 0, 0, 0, static_cast<uint32_t>(100 + i)});
        LogMark mark;
        camera->PTPDebugLogMemory("probe");
        char expected[64];
        std::snprintf(expected, sizeof(expected), "0x%x memory: probe", models[i].second);
        EXPECT_EQ(mark.Count(expected), 1);
        EXPECT_EQ(mark.Count("allocated count: " + std::to_string(100 + i)), 1);
    }
}

} // namespace
