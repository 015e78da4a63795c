// SPDX-License-Identifier: MIT
#pragma once
// A camera with its card, shutter and memory, driven through the real
// libusb; its hooks are recorded and its catalogue and buffered files can be
// looked at.

#include <sys/stat.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "DevicePTP/DevicePTP.h"
#include "DevicePTP/PtpCodes.h"
#include "proc/ContProc.h"
#include "sim/CameraCard.h"
#include "sim/CameraMemory.h"
#include "sim/CameraShutter.h"
#include "sim/PtpReplies.h"
#include "tests/common/TestLog.h"
#include "tests/common/VirtualCameraTest.h"

namespace qktest {

class CardCamera : public DevicePTP {
public:
    CardCamera(std::shared_ptr<UsbLib> usb, std::wstring path) : DevicePTP(std::move(usb), std::move(path)) {}

    int LatestFileId()
    {
        std::lock_guard<std::mutex> lock(catalogue.objectsMutex);
        return catalogue.latestFileId;
    }
    std::vector<QKFileInfo> Objects()
    {
        std::lock_guard<std::mutex> lock(catalogue.objectsMutex);
        return catalogue.objects;
    }
    size_t DirectFileCount()
    {
        std::lock_guard<std::recursive_mutex> lock(direct.directFilesMutex);
        return direct.directFiles.size();
    }
    int NextDirectFileId() const { return direct.nextDirectFileId; }
    bool VideoRecording() const { return videoRecording; }
    void SetMemLogging(bool on) { memLogging = on; }

    void TemporaryStopPreview(bool stop) override { hooks.push_back(stop ? "stop preview" : "resume preview"); }
    QKResult SetPreShootProperty() override
    {
        hooks.push_back("pre-shoot");
        return preShootResult;
    }
    void OnShootCompleted(QKFileInfo file) override
    {
        hooks.push_back("completed");
        completed.push_back(file);
    }

    // The hooks as they were called, in order; written by the chain's thread.
    std::vector<std::string> hooks;
    std::vector<QKFileInfo> completed;
    QKResult preShootResult = QK_OK;
};

class CardCameraTest : public OneCameraTest<CardCamera> {
protected:
    void SetUp() override
    {
        Open("SX160", "QKF0001");
        camera->ClearRecords();
    }
    void TearDown() override
    {
        OneCameraTest::TearDown();
        for (const std::string& path : localFiles)
            std::remove(path.c_str());
    }

    qksim::CameraCard& Card() { return camera->Card(); }
    qksim::CameraShutter& Shutter() { return camera->Shutter(); }

    // Commands received since the last ClearRecords.
    int Sent(uint16_t code, int subCommand = -1) const { return CountSent(*camera, code, subCommand); }

    // A path in the test's directory, removed after the test.
    std::string Local(const std::string& name)
    {
        localFiles.push_back(TempDir() + "/" + name);
        return localFiles.back();
    }

    static std::vector<uint8_t> ReadFile(const std::string& path)
    {
        std::ifstream in(path, std::ios::binary);
        return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    static bool Exists(const std::string& path)
    {
        struct stat info;
        return ::stat(path.c_str(), &info) == 0;
    }

    static std::vector<std::wstring> Names(const std::vector<QKFileInfo>& files)
    {
        std::vector<std::wstring> names;
        for (const QKFileInfo& f : files)
            names.push_back(f.name);
        return names;
    }

    std::vector<std::string> localFiles;
};

} // namespace qktest
