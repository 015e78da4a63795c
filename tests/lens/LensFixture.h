#pragma once
// A loaded camera whose lens hooks are counted, with the wire read back as
// the vendor sub-commands the camera received.

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <vector>

#include "DevicePTP/DevicePTP.h"
#include "DevicePTP/PtpCodes.h"
#include "proc/ContProc.h"
#include "sim/CameraLens.h"
#include "sim/CameraSettings.h"
#include "tests/common/TestLog.h"
#include "tests/common/VirtualCameraTest.h"

namespace qktest {

using Clock = std::chrono::steady_clock;

class LensCamera : public DevicePTP {
public:
    LensCamera(std::shared_ptr<UsbLib> usb, std::wstring path) : DevicePTP(std::move(usb), std::move(path)) {}

    void OnZoomChanged() override
    {
        int zoom = -1;
        GetZoom(&zoom);
        std::lock_guard<std::mutex> lock(hooksMutex);
        zoomHooks.push_back(zoom);
        zoomHookTimes.push_back(Clock::now());
        if (onZoomHook)
            onZoomHook();
    }
    void OnFocusChanged() override
    {
        int focus = -1;
        GetFocus(&focus);
        std::lock_guard<std::mutex> lock(hooksMutex);
        focusHooks.push_back(focus);
    }
    QKResult GuardCameraState() override
    {
        ++guardCalls;
        return guardResult;
    }

    std::vector<int> ZoomHooks()
    {
        std::lock_guard<std::mutex> lock(hooksMutex);
        return zoomHooks;
    }
    std::vector<Clock::time_point> ZoomHookTimes()
    {
        std::lock_guard<std::mutex> lock(hooksMutex);
        return zoomHookTimes;
    }
    std::vector<int> FocusHooks()
    {
        std::lock_guard<std::mutex> lock(hooksMutex);
        return focusHooks;
    }
    void ClearHooks()
    {
        std::lock_guard<std::mutex> lock(hooksMutex);
        zoomHooks.clear();
        zoomHookTimes.clear();
        focusHooks.clear();
    }

    CameraConfig& Record() { return cameraConfig; }
    bool ZoomFinishedFlag() { return cameraEvents[ZOOM_FINISHED]; }
    void SetZoomFinishLimit(std::chrono::milliseconds limit) { SetChainTimeLimit(limit); }

    std::atomic<int> guardCalls{0};
    std::atomic<QKResult> guardResult{QK_OK};
    // Runs inside the zoom hook, on the thread that announces.
    std::function<void()> onZoomHook;

private:
    std::mutex hooksMutex;
    std::vector<int> zoomHooks;
    std::vector<Clock::time_point> zoomHookTimes;
    std::vector<int> focusHooks;
};

// One vendor sub-command as the camera received it: the parameters behind it.
struct LensCall {
    uint32_t sub;
    std::vector<uint32_t> args;
};

inline std::vector<LensCall> LensCalls(const qksim::VirtualCamera& camera)
{
    std::vector<LensCall> calls;
    for (const qksim::PtpCommand& c : camera.ReceivedCommands())
        if (c.code == PTP_OC_QKM && !c.params.empty())
            calls.push_back({c.params[0], std::vector<uint32_t>(c.params.begin() + 1, c.params.end())});
    return calls;
}

// The sub-commands in the order the camera got them.
inline std::vector<uint32_t> SubCommands(const qksim::VirtualCamera& camera)
{
    std::vector<uint32_t> subs;
    for (const LensCall& call : LensCalls(camera))
        subs.push_back(call.sub);
    return subs;
}

inline std::vector<std::vector<uint32_t>> ArgsOf(const qksim::VirtualCamera& camera, uint32_t sub)
{
    std::vector<std::vector<uint32_t>> args;
    for (const LensCall& call : LensCalls(camera))
        if (call.sub == sub)
            args.push_back(call.args);
    return args;
}

inline size_t CountOf(const qksim::VirtualCamera& camera, uint32_t sub)
{
    return ArgsOf(camera, sub).size();
}

inline qksim::PtpReply WordsReply(std::vector<int32_t> words)
{
    qksim::PtpReply reply;
    reply.hasData = true;
    for (int32_t w : words)
        for (int shift = 0; shift < 32; shift += 8)
            reply.data.push_back(static_cast<uint8_t>(static_cast<uint32_t>(w) >> shift));
    return reply;
}

// Not supported: an answer the transaction does not retry.
inline qksim::PtpReply Refused()
{
    qksim::PtpReply reply;
    reply.responseCode = 0x2005;
    return reply;
}

class LensTest : public VirtualCameraTest {
protected:
    void TearDown() override
    {
        device.reset();
        VirtualCameraTest::TearDown();
    }

    // Adds the camera, opens and loads it; records and hooks start empty.
    void Open(const std::string& model)
    {
        camera = AddCamera(model, "QKS0005");
        ASSERT_TRUE(camera);
        device = std::make_shared<LensCamera>(Transport(), camera->Path());
        ASSERT_EQ(device->Init(), QK_OK);
        ASSERT_EQ(device->InitialLoadProperties(), QK_OK);
        camera->ClearRecords();
        device->ClearHooks();
    }

    // Runs a zoom chain to its end.
    QKResult Zoom(int position) { return ContProc::run(device->PTPSetZoom(position)); }

    qksim::CameraLens& Lens() { return camera->Lens(); }
    qksim::CameraSettings& Settings() { return camera->Settings(); }
    const std::vector<int32_t>& Row(int zoom) { return Lens().FocusTable().at(static_cast<size_t>(zoom)); }

    std::shared_ptr<qksim::VirtualCamera> camera;
    std::shared_ptr<LensCamera> device;
};

} // namespace qktest
