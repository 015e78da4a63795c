// SPDX-License-Identifier: MIT
// Downloads from the card through the virtual camera: the bytes that arrive,
// the files left behind when something goes wrong, the link staying in step
// afterwards; and the camera's own log and memory figures.

#include <algorithm>
#include <atomic>
#include <fstream>
#include <memory>

#include "sim/PtpContainer.h"
#include "tests/common/CardCameraTest.h"

namespace {

using qksim::PtpReply;
using qktest::LogMark;
using qktest::Pattern;

class Download : public qktest::CardCameraTest {
protected:
    // The completion function hears of a whole file only, once, by its id.
    QKResult Fetch(uint32_t handle, const std::string& path)
    {
        std::vector<int> ids;
        QKResult result = device->PTPDownloadFile(static_cast<int>(handle), path, [&](int id) { ids.push_back(id); });
        EXPECT_EQ(ids, result == QK_OK ? std::vector<int>{static_cast<int>(handle)} : std::vector<int>{});
        return result;
    }
    // The rate lines never show an infinite or undefined figure.
    static void ExpectFiniteFigures(const LogMark& mark)
    {
        for (const char* figure : {"inf MB/sec", "nan MB/sec", "nan sec"})
            EXPECT_EQ(mark.Count(figure), 0) << figure;
    }
};

TEST_F(Download, CardFilesArriveWholeChunkByChunkAndReplaceTheLocalFile)
{
    const uint32_t handle = Card().Find("IMG_0001.JPG");
    const std::vector<uint8_t> onCard = Card().Content(handle);
    const std::string path = Local("picture.jpg");
    std::ofstream(path, std::ios::binary) << std::string(onCard.size() * 3, 'x');
    LogMark mark;
    ASSERT_EQ(Fetch(handle, path), QK_OK);
    EXPECT_EQ(ReadFile(path), onCard);
    for (const std::string& line : {std::string("Download file completed:"), "size: " + std::to_string(onCard.size()) + " bytes",
                                    "path: " + path, std::string("download rate:")})
        EXPECT_EQ(mark.Count(line), 1) << line;
    ExpectFiniteFigures(mark);
    EXPECT_EQ(Sent(PTP_OC_GetObject), 1);

    // Several mebibytes stream chunk by chunk.
    const uint32_t movie = Card().AddFile("MVI_0100.MOV", Pattern(3 * 0x100000 + 777, 9));
    LogMark chunks;
    ASSERT_EQ(Fetch(movie, Local("movie.mov")), QK_OK);
    EXPECT_EQ(ReadFile(Local("movie.mov")), Card().Content(movie));
    // 1 MiB + 500, 1 MiB, 1 MiB, then the rest.
    EXPECT_EQ(chunks.Count("PTPDownloadFile: write chunk", "DEB"), 4);
    EXPECT_EQ(chunks.Count("PTPDownloadFile: final chunk", "DEB"), 1);
}

TEST_F(Download, EmptyObjectGivesAnEmptyFile)
{
    // Also when an attempt that sent data ended in a general error and the
    // retry sends none: the file holds what the successful attempt sent.
    for (const bool retried : {false, true}) {
        SCOPED_TRACE(retried ? "retried" : "first attempt");
        const uint32_t handle = Card().AddFile("IMG_0200.JPG", {});
        auto attempts = std::make_shared<std::atomic<int>>(0);
        camera->SetOperationHandler(PTP_OC_GetObject, [attempts, retried](const qksim::PtpCommand&) {
            qksim::PtpReply reply;
            reply.hasData = true;
            if (retried && (*attempts)++ == 0) {
                reply.data.assign(3000, 7);
                reply.responseCode = qksim::ptp::RC_GeneralError;
            }
            return reply;
        });
        LogMark mark;
        ASSERT_EQ(Fetch(handle, Local("empty.jpg")), QK_OK);
        EXPECT_TRUE(Exists(Local("empty.jpg")));
        EXPECT_TRUE(ReadFile(Local("empty.jpg")).empty());
        EXPECT_EQ(mark.Count("PTPDownloadFile: write chunk"), retried ? 1 : 0);
        EXPECT_EQ(mark.Count("output rewritten from the start"), retried ? 1 : 0);
        EXPECT_EQ(mark.Count("size: 0 bytes"), 1);
        ExpectFiniteFigures(mark);
    }
}

TEST_F(Download, UnopenablePathSendsNothingUnknownHandleLeavesAnEmptyFileAndFullDiskKeepsTheLinkInStep)
{
    LogMark mark;
    EXPECT_EQ(Fetch(Card().Find("IMG_0001.JPG"), Local("no/such/dir/x.jpg")), QK_ERROR);
    EXPECT_EQ(mark.Count("PTPDownloadFile: output file opening failed", "ERR"), 1);
    EXPECT_TRUE(camera->ReceivedCommands().empty());

    EXPECT_EQ(Fetch(0x7FFF0000, Local("ghost.jpg")), QK_ERROR);
    EXPECT_EQ(mark.Count("PTP_OC_GetObject failed", "ERR"), 1);
    EXPECT_TRUE(Exists(Local("ghost.jpg")) && ReadFile(Local("ghost.jpg")).empty());

    // A full disk fails the download but drains the data phase.
    const uint32_t big = Card().AddFile("MVI_0300.MOV", Pattern(2 * 0x100000 + 4321, 3));
    EXPECT_EQ(Fetch(big, "/dev/full"), QK_ERROR);
    EXPECT_EQ(mark.Count("PTPDownloadFile: write file failed", "ERR"), 1);
    EXPECT_EQ(mark.Count("PTP_OC_GetObject failed"), 1);
    EXPECT_EQ(mark.Count("Download file completed"), 0);
    // The whole data phase was read: the next transaction gets its own reply.
    const uint32_t small = Card().Find("IMG_0004.JPG");
    ASSERT_EQ(Fetch(small, Local("after-full.jpg")), QK_OK);
    EXPECT_EQ(ReadFile(Local("after-full.jpg")), Card().Content(small));
}

TEST_F(Download, GeneralErrorsAfterTheDataRewriteTheFileAndNeverLeaveItTwice)
{
    struct Case {
        int errors;
        size_t size;
        QKResult result;
        int requests; // each one after the first rewrites the file
    } cases[] = {{1, 2 * 0x100000 + 99, QK_OK, 2}, {3, 0x100000 + 5000, QK_ERROR, 3}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.errors);
        const uint32_t handle = Card().AddFile("MVI_0400.MOV", Pattern(c.size, static_cast<uint8_t>(c.errors)));
        Card().GeneralErrorAfterData(handle, c.errors);
        camera->ClearRecords();
        LogMark mark;
        EXPECT_EQ(Fetch(handle, Local("retried.mov")), c.result);
        EXPECT_EQ(ReadFile(Local("retried.mov")), Card().Content(handle));
        EXPECT_EQ(mark.Count("PTP General Error. Retry", "ERR"), c.errors);
        EXPECT_EQ(mark.Count("data sent again, output rewritten from the start", "INF"), c.requests - 1);
        EXPECT_EQ(Sent(PTP_OC_GetObject), c.requests);
        EXPECT_EQ(mark.Count("PTP_OC_GetObject failed", "ERR"), c.result == QK_OK ? 0 : 1);
        EXPECT_EQ(mark.Count("size: " + std::to_string(c.size) + " bytes"), c.result == QK_OK ? 1 : 0);
    }
}

TEST_F(Download, TransferBrokenMidFileKeepsWhatArrived)
{
    const std::vector<uint8_t> bytes = Pattern(3 * 0x100000, 8);
    const uint32_t handle = Card().AddFile("MVI_0600.MOV", bytes);
    // The camera stops after the first chunk. The cut falls on a packet
    // boundary, so the bus ends the next read with a zero-length packet at
    // once instead of after the transfer time-out.
    const uint32_t firstChunk = 0x100000 + 500;
    Card().BreakObjectAfter(handle, 12 + firstChunk);
    LogMark mark;
    EXPECT_EQ(Fetch(handle, Local("broken.mov")), QK_ERROR);
    EXPECT_EQ(mark.Count("GETDATA failed: tail data stage (with callback)", "ERR"), 1);
    EXPECT_EQ(mark.Count("PTP_OC_GetObject failed", "ERR"), 1);
    EXPECT_EQ(ReadFile(Local("broken.mov")), std::vector<uint8_t>(bytes.begin(), bytes.begin() + firstChunk));

    ASSERT_EQ(Fetch(handle, Local("whole.mov")), QK_OK);
    EXPECT_EQ(ReadFile(Local("whole.mov")), bytes);
}

TEST_F(Download, RemovedFileLeavesCardAndCatalogue)
{
    ASSERT_EQ(device->PTPUpdateObjectsInfo(), QK_OK);
    const uint32_t handle = Card().Find("IMG_0004.JPG");
    camera->ClearRecords();
    LogMark mark;
    ASSERT_EQ(device->PTPRemoveFile(static_cast<int>(handle)), QK_OK);
    EXPECT_FALSE(Card().Has(handle));
    EXPECT_EQ(Names(device->Objects()), (std::vector<std::wstring>{L"IMG_0001.JPG", L"MVI_0002.MOV"}));
    EXPECT_EQ(device->LatestFileId(), -1);
    EXPECT_EQ(camera->ReceivedCommands().at(0).params, (std::vector<uint32_t>{handle, 0}));

    // Gone already: the camera refuses and the catalogue isn't rebuilt.
    camera->ClearRecords();
    EXPECT_EQ(device->PTPRemoveFile(static_cast<int>(handle)), QK_ERROR);
    EXPECT_EQ(mark.Count("PTP_OC_DeleteObject failed", "ERR"), 1);
    EXPECT_EQ(Sent(PTP_OC_GetStorageIDs), 0);

    // A removal whose rebuild fails still removes.
    const uint32_t other = Card().Find("IMG_0001.JPG");
    Answer(PTP_OC_GetStorageIDs, qksim::RefusalReply(0x2005));
    EXPECT_EQ(device->PTPRemoveFile(static_cast<int>(other)), QK_ERROR);
    EXPECT_EQ(mark.Count("PTPUpdateObjectsInfo() failed", "ERR"), 1);
    EXPECT_FALSE(Card().Has(other));
}

TEST_F(Download, CleanCardKeepsNumbersBelowTenAndOtherNames)
{
    Card().Clear();
    const char* kept[] = {"IMG_0001.JPG", "IMG_0009.JPG", "IMGX0123.JPG", "IMG_ABC.JPG", "MVI_0011.MOV",
                          "img_0002.jpg"};
    const char* gone[] = {"IMG_0010.JPG", "img_0123.jpg", "img_0012.mov", "IMG_99999999999999999999.JPG"};
    for (const char* name : kept)
        Card().AddFile(name, {1});
    for (const char* name : gone)
        Card().AddFile(name, {2});
    Card().AddFile("IMG_0042.CR2", {3}); // not catalogued, so never touched
    LogMark mark;
    ASSERT_EQ(device->PTPCleanCard(), QK_OK);
    for (const char* name : kept)
        EXPECT_NE(Card().Find(name), 0u) << name;
    for (const char* name : gone)
        EXPECT_EQ(Card().Find(name), 0u) << name;
    EXPECT_NE(Card().Find("IMG_0042.CR2"), 0u);
    EXPECT_EQ(mark.Count("clean file: ", "INF"), 4);
    EXPECT_EQ(mark.Count("clean file: IMG_0010.JPG"), 1);
    EXPECT_EQ(Sent(PTP_OC_DeleteObject), 4);
    EXPECT_EQ(device->Objects().size(), sizeof(kept) / sizeof(kept[0]));

    // Nothing left to clean: one rebuild, no removal.
    camera->ClearRecords();
    ASSERT_EQ(device->PTPCleanCard(), QK_OK);
    EXPECT_EQ(Sent(PTP_OC_GetStorageIDs), 1);
    EXPECT_EQ(Sent(PTP_OC_DeleteObject), 0);

    // The clean stops at the first removal that fails.
    const uint32_t first = Card().AddFile("IMG_0010.JPG", {1});
    const uint32_t second = Card().AddFile("IMG_0011.JPG", {1});
    const uint32_t third = Card().AddFile("IMG_0012.JPG", {1});
    qksim::CameraCard& card = Card();
    camera->SetOperationHandler(PTP_OC_DeleteObject, [&card, second](const qksim::PtpCommand& c) {
        return c.params.at(0) == second ? qksim::RefusalReply(qksim::ptp::RC_AccessDenied) : card.DeleteObject(c);
    });
    EXPECT_EQ(device->PTPCleanCard(), QK_ERROR);
    EXPECT_EQ(mark.Count("PTPRemoveFile failed: " + std::to_string(second), "ERR"), 1);
    EXPECT_FALSE(Card().Has(first));
    EXPECT_TRUE(Card().Has(second));
    EXPECT_TRUE(Card().Has(third));
}

// The camera's own diagnostics: its log file shown in our log, and its
// memory statistics read from the model's address when memory logging is on.

class CameraLog : public qktest::CardCameraTest {
protected:
    std::vector<qktest::VendorCall> MemoryReads() const { return qktest::VendorCalls(*camera, PTP_BASEMOD_ReadMem); }
};

// Without a log file, only a picture named like it is shown, up to its first zero.
TEST_F(CameraLog, CameraWritesItsLogAndWeShowItCutByTheLoggerOrWhatStandsInItsPlace)
{
    Shutter().SetCameraLog("first camera line\nsecond camera line\n");
    LogMark mark;
    ASSERT_EQ(device->PTPDownloadCameraLog(), QK_OK);
    for (const char* line : {"camera log:", "first camera line", "second camera line"})
        EXPECT_EQ(mark.Count(line), 1) << line;
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

    // The camera acknowledges the log command but writes nothing.
    Card().Remove(Card().Find("img_0002.jpg"));
    AnswerVendor(PTP_QKM_GetCamLog, PtpReply{});
    camera->ClearRecords();
    mark = LogMark();
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
    EXPECT_EQ(MemoryReads(), (std::vector<qktest::VendorCall>{{PTP_BASEMOD_ReadMem, {0x10300, 36}}}));
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
    const std::pair<const char*, const char*> models[] = {
        {"A1400", "0xef34"}, {"A810", "0xd974"}, {"G15", "0x10364"}, {"SX160", "0x10300"}};
    std::vector<std::shared_ptr<qksim::VirtualCamera>> cameras;
    for (const auto& model : models)
        cameras.push_back(AddCamera(model.first, std::string("QKM") + model.first));
    for (size_t i = 0; i < cameras.size(); ++i) {
        auto camera = OpenDevice<qktest::CardCamera>(*cameras[i]);
        camera->SetMemLogging(true);
        LogMark mark;
        camera->PTPDebugLogMemory("probe");
        EXPECT_EQ(mark.Count(std::string(models[i].second) + " memory: probe"), 1) << models[i].first;
    }
}

} // namespace
