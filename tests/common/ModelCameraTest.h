// SPDX-License-Identifier: MIT
#pragma once
// A loaded camera of a chosen model, with its hooks recorded in order:
// property changes as text, zoom and focus changes as the positions the
// hooks read back.

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "DevicePTP/DevicePTP.h"
#include "DevicePTP/PtpCodes.h"
#include "sim/CameraSettings.h"
#include "sim/PtpReplies.h"
#include "tests/common/TestLog.h"
#include "tests/common/VirtualCameraTest.h"

namespace qktest {

class RecordingCamera : public DevicePTP {
public:
    RecordingCamera(std::shared_ptr<UsbLib> usb, std::wstring path) : DevicePTP(std::move(usb), std::move(path)) {}

    void OnPropertyChanged(int property) override { Note(&hooks, "changed " + std::to_string(property)); }
    void OnPropertyListChanged() override { Note<std::string>(&hooks, "list"); }
    void OnZoomChanged() override
    {
        int zoom = -1;
        GetZoom(&zoom);
        Note(&zoomHooks, zoom);
        if (onZoomHook)
            onZoomHook();
    }
    void OnFocusChanged() override
    {
        int focus = -1;
        GetFocus(&focus);
        Note(&focusHooks, focus);
    }
    QKResult GuardCameraState() override
    {
        ++guardCalls;
        return guardResult != QK_OK ? guardResult.load() : DevicePTP::GuardCameraState();
    }

    std::vector<std::string> Hooks() { return Read(hooks); }
    std::vector<int> ZoomHooks() { return Read(zoomHooks); }
    std::vector<int> FocusHooks() { return Read(focusHooks); }
    void ClearHooks()
    {
        std::lock_guard<std::mutex> lock(hooksMutex);
        hooks.clear();
        zoomHooks.clear();
        focusHooks.clear();
    }
    std::wstring ModuleVersion() const { return moduleVersion; }
    CameraConfig& Record() { return cameraConfig; }
    bool FlagBit0() const { return camFlagBit0; }
    bool FlagBit2() const { return camFlagBit2; }
    bool ZoomFinishedFlag() { return cameraEvents[ZOOM_FINISHED]; }

    std::atomic<int> guardCalls{0};
    std::atomic<QKResult> guardResult{QK_OK};
    // Runs inside the zoom hook, on the thread that announces.
    std::function<void()> onZoomHook;

private:
    template <class T>
    void Note(std::vector<T>* list, T what)
    {
        std::lock_guard<std::mutex> lock(hooksMutex);
        list->push_back(std::move(what));
    }
    template <class T>
    std::vector<T> Read(const std::vector<T>& list)
    {
        std::lock_guard<std::mutex> lock(hooksMutex);
        return list;
    }
    std::mutex hooksMutex;
    std::vector<std::string> hooks;
    std::vector<int> zoomHooks, focusHooks;
};

class PropertyTest : public OneCameraTest<RecordingCamera> {
protected:
    // Adds the camera and opens it; the caller may adjust the camera before loading.
    void Open(const std::string& model, bool load = false)
    {
        OneCameraTest::Open(model);
        if (load)
            Load();
    }
    // A host object of another kind on the same camera, in place of the first.
    template <class Host = RecordingCamera>
    std::shared_ptr<Host> Reopen()
    {
        device.reset();
        auto host = OpenDevice<Host>(*camera);
        device = host;
        return host;
    }
    void Load()
    {
        ASSERT_EQ(device->InitialLoadProperties(), QK_OK);
        camera->ClearRecords();
        device->ClearHooks();
    }
    int Value(QKProp property)
    {
        int value = -12345;
        EXPECT_EQ(device->GetPropertyData(static_cast<int>(property), &value), QK_OK);
        return value;
    }
    qksim::CameraSettings& Settings() { return camera->Settings(); }
};

constexpr int P(QKProp p) { return static_cast<int>(p); }
constexpr uint32_t Set = PTP_QKM_SetPropCase;

} // namespace qktest
