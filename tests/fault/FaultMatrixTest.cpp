// Every fault of the link against every family of operations: the faulted
// operation fails cleanly with a log line and keeps nothing, and the same
// camera object then works again, unless the camera is gone.

#include <chrono>
#include <cstring>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "sim/CameraLens.h"
#include "sim/CameraSettings.h"
#include "sim/PtpContainer.h"
#include "tests/common/CardCameraTest.h"

namespace {

using namespace std::chrono_literals;
using qktest::LogMark;

class MatrixCamera : public qktest::CardCamera {
public:
    using CardCamera::CardCamera;
    unsigned int NextId()
    {
        std::lock_guard<std::mutex> lock(transactionMutex);
        return nextTransactionId;
    }
    size_t Registered()
    {
        std::lock_guard<std::mutex> lock(registeredPointersMutex);
        return registeredPointers.size();
    }
};

class FaultMatrix;

struct Family {
    const char* name;
    uint16_t firstCode; // operation code of the first exchange, where the fault hits
    std::function<void(FaultMatrix&)> prepare;
    // Runs the operation; when it succeeds, checks that what it got is the camera's.
    std::function<QKResult(FaultMatrix&)> run;
};

struct Fault {
    const char* name;
    std::function<void(qksim::VirtualCamera&, uint16_t code, uint32_t transId)> inject;
    std::vector<std::string> seen; // error lines, one of which shows the fault was met
    bool deviceGone = false;
};

void PrintTo(const Family& family, std::ostream* os) { *os << family.name; }
void PrintTo(const Fault& fault, std::ostream* os) { *os << fault.name; }

class FaultMatrix : public qktest::CardCameraTest,
                    public ::testing::WithParamInterface<std::tuple<Family, Fault>> {
public:
    void SetUp() override
    {
        camera = AddCamera("SX160", "QKF0001");
        ASSERT_TRUE(camera);
        matrix = std::make_shared<MatrixCamera>(Transport(), camera->Path());
        device = matrix;
        ASSERT_EQ(device->Init(), QK_OK);
        // A chain that waits for a camera that stopped answering must end soon.
        device->SetChainTimeLimit(2000ms);
    }

    using CardCameraTest::camera;
    using CardCameraTest::Card;
    using CardCameraTest::Local;
    using CardCameraTest::ReadFile;
    std::shared_ptr<MatrixCamera> matrix;
};

const Fault faults[] = {
    // Five stalls outlast the transport's halt clearing; the camera's answer stays queued.
    {"Stall", [](qksim::VirtualCamera& c, uint16_t, uint32_t) { c.StallNext(0x81, 5); }, {"failed: -9"}},
    // The answer comes after the transport gave up on it.
    {"TimeOut", [](qksim::VirtualCamera& c, uint16_t, uint32_t) { c.TimeOutNext(0x81, 1); }, {"failed: -7"}},
    {"Unplug", [](qksim::VirtualCamera& c, uint16_t, uint32_t) { c.Unplug(); }, {"failed: -4"}, true},
    // Three in a row: the retry rule gives up.
    {"GeneralError", [](qksim::VirtualCamera& c, uint16_t, uint32_t) { c.GeneralErrorNext(3); },
     {"PTP General Error. Retry 2"}},
    // An event container of this transaction where its data or response belongs.
    {"WrongContainerType",
     [](qksim::VirtualCamera& c, uint16_t code, uint32_t id) {
         c.SilenceNext(1);
         c.QueueRawIn(qksim::MakeRawHeader(12, 4, code, id));
     },
     {"GETDATA failed: wrong CONTAINER_DATA", "incorrect response type 4"}},
    // A data header of this transaction announcing nearly 4 GiB, with nothing behind it.
    {"HugeLength",
     [](qksim::VirtualCamera& c, uint16_t code, uint32_t id) {
         c.SilenceNext(1);
         c.QueueRawIn(qksim::MakeRawHeader(0xFFFFFFF0u, 2, code, id));
     },
     {"over the limit", "packed to long", "GETDATA failed: tail data stage"}},
};

const Family families[] = {
    {"PropertyLoad", PTP_OC_QKM, [](FaultMatrix& t) { t.camera->Settings().SetZoomPosition(37); },
     [](FaultMatrix& t) {
         const QKResult r = t.matrix->InitialLoadProperties();
         int zoom = -1;
         if (r == QK_OK && t.matrix->GetZoom(&zoom) == QK_OK) {
             EXPECT_EQ(zoom, 37) << "the last word loaded is the zoom";
         }
         return r;
     }},
    {"Zoom", PTP_OC_QKM, nullptr,
     [](FaultMatrix& t) {
         const QKResult r = ContProc::run(t.matrix->PTPSetZoom(20));
         int zoom = -1;
         if (r == QK_OK && t.matrix->GetZoom(&zoom) == QK_OK) {
             EXPECT_EQ(zoom, 20);
             EXPECT_EQ(t.camera->Lens().ZoomPosition(), 20);
         }
         return r;
     }},
    {"Focus", PTP_OC_QKM, nullptr,
     [](FaultMatrix& t) {
         const int target = t.camera->Lens().FocusTable().at(0).at(3);
         int reached = -1;
         const QKResult r = t.matrix->PTPManualFocusSet(target, &reached);
         if (r == QK_OK) {
             EXPECT_EQ(reached, target);
             EXPECT_EQ(t.camera->Lens().FocusPosition(), target);
         }
         return r;
     }},
    {"NormalShot", PTP_OC_GetStorageIDs, nullptr,
     [](FaultMatrix& t) {
         QKFileInfo shot;
         const QKResult r = ContProc::run(t.matrix->PTPShoot_Normal([&shot](QKFileInfo f) { shot = f; }));
         if (r == QK_OK) {
             EXPECT_EQ(shot.id, static_cast<int>(t.Card().Find(wstrToStr(shot.name))));
         }
         return r;
     }},
    {"DirectShot", PTP_OC_QKM, nullptr,
     [](FaultMatrix& t) {
         QKFileInfo shot;
         const QKResult r = ContProc::run(t.matrix->PTPShoot_Direct([&shot](QKFileInfo f) { shot = f; }));
         if (r == QK_OK) {
             const std::string path = t.Local("direct.jpg");
             EXPECT_EQ(t.matrix->PTPDownloadFile(shot.id, path), QK_OK);
             EXPECT_EQ(t.ReadFile(path), t.camera->Shutter().LastRemotePicture());
             EXPECT_EQ(t.matrix->PTPRemoveFile(shot.id), QK_OK) << "a held picture is the host's to remove";
         }
         return r;
     }},
    {"Catalogue", PTP_OC_GetStorageIDs, nullptr,
     [](FaultMatrix& t) {
         const QKResult r = t.matrix->PTPUpdateObjectsInfo();
         QKFileInfo* files = nullptr;
         int count = 0;
         if (r == QK_OK && t.matrix->GetFileList(&files, &count) == QK_OK) {
             EXPECT_EQ(count, 3) << "pictures and movies only";
             for (int i = 0; i < count; ++i)
                 EXPECT_EQ(files[i].id, static_cast<int>(t.Card().Find(wstrToStr(files[i].name))));
             t.matrix->FreePointer(files);
         }
         return r;
     }},
    {"Download", PTP_OC_GetObject, nullptr,
     [](FaultMatrix& t) {
         const uint32_t id = t.Card().Find("IMG_0004.JPG");
         const std::string path = t.Local("download.jpg");
         const QKResult r = t.matrix->PTPDownloadFile(static_cast<int>(id), path);
         if (r == QK_OK) {
             EXPECT_EQ(t.ReadFile(path), t.Card().Content(id));
         }
         return r;
     }},
    // The first load fetches the preview settings, so that the fault hits the frame.
    {"Preview", PTP_OC_QKM, [](FaultMatrix& t) { ASSERT_EQ(t.matrix->PTPLoadPreviewFrame(), QK_OK); },
     [](FaultMatrix& t) {
         const QKResult r = t.matrix->PTPLoadPreviewFrame();
         void* frame = nullptr;
         int size = 0;
         if (r == QK_OK && t.matrix->GetPreviewFrame(&frame, &size) == QK_OK) {
             uint32_t fileSize = 0;
             std::memcpy(&fileSize, static_cast<const uint8_t*>(frame) + 2, 4);
             EXPECT_EQ(fileSize, static_cast<uint32_t>(size)) << "a whole BMP file";
             t.matrix->FreePointer(frame);
         }
         return r;
     }},
    {"CameraLog", PTP_OC_QKM, [](FaultMatrix& t) { t.camera->Shutter().SetCameraLog("matrix camera line\n"); },
     [](FaultMatrix& t) {
         LogMark mark;
         const QKResult r = t.matrix->PTPDownloadCameraLog();
         if (r == QK_OK) {
             EXPECT_EQ(mark.Count("matrix camera line"), 1);
         }
         return r;
     }},
};

TEST_P(FaultMatrix, FailsCleanlyThenTheLinkWorksAgain)
{
    const Family& family = std::get<0>(GetParam());
    const Fault& fault = std::get<1>(GetParam());
    if (family.prepare)
        family.prepare(*this);
    ASSERT_FALSE(HasFatalFailure());
    camera->ClearRecords();
    const uint32_t id = matrix->NextId();
    fault.inject(*camera, family.firstCode, id);

    LogMark mark;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_NE(family.run(*this), QK_OK);
    // Two USB time-outs and the chain's limit at most, never a wait for good.
    EXPECT_LT(std::chrono::steady_clock::now() - start, 20s);
    int seen = 0;
    for (const std::string& line : fault.seen)
        seen += mark.Count(line, "ERR");
    EXPECT_GE(seen, 1) << mark.Since();
    const std::vector<qksim::PtpCommand> sent = camera->ReceivedCommands();
    if (!fault.deviceGone) {
        ASSERT_FALSE(sent.empty());
        EXPECT_EQ(sent[0].code, family.firstCode);
        EXPECT_EQ(sent[0].transId, id);
    }
    EXPECT_EQ(matrix->Registered(), 0u);
    EXPECT_EQ(matrix->DirectFileCount(), 0u);

    LogMark again;
    if (fault.deviceGone) {
        EXPECT_NE(family.run(*this), QK_OK);
        EXPECT_GE(again.Count("", "ERR"), 1);
    } else {
        EXPECT_EQ(family.run(*this), QK_OK) << again.Since();
    }
    EXPECT_EQ(matrix->Registered(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Cells, FaultMatrix,
                         ::testing::Combine(::testing::ValuesIn(families), ::testing::ValuesIn(faults)),
                         [](const ::testing::TestParamInfo<FaultMatrix::ParamType>& info) {
                             return std::string(std::get<0>(info.param).name) + "_" +
                                    std::get<1>(info.param).name;
                         });

} // namespace
