// SPDX-License-Identifier: MIT
#pragma once
// A loaded camera whose lens hooks are counted, with the wire read back as
// the vendor sub-commands the camera received.

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "DevicePTP/DevicePTP.h"
#include "DevicePTP/PtpCodes.h"
#include "proc/ContProc.h"
#include "sim/CameraLens.h"
#include "sim/CameraSettings.h"
#include "sim/PtpReplies.h"
#include "tests/common/TestLog.h"
#include "tests/common/VirtualCameraTest.h"

namespace qktest {

using Clock = std::chrono::steady_clock;
using qksim::WordsReply;

class LensCamera : public DevicePTP {
public:
    LensCamera(std::shared_ptr<UsbLib> usb, std::wstring path) : DevicePTP(std::move(usb), std::move(path)) {}

    void OnZoomChanged() override
    {
        int zoom = -1;
        GetZoom(&zoom);
        std::lock_guard<std::mutex> lock(hooksMutex);
        zoomHooks.push_back(zoom);
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
    std::vector<int> FocusHooks()
    {
        std::lock_guard<std::mutex> lock(hooksMutex);
        return focusHooks;
    }
    void ClearHooks()
    {
        std::lock_guard<std::mutex> lock(hooksMutex);
        zoomHooks.clear();
        focusHooks.clear();
    }

    CameraConfig& Record() { return cameraConfig; }
    bool ZoomFinishedFlag() { return cameraEvents[ZOOM_FINISHED]; }

    std::atomic<int> guardCalls{0};
    std::atomic<QKResult> guardResult{QK_OK};
    // Runs inside the zoom hook, on the thread that announces.
    std::function<void()> onZoomHook;

private:
    std::mutex hooksMutex;
    std::vector<int> zoomHooks;
    std::vector<int> focusHooks;
};

// The parameters behind each vendor sub-command `sub` the camera received.
inline std::vector<std::vector<uint32_t>> ArgsOf(const qksim::VirtualCamera& camera, uint32_t sub)
{
    std::vector<std::vector<uint32_t>> args;
    for (const VendorCall& call : VendorCalls(camera, sub))
        args.push_back(call.second);
    return args;
}

// The sub-commands in the order the camera got them.
inline std::vector<uint32_t> SubCommands(const qksim::VirtualCamera& camera)
{
    std::vector<uint32_t> subs;
    for (const VendorCall& call : VendorCalls(camera))
        subs.push_back(call.first);
    return subs;
}

// Not supported: an answer the transaction does not retry.
inline qksim::PtpReply Refused() { return qksim::RefusalReply(qksim::ptp::RC_OperationNotSupported); }

class LensTest : public OneCameraTest<LensCamera> {
protected:
    // Adds the camera, opens and loads it; records and hooks start empty.
    void Open(const std::string& model)
    {
        OneCameraTest::Open(model);
        ASSERT_EQ(device->InitialLoadProperties(), QK_OK);
        camera->ClearRecords();
        device->ClearHooks();
    }

    // Runs a zoom chain to its end.
    QKResult Zoom(int position) { return ContProc::run(device->PTPSetZoom(position)); }
    int ZoomNow()
    {
        int zoom = -1;
        EXPECT_EQ(device->GetZoom(&zoom), QK_OK);
        return zoom;
    }
    int FocusNow()
    {
        int focus = -12345;
        EXPECT_EQ(device->GetFocus(&focus), QK_OK);
        return focus;
    }

    qksim::CameraLens& Lens() { return camera->Lens(); }
    qksim::CameraSettings& Settings() { return camera->Settings(); }
    const std::vector<int32_t>& Row(int zoom) { return Lens().FocusTable().at(static_cast<size_t>(zoom)); }
};

} // namespace qktest
