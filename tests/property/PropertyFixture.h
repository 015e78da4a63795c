// SPDX-License-Identifier: MIT
#pragma once
// A loaded camera of a chosen model, with its hooks recorded in order.

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

    void OnPropertyChanged(int property) override { Note("changed " + std::to_string(property)); }
    void OnPropertyListChanged() override { Note("list"); }
    std::vector<std::string> Hooks()
    {
        std::lock_guard<std::mutex> lock(hooksMutex);
        return hooks;
    }
    void ClearHooks()
    {
        std::lock_guard<std::mutex> lock(hooksMutex);
        hooks.clear();
    }
    std::wstring ModuleVersion() const { return moduleVersion; }
    const CameraConfig& Record() const { return cameraConfig; }
    bool FlagBit0() const { return camFlagBit0; }
    bool FlagBit2() const { return camFlagBit2; }

private:
    void Note(const std::string& what)
    {
        std::lock_guard<std::mutex> lock(hooksMutex);
        hooks.push_back(what);
    }
    std::mutex hooksMutex;
    std::vector<std::string> hooks;
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
