// SPDX-License-Identifier: MIT
// Every fault of the link against every family of operations: the faulted
// operation fails cleanly with a log line and keeps nothing, and the same
// camera object then works again, unless the camera is gone.

#include <chrono>
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
    std::function<QKResult(FaultMatrix&)> run;
    // After a run that succeeded: what it got is the camera's.
    std::function<void(FaultMatrix&, const LogMark& sinceRun)> check;
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
    int Zoom()
    {
        int zoom = -1;
        EXPECT_EQ(matrix->GetZoom(&zoom), QK_OK);
        return zoom;
    }
    int FocusTarget() { return camera->Lens().FocusTable().at(0).at(3); }

    using CardCameraTest::camera;
    using CardCameraTest::Card;
    using CardCameraTest::Local;
    using CardCameraTest::ReadFile;
    std::shared_ptr<MatrixCamera> matrix;
    QKFileInfo shot;
    int reached = -1;
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
     [](FaultMatrix& t) { return t.matrix->InitialLoadProperties(); },
     [](FaultMatrix& t, const LogMark&) { EXPECT_EQ(t.Zoom(), 37) << "the last word loaded is the zoom"; }},
    {"Zoom", PTP_OC_QKM, nullptr, [](FaultMatrix& t) { return ContProc::run(t.matrix->PTPSetZoom(20)); },
     [](FaultMatrix& t, const LogMark&) {
         EXPECT_EQ(t.Zoom(), 20);
         EXPECT_EQ(t.camera->Lens().ZoomPosition(), 20);
     }},
    {"Focus", PTP_OC_QKM, nullptr,
     [](FaultMatrix& t) { return t.matrix->PTPManualFocusSet(t.FocusTarget(), &t.reached); },
     [](FaultMatrix& t, const LogMark&) {
         EXPECT_EQ(t.reached, t.FocusTarget());
         EXPECT_EQ(t.camera->Lens().FocusPosition(), t.FocusTarget());
     }},
    {"NormalShot", PTP_OC_GetStorageIDs, nullptr,
     [](FaultMatrix& t) { return ContProc::run(t.matrix->PTPShoot_Normal([&t](QKFileInfo f) { t.shot = f; })); },
     [](FaultMatrix& t, const LogMark&) {
         EXPECT_EQ(t.shot.id, static_cast<int>(t.Card().Find(wstrToStr(t.shot.name))));
     }},
    {"DirectShot", PTP_OC_QKM, nullptr,
     [](FaultMatrix& t) { return ContProc::run(t.matrix->PTPShoot_Direct([&t](QKFileInfo f) { t.shot = f; })); },
     [](FaultMatrix& t, const LogMark&) {
         EXPECT_EQ(t.matrix->PTPDownloadFile(t.shot.id, t.Local("direct.jpg")), QK_OK);
         EXPECT_EQ(t.ReadFile(t.Local("direct.jpg")), t.camera->Shutter().LastRemotePicture());
         EXPECT_EQ(t.matrix->PTPRemoveFile(t.shot.id), QK_OK) << "a held picture is the host's to remove";
     }},
    {"Catalogue", PTP_OC_GetStorageIDs, nullptr, [](FaultMatrix& t) { return t.matrix->PTPUpdateObjectsInfo(); },
     [](FaultMatrix& t, const LogMark&) {
         QKFileInfo* files = nullptr;
         int count = 0;
         ASSERT_EQ(t.matrix->GetFileList(&files, &count), QK_OK);
         EXPECT_EQ(count, 3) << "pictures and movies only";
         for (int i = 0; i < count; ++i)
             EXPECT_EQ(files[i].id, static_cast<int>(t.Card().Find(wstrToStr(files[i].name))));
         t.matrix->FreePointer(files);
     }},
    {"Download", PTP_OC_GetObject, nullptr,
     [](FaultMatrix& t) {
         return t.matrix->PTPDownloadFile(static_cast<int>(t.Card().Find("IMG_0004.JPG")), t.Local("download.jpg"));
     },
     [](FaultMatrix& t, const LogMark&) {
         EXPECT_EQ(t.ReadFile(t.Local("download.jpg")), t.Card().Content(t.Card().Find("IMG_0004.JPG")));
     }},
    // The first load fetches the preview settings, so that the fault hits the frame.
    {"Preview", PTP_OC_QKM, [](FaultMatrix& t) { ASSERT_EQ(t.matrix->PTPLoadPreviewFrame(), QK_OK); },
     [](FaultMatrix& t) { return t.matrix->PTPLoadPreviewFrame(); },
     [](FaultMatrix& t, const LogMark&) {
         void* frame = nullptr;
         int size = 0;
         ASSERT_EQ(t.matrix->GetPreviewFrame(&frame, &size), QK_OK);
         EXPECT_EQ(qksim::GetLe32(static_cast<const uint8_t*>(frame) + 2), static_cast<uint32_t>(size))
             << "a whole BMP file";
         t.matrix->FreePointer(frame);
     }},
    {"CameraLog", PTP_OC_QKM, [](FaultMatrix& t) { t.camera->Shutter().SetCameraLog("matrix camera line\n"); },
     [](FaultMatrix& t) { return t.matrix->PTPDownloadCameraLog(); },
     [](FaultMatrix&, const LogMark& sinceRun) { EXPECT_EQ(sinceRun.Count("matrix camera line"), 1); }},
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
    const QKResult result = family.run(*this);
    if (fault.deviceGone) {
        EXPECT_NE(result, QK_OK);
        EXPECT_GE(again.Count("", "ERR"), 1);
    } else {
        ASSERT_EQ(result, QK_OK) << again.Since();
        family.check(*this, again);
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
