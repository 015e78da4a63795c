// SPDX-License-Identifier: MIT
// The catalogue of the card through the virtual camera: what enters it, how
// the new file is found, names as the camera sends them, and replies that
// don't hold what they announce.

#include <cwchar>

#include "sim/PtpContainer.h"
#include "tests/common/CardCameraTest.h"

namespace {

using qksim::CameraCard;
using qksim::DataReply;
using qksim::PtpCommand;
using qksim::PtpReply;
using qksim::WordsReply;
using qktest::LogMark;

class Catalogue : public qktest::CardCameraTest {
protected:
    std::vector<QKFileInfo> FileList()
    {
        QKFileInfo* files = nullptr;
        int count = -1;
        EXPECT_EQ(device->GetFileList(&files, &count), QK_OK);
        std::vector<QKFileInfo> copy(files, files + (count > 0 ? count : 0));
        if (files)
            device->FreePointer(files);
        return copy;
    }
    // An ObjectInfo of `size` bytes whose Filename has this count byte and
    // these 16-bit characters.
    static std::vector<uint8_t> InfoWithName(uint32_t size, uint8_t count, const std::vector<uint16_t>& chars)
    {
        qksim::CardObject object;
        object.format = qksim::ptp::OFC_ExifJpeg;
        object.bytes = std::make_shared<const std::vector<uint8_t>>(size, 0);
        std::vector<uint8_t> info = CameraCard::ObjectInfo(object);
        info.resize(52);
        info.push_back(count);
        for (uint16_t c : chars)
            qksim::PutLe16(info, c);
        return info;
    }
    static std::vector<uint16_t> Chars(const std::string& text)
    {
        std::vector<uint16_t> chars(text.begin(), text.end());
        chars.push_back(0);
        return chars;
    }
};

TEST_F(Catalogue, FreshCardListsPicturesAndMoviesInTheCamerasOrderWithTheirExtension)
{
    ASSERT_EQ(device->PTPUpdateObjectsInfo(), QK_OK);
    const std::vector<QKFileInfo> files = FileList();
    EXPECT_EQ(Names(files), (std::vector<std::wstring>{L"IMG_0001.JPG", L"MVI_0002.MOV", L"IMG_0004.JPG"}));
    for (const QKFileInfo& f : files) {
        const uint32_t handle = Card().Find(wstrToStr(f.name));
        EXPECT_EQ(f.id, static_cast<int>(handle));
        EXPECT_EQ(f.size, static_cast<int>(Card().Content(handle).size()));
    }

    // Two transactions, then one ObjectInfo per object, folders included.
    EXPECT_EQ(Sent(PTP_OC_GetStorageIDs), 1);
    EXPECT_EQ(Sent(PTP_OC_GetObjectInfo), static_cast<int>(Card().Objects().size()));
    for (const PtpCommand& c : camera->ReceivedCommands())
        if (c.code == PTP_OC_GetObjectHandles) {
            EXPECT_EQ(c.params, (std::vector<uint32_t>{CameraCard::kStorageId, 0, 0}));
        }

    // Only names longer than their JPG or MOV extension enter.
    Card().Clear();
    const uint32_t dcim = Card().AddFolder("DCIM");
    for (const char* name : {"IMG_0001.JPG", "img_0001.jpg", "MVI_0002.MoV", "A.JPG", ".jpg", "IMG_0001.CR2",
                             "README", "X.MOVIE"})
        Card().AddFile(name, {1, 2, 3}, dcim);
    ASSERT_EQ(device->PTPUpdateObjectsInfo(), QK_OK);
    EXPECT_EQ(Names(device->Objects()),
              (std::vector<std::wstring>{L"IMG_0001.JPG", L"img_0001.jpg", L"MVI_0002.MoV", L"A.JPG"}));
}

TEST_F(Catalogue, NewFileIsTheFirstUnknownPairOfHandleAndSize)
{
    // Against an empty catalogue the first file listed is the new one.
    const uint32_t a = Card().Find("IMG_0001.JPG");
    ASSERT_EQ(device->PTPUpdateObjectsInfo(), QK_OK);
    EXPECT_EQ(device->LatestFileId(), static_cast<int>(a));
    ASSERT_EQ(device->PTPUpdateObjectsInfo(), QK_OK);
    EXPECT_EQ(device->LatestFileId(), -1);

    // Same handle, other size: a new file.
    ASSERT_TRUE(Card().Replace(a, std::vector<uint8_t>(Card().Content(a).size() + 50, 1)));
    ASSERT_EQ(device->PTPUpdateObjectsInfo(), QK_OK);
    EXPECT_EQ(device->LatestFileId(), static_cast<int>(a));

    // Two new files: the one listed first.
    const uint32_t b = Card().AddFile("IMG_0102.JPG", std::vector<uint8_t>(10, 2));
    const uint32_t c = Card().AddFile("IMG_0103.JPG", std::vector<uint8_t>(20, 3));
    ASSERT_EQ(device->PTPUpdateObjectsInfo(), QK_OK);
    EXPECT_EQ(device->LatestFileId(), static_cast<int>(b));

    // A removal is no news.
    Card().Remove(b);
    ASSERT_EQ(device->PTPUpdateObjectsInfo(), QK_OK);
    EXPECT_EQ(device->LatestFileId(), -1);

    // A handle used again: with the old size it passes for the old file.
    Card().Remove(c);
    Card().AddFile("IMG_0104.JPG", std::vector<uint8_t>(20, 4), 0, c);
    ASSERT_EQ(device->PTPUpdateObjectsInfo(), QK_OK);
    EXPECT_EQ(device->LatestFileId(), -1);
    Card().Remove(c);
    Card().AddFile("IMG_0105.JPG", std::vector<uint8_t>(21, 5), 0, c);
    ASSERT_EQ(device->PTPUpdateObjectsInfo(), QK_OK);
    EXPECT_EQ(device->LatestFileId(), static_cast<int>(c));
    EXPECT_EQ(Names(device->Objects()),
              (std::vector<std::wstring>{L"IMG_0001.JPG", L"MVI_0002.MOV", L"IMG_0004.JPG", L"IMG_0105.JPG"}));
}

TEST_F(Catalogue, NamesAreLowBytesCutAt127AndZeroFilled)
{
    Card().Clear();
    const uint32_t h1 = Card().AddFile("ONE.JPG", {});
    const uint32_t h2 = Card().AddFile("TWO.JPG", {});
    const uint32_t h3 = Card().AddFile("THREE.JPG", {});
    const uint32_t h4 = Card().AddFile("FOUR.JPG", {});
    const std::string longName = std::string(123, 'a') + ".jpg" + std::string(126, 'z');
    std::map<uint32_t, std::vector<uint8_t>> infos = {
        {h1, InfoWithName(11, 254, Chars(longName))},
        {h2, InfoWithName(22, 13, {0x0149, 0x4D, 0x3147, 0x5F, '1', '.', 'J', 'P', 'G', 0xFF4A, 'x', 'y', 0})},
        {h3, InfoWithName(33, 9, {'A', 'B', 0x0100, 'C', '.', 'j', 'p', 'g', 0})},
        {h4, InfoWithName(44, 0, {})},
    };
    camera->SetOperationHandler(PTP_OC_GetObjectInfo,
                                [infos](const PtpCommand& c) { return DataReply(infos.at(c.params.at(0))); });
    std::vector<QKFileInfo> files;
    ASSERT_EQ(device->PTPGetFilesInfo(&files), QK_OK);
    ASSERT_EQ(files.size(), 4u);
    EXPECT_EQ(files[0].name, strToWstr(longName.substr(0, 127)));
    EXPECT_EQ(files[0].size, 11);
    EXPECT_EQ(files[1].name, std::wstring(L"IMG_1.JPGJxy"));
    EXPECT_EQ(files[2].name, std::wstring(L"AB"));
    EXPECT_EQ(files[3].name, std::wstring(L""));
    EXPECT_EQ(files[3].id, static_cast<int>(h4));
    for (const QKFileInfo& f : files)
        for (size_t i = std::wcslen(f.name); i < 128; ++i)
            ASSERT_EQ(f.name[i], L'\0');

    // The cut name still ends in .jpg, so it enters the catalogue.
    ASSERT_EQ(device->PTPUpdateObjectsInfo(), QK_OK);
    EXPECT_EQ(Names(device->Objects()), std::vector<std::wstring>{strToWstr(longName.substr(0, 127))});
}

TEST_F(Catalogue, FailedOrShortRepliesFailTheRebuildAndKeepTheCatalogue)
{
    ASSERT_EQ(device->PTPUpdateObjectsInfo(), QK_OK);
    const std::vector<QKFileInfo> before = device->Objects();
    const int latestBefore = device->LatestFileId();
    const int32_t first = static_cast<int32_t>(Card().Find("IMG_0001.JPG"));
    // A new file the failing rebuilds gather and then drop.
    const uint32_t added = Card().AddFile("IMG_0005.JPG", {5, 5, 5});
    const uint32_t cr2 = Card().Find("IMG_0003.CR2");
    int cr2Position = 0;
    while (Card().Objects()[cr2Position++].handle != cr2) {
    }

    struct Case {
        const char* what;
        uint16_t code; // 0: the camera refuses the ObjectInfo of the CR2 file
        PtpReply reply;
        const char* message;
        int objectInfos; // asked before the walk stops
    } cases[] = {
        {"no storage", PTP_OC_GetStorageIDs, WordsReply({0}), "PTP_OC_GetStorageIDs failed", 0},
        {"storage count without id", PTP_OC_GetStorageIDs, WordsReply({1}), "PTP_OC_GetStorageIDs failed", 0},
        {"empty handle reply", PTP_OC_GetObjectHandles, DataReply({}), "PTP_OC_GetObjectHandles failed", 0},
        {"fewer handles than counted", PTP_OC_GetObjectHandles, WordsReply({3, first, first}),
         "PTP_OC_GetObjectHandles failed", 0},
        {"ObjectInfo without Filename", PTP_OC_GetObjectInfo, DataReply(std::vector<uint8_t>(52, 0)),
         "PTP_OC_GetObjectInfo failed", 1},
        {"Filename past the end", PTP_OC_GetObjectInfo, DataReply(InfoWithName(5, 10, Chars("ABCD"))),
         "PTP_OC_GetObjectInfo failed", 1},
        {"one ObjectInfo refused", 0, {}, "PTP_OC_GetObjectInfo failed", cr2Position},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        if (c.code)
            Answer(c.code, c.reply);
        else
            Card().FailObjectInfo(cr2, qksim::ptp::RC_AccessDenied);
        camera->ClearRecords();
        LogMark mark;
        EXPECT_EQ(device->PTPUpdateObjectsInfo(), QK_ERROR);
        EXPECT_EQ(mark.Count(c.message, "ERR"), 1);
        EXPECT_EQ(mark.Count("PTPGetFilesInfo failed", "ERR"), 1);
        EXPECT_EQ(Sent(PTP_OC_GetObjectInfo), c.objectInfos);
        EXPECT_EQ(Names(device->Objects()), Names(before));
        EXPECT_EQ(device->LatestFileId(), latestBefore);
        EXPECT_EQ(Names(FileList()), Names(before));
        if (c.code)
            camera->SetOperationHandler(c.code, nullptr);
        else
            Card().FailObjectInfo(cr2, 0);
    }
    // Back to a well-behaved camera, the next rebuild works and finds the new file.
    ASSERT_EQ(device->PTPUpdateObjectsInfo(), QK_OK);
    EXPECT_EQ(device->LatestFileId(), static_cast<int>(added));
}

TEST_F(Catalogue, At5120ObjectsTheListIsTakenAndAboveItRefused)
{
    Card().Clear();
    for (int i = 0; i < 5120; ++i)
        Card().AddFile(CameraCard::FileName("IMG_", i, ".JPG"), {});
    std::vector<unsigned int> handles;
    ASSERT_EQ(device->PTPGetObjectHandles(&handles), QK_OK);
    ASSERT_EQ(handles.size(), 5120u);
    EXPECT_EQ(handles.front(), Card().Objects().front().handle);
    EXPECT_EQ(handles.back(), Card().Objects().back().handle);

    Card().AddFile("IMG_9999.JPG", {});
    camera->ClearRecords();
    LogMark mark;
    handles = {7};
    EXPECT_EQ(device->PTPGetObjectHandles(&handles), QK_ERROR);
    EXPECT_EQ(handles, std::vector<unsigned int>{7});
    EXPECT_EQ(device->PTPUpdateObjectsInfo(), QK_ERROR);
    EXPECT_EQ(mark.Count("getObjectHandles failed: to many objects", "ERR"), 2);
    EXPECT_EQ(mark.Count("PTPGetObjectHandles failed", "ERR"), 1);
    EXPECT_EQ(mark.Count("PTPGetFilesInfo failed", "ERR"), 1);
    EXPECT_EQ(Sent(PTP_OC_GetObjectInfo), 0);
}

TEST_F(Catalogue, FileListIsASnapshotGivenBackThroughFreePointer)
{
    Card().Clear();
    ASSERT_EQ(device->PTPUpdateObjectsInfo(), QK_OK);
    QKFileInfo* files = reinterpret_cast<QKFileInfo*>(&files);
    int count = -1;
    ASSERT_EQ(device->GetFileList(&files, &count), QK_OK);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(files, nullptr);
    EXPECT_EQ(device->LatestFileId(), -1);

    Card().AddFile("IMG_0001.JPG", {1});
    Card().AddFile("IMG_0002.JPG", {1, 2});
    ASSERT_EQ(device->PTPUpdateObjectsInfo(), QK_OK);
    ASSERT_EQ(device->GetFileList(&files, &count), QK_OK);
    ASSERT_EQ(count, 2);
    Card().Clear();
    ASSERT_EQ(device->PTPUpdateObjectsInfo(), QK_OK);
    EXPECT_TRUE(device->Objects().empty());
    // Rebuilds leave a handed-out list alone.
    EXPECT_EQ(std::wstring(files[0].name), L"IMG_0001.JPG");
    EXPECT_EQ(files[1].size, 2);
    LogMark mark;
    device->FreePointer(files);
    EXPECT_EQ(mark.Count("FreePointer: unknown pointer"), 0);
    device->FreePointer(files);
    EXPECT_EQ(mark.Count("FreePointer: unknown pointer"), 1);
}

} // namespace
