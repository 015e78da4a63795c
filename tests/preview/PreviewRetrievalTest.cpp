// SPDX-License-Identifier: MIT
// Live preview against a virtual camera: what goes over the wire, the two
// buffers and the lent picture, the settings' age and their log line, hooks,
// and failures that must keep the last good picture.

#include <algorithm>
#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "DevicePTP/DevicePTP.h"
#include "DevicePTP/PreviewDecode.h"
#include "DevicePTP/PtpCodes.h"
#include "sim/CameraPreview.h"
#include "sim/PtpReplies.h"
#include "tests/common/TestLog.h"
#include "tests/common/VirtualCameraTest.h"

namespace {

using qksim::GetLe32;
using qksim::PreviewSettings;
using qksim::PtpCommand;
using qktest::LogMark;

// A host's camera: counts the hooks, can keep release functions, and can
// age the settings so that a test need not wait two seconds.
class PreviewCamera : public DevicePTP {
public:
    PreviewCamera(std::shared_ptr<UsbLib> usb, std::wstring path) : DevicePTP(std::move(usb), std::move(path)) {}

    void OnNewPreviewFrame() override
    {
        ++newFrames;
        if (onNewFrame)
            onNewFrame();
    }
    void PostprocessPreview(int width, int height, unsigned char* pixels, int rowPadding) override
    {
        seen = {width, height, rowPadding};
        if (postprocess)
            postprocess(pixels);
    }
    void RegisterPointer(void* pointer, std::function<void(void*)> release) override
    {
        lastRelease = release;
        DevicePTP::RegisterPointer(pointer, std::move(release));
    }

    template <typename Read>
    auto Locked(Read read)
    {
        std::lock_guard<std::mutex> lock(previewData.previewMutex);
        return read(previewData);
    }
    void AgeSettings(int64_t ms) { Locked([ms](PreviewData& p) { return p.settingsTime -= ms; }); }
    int Held() { return Locked([](PreviewData& p) { return p.heldFrame; }); }
    int Ready() { return Locked([](PreviewData& p) { return p.readyFrame; }); }
    DataLen Buffer(int index) { return Locked([index](PreviewData& p) { return p.frames[index]; }); }

    std::atomic<int> newFrames{0};
    std::function<void()> onNewFrame;
    std::function<void(unsigned char*)> postprocess;
    std::vector<int> seen;
    std::function<void(void*)> lastRelease;
};

struct Picture {
    void* data = nullptr;
    int size = 0;
    const uint8_t* Bytes() const { return static_cast<const uint8_t*>(data); }
    std::vector<uint8_t> Copy() const { return std::vector<uint8_t>(Bytes(), Bytes() + size); }
};

class PreviewRetrievalTest : public qktest::OneCameraTest<PreviewCamera> {
protected:
    void SetUp() override { Open("SX160"); }

    Picture Borrow()
    {
        Picture p;
        EXPECT_EQ(device->GetPreviewFrame(&p.data, &p.size), QK_OK);
        return p;
    }

    // Loads a new picture of these settings, the current ones aged out.
    void LoadSettings(const PreviewSettings& settings)
    {
        camera->Preview().SetSettings(settings);
        device->AgeSettings(2100);
        ASSERT_EQ(device->PTPLoadPreviewFrame(), QK_OK);
    }

    int Sent(uint32_t subCommand) const { return qktest::CountSent(*camera, PTP_OC_QKM, subCommand); }
};

TEST_F(PreviewRetrievalTest, SettingsFirstThenTheWholeFrameAndTheSettingsAgainOnlyWhenOlderThanTwoSeconds)
{
    LogMark mark;
    ASSERT_EQ(device->PTPLoadPreviewFrame(), QK_OK);
    EXPECT_EQ(camera->ReceivedCommands().size(), 2u);
    EXPECT_EQ(qktest::VendorCalls(*camera), (std::vector<qktest::VendorCall>{{0x0B, {}}, {0x01, {0, 259200}}}));
    // The first reading is a change from the all-zero record.
    EXPECT_EQ(mark.Count("VideoSettings: 720 240 1080 240 30 2", "INF"), 1) << mark.Since();
    EXPECT_EQ(device->newFrames, 1);

    Picture picture = Borrow();
    ASSERT_EQ(picture.size, 230454);
    EXPECT_EQ(GetLe32(picture.Bytes() + 18), 320u);
    EXPECT_EQ(GetLe32(picture.Bytes() + 22), 240u);
    EXPECT_EQ(device->seen, (std::vector<int>{320, 240, 0}));
    // Behind the headers, the camera's first frame decoded.
    PreviewDecoder decoder;
    ASSERT_TRUE(decoder.Prepare(720, 240));
    std::vector<uint8_t> pixels(decoder.Current().imageBytes);
    decoder.Convert(qksim::CameraPreview::Render(720, 240, 0).data(), pixels.data());
    EXPECT_TRUE(std::equal(pixels.begin(), pixels.end(), picture.Bytes() + 54));
    device->FreePointer(picture.data);

    ASSERT_EQ(device->PTPLoadPreviewFrame(), QK_OK);
    device->AgeSettings(1500);
    ASSERT_EQ(device->PTPLoadPreviewFrame(), QK_OK);
    EXPECT_EQ(Sent(PTP_BASEMOD_VideoConfig), 1);
    EXPECT_EQ(Sent(PTP_BASEMOD_ReadMem), 3);

    // Read again, unchanged: no log line.
    mark = LogMark();
    device->AgeSettings(1000);
    ASSERT_EQ(device->PTPLoadPreviewFrame(), QK_OK);
    EXPECT_EQ(Sent(PTP_BASEMOD_VideoConfig), 2);
    EXPECT_EQ(mark.Count("VideoSettings:"), 0);

    // A change in bytes no one reads still gives the line, with the six words.
    PreviewSettings changed = PreviewSettings::Sized(720, 240);
    changed.words[21] = 7;
    LoadSettings(changed);
    EXPECT_EQ(mark.Count("VideoSettings: 720 240 1080 240 30 2", "INF"), 1) << mark.Since();
    LoadSettings(changed);
    EXPECT_EQ(mark.Count("VideoSettings:"), 1);

    // A height of 180 means the other height word.
    LoadSettings(PreviewSettings::Height180(720, 240));
    EXPECT_EQ(mark.Count("VideoSettings: 720 180 1080 240 30 2"), 1) << mark.Since();
    EXPECT_EQ(camera->ReceivedCommands().back().params, (std::vector<uint32_t>{0x01, 0, 259200}));
    picture = Borrow();
    EXPECT_EQ(picture.size, 230454);
    EXPECT_EQ(GetLe32(picture.Bytes() + 22), 240u);
    device->FreePointer(picture.data);
}

TEST_F(PreviewRetrievalTest, NothingToLendBeforeTheFirstGoodLoadAndUnreadableSettingsAreAskedForAgain)
{
    Picture picture;
    LogMark mark;
    EXPECT_EQ(device->GetPreviewFrame(&picture.data, &picture.size), QK_NOT_READY);
    EXPECT_EQ(mark.Count("GetPreviewFrame: result not ready"), 1);
    EXPECT_EQ(picture.data, nullptr);
    EXPECT_TRUE(camera->ReceivedCommands().empty());

    AnswerVendor(PTP_BASEMOD_VideoConfig, qksim::DataReply(std::vector<uint8_t>(84, 1))); // a word short
    EXPECT_EQ(device->PTPLoadPreviewFrame(), QK_ERROR);
    EXPECT_EQ(mark.Count("PTP_BASEMOD_VideoConfig failed", "ERR"), 1) << mark.Since();
    EXPECT_EQ(mark.Count("GetVideoSettings failed", "ERR"), 1);
    EXPECT_EQ(mark.Count("PTPGetPreviewFrame failed", "ERR"), 1);
    EXPECT_EQ(Sent(PTP_BASEMOD_ReadMem), 0);

    camera->SetVendorHandler(PTP_BASEMOD_VideoConfig, nullptr);
    AnswerVendor(PTP_BASEMOD_ReadMem, qksim::RefusalReply(0x2005));
    EXPECT_EQ(device->PTPLoadPreviewFrame(), QK_ERROR);
    EXPECT_EQ(Sent(PTP_BASEMOD_VideoConfig), 2);
    EXPECT_EQ(device->GetPreviewFrame(&picture.data, &picture.size), QK_NOT_READY);
    EXPECT_EQ(device->newFrames, 0);
    camera->SetVendorHandler(PTP_BASEMOD_ReadMem, nullptr);
    EXPECT_EQ(device->PTPLoadPreviewFrame(), QK_OK);
}

TEST_F(PreviewRetrievalTest, TwoBuffersTheLentPictureAndANewSize)
{
    // Nothing lent: both loads write buffer 0.
    ASSERT_EQ(device->PTPLoadPreviewFrame(), QK_OK);
    void* buffer0 = device->Buffer(0).data;
    ASSERT_EQ(device->PTPLoadPreviewFrame(), QK_OK);
    EXPECT_EQ(device->Buffer(0).data, buffer0);
    EXPECT_EQ(device->Buffer(1).data, nullptr);
    EXPECT_EQ(device->Ready(), 0);

    // Buffer 0 lent: loads go to buffer 1 and the lent picture stays as it was,
    // though the camera's frames differ from one to the next.
    Picture lent = Borrow();
    EXPECT_EQ(lent.data, buffer0);
    EXPECT_EQ(device->Held(), 0);
    const std::vector<uint8_t> before = lent.Copy();
    ASSERT_EQ(device->PTPLoadPreviewFrame(), QK_OK);
    const std::vector<uint8_t> newer =
        Picture{device->Buffer(1).data, static_cast<int>(device->Buffer(1).len)}.Copy();
    ASSERT_EQ(device->PTPLoadPreviewFrame(), QK_OK);
    EXPECT_EQ(device->Ready(), 1);
    EXPECT_EQ(lent.Copy(), before);
    EXPECT_NE(newer, before) << "the marker moves from frame to frame";

    // A second borrow while one is out is refused; the lent one stays lent.
    Picture again;
    LogMark mark;
    EXPECT_EQ(device->GetPreviewFrame(&again.data, &again.size), QK_ERROR);
    EXPECT_EQ(mark.Count("GetPreviewFrame: Previous preview frame does not released", "ERR"), 1);
    EXPECT_EQ(device->Held(), 0);

    // Given back: the newest picture is buffer 1, and without a load in
    // between a release and a new borrow give the same pointer.
    device->FreePointer(lent.data);
    EXPECT_EQ(device->Held(), -1);
    Picture newest = Borrow();
    EXPECT_EQ(newest.data, device->Buffer(1).data);
    device->FreePointer(newest.data);
    Picture same = Borrow();
    EXPECT_EQ(same.data, newest.data);
    EXPECT_EQ(device->Held(), 1);
    // With buffer 1 lent the load writes buffer 0; a new size reallocates
    // only the buffer written.
    const std::vector<uint8_t> lentBytes = same.Copy();
    LoadSettings(PreviewSettings::Sized(704, 480));
    EXPECT_EQ(camera->ReceivedCommands().back().params, (std::vector<uint32_t>{0x01, 0, 506880}));
    EXPECT_EQ(device->Ready(), 0);
    EXPECT_EQ(device->Buffer(0).len, 921654u);
    EXPECT_EQ(device->Buffer(1).len, 230454u);
    EXPECT_EQ(same.Copy(), lentBytes);
    EXPECT_EQ(device->seen, (std::vector<int>{640, 480, 0}));
    device->FreePointer(same.data);
    Picture resized = Borrow();
    EXPECT_EQ(resized.size, 921654);
    EXPECT_EQ(GetLe32(resized.Bytes() + 18), 640u);
    device->FreePointer(resized.data);
    EXPECT_EQ(device->newFrames, 5);
}

TEST_F(PreviewRetrievalTest, HooksSeeThePixelsMayBorrowAtOnceAndReleaseOutlivesTheCamera)
{
    // The hook changes the pixels in place before the headers are written.
    device->postprocess = [](unsigned char* pixels) {
        EXPECT_EQ(pixels[-54], 0) << "no headers yet on a fresh buffer";
        pixels[1] = 77;
    };
    Picture fromHook;
    device->onNewFrame = [&] { ASSERT_EQ(device->GetPreviewFrame(&fromHook.data, &fromHook.size), QK_OK); };
    ASSERT_EQ(device->PTPLoadPreviewFrame(), QK_OK);
    ASSERT_NE(fromHook.data, nullptr);
    EXPECT_EQ(fromHook.Bytes()[0], 'B');
    EXPECT_EQ(fromHook.Bytes()[55], 77);

    std::function<void(void*)> release = device->lastRelease;
    ASSERT_TRUE(release);
    LogMark mark;
    device.reset(); // buffers freed with the object
    EXPECT_EQ(mark.Count("DevicePTP deleted"), 1);
    release(fromHook.data); // finds no camera and touches nothing
}

TEST_F(PreviewRetrievalTest, FailedLoadsAndHostileSettingsKeepTheLastGoodPicture)
{
    ASSERT_EQ(device->PTPLoadPreviewFrame(), QK_OK);
    Picture good = Borrow();
    const std::vector<uint8_t> picture = good.Copy();
    device->FreePointer(good.data);
    const auto expectFailure = [&](const std::string& logged) {
        camera->ClearRecords();
        LogMark mark;
        const int frames = device->newFrames;
        EXPECT_EQ(device->PTPLoadPreviewFrame(), QK_ERROR);
        for (const std::string& line : {logged, std::string("PTPGetPreviewFrame failed")})
            EXPECT_EQ(mark.Count(line, "ERR"), 1) << line << "\n" << mark.Since();
        EXPECT_EQ(device->newFrames, frames);
        Picture after = Borrow();
        EXPECT_EQ(after.data, good.data);
        EXPECT_EQ(after.Copy(), picture);
        device->FreePointer(after.data);
    };

    const std::pair<qksim::OperationHandler, const char*> readMems[] = {
        {[](const PtpCommand&) { return qksim::RefusalReply(0x2005); }, "PTP_BASEMOD_ReadMem failed"},
        {[](const PtpCommand& c) { return qksim::DataReply(std::vector<uint8_t>(c.params[2] - 1, 0x40)); },
         "Preview: frame of 259199 bytes, 259200 expected for 720x240"},
        {[](const PtpCommand&) { return qksim::DataReply({}); }, "Preview: frame of 0 bytes"},
    };
    for (const auto& c : readMems) {
        camera->SetVendorHandler(PTP_BASEMOD_ReadMem, c.first);
        expectFailure(c.second);
    }
    camera->SetVendorHandler(PTP_BASEMOD_ReadMem, nullptr);

    // Settings a camera must not send are refused before the frame is asked for.
    struct Hostile {
        uint32_t width, height, height180;
        const char* shown;
    } hostile[] = {
        {0, 240, 240, "0x240"}, {722, 240, 240, "722x240"}, {720, 0, 0, "720x0"}, {720, 180, 0, "720x0"},
        {0xFFFFFFFC, 240, 240, "4294967292x240"}, {720, 100000, 240, "720x100000"},
        {720, 180, 0x80000000u, "720x2147483648"},
        // Both within bounds alone, but their product would overflow a
        // 32-bit byte count on a careless host.
        {65536, 65536, 240, "65536x65536"},
    };
    for (const Hostile& c : hostile) {
        PreviewSettings settings = PreviewSettings::Sized(720, 240);
        settings.words[1] = c.width;
        settings.words[2] = c.height;
        settings.words[5] = c.height180;
        camera->Preview().SetSettings(settings);
        device->AgeSettings(2100);
        expectFailure(std::string("PTPGetPreviewFrame: frame size ") + c.shown + " refused");
        EXPECT_EQ(Sent(PTP_BASEMOD_ReadMem), 0) << c.shown;
    }
    LoadSettings(PreviewSettings::Sized(720, 240));
}

TEST_F(PreviewRetrievalTest, ConcurrentLoadsAndBorrowsNeverTearAPicture)
{
    ASSERT_EQ(device->PTPLoadPreviewFrame(), QK_OK);
    std::atomic<bool> stop{false};
    std::atomic<int> borrowed{0};
    std::thread host([&] {
        while (!stop) {
            Picture p;
            if (device->GetPreviewFrame(&p.data, &p.size) != QK_OK)
                continue;
            const std::vector<uint8_t> copy = p.Copy();
            std::this_thread::yield();
            EXPECT_EQ(p.Copy(), copy);
            device->FreePointer(p.data);
            ++borrowed;
        }
    });
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(device->PTPLoadPreviewFrame(), QK_OK); // no return while the host runs
    stop = true;
    host.join();
    EXPECT_GT(borrowed, 0);
    EXPECT_EQ(device->Held(), -1);
}

} // namespace
