// SPDX-License-Identifier: MIT
#include "fuzz/CameraFamilies.h"

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <vector>

#include "DevicePTP/DevicePTP.h"
#include "fuzz/ScriptedUsb.h"
#include "proc/ContProc.h"

namespace {

// Chains stop polling soon: outside the fuzzing build each poll really waits.
constexpr std::chrono::milliseconds chainLimit(300);
constexpr unsigned int getModeSubCommand = 0x96;

class FuzzCamera : public DevicePTP {
public:
    FuzzCamera(std::shared_ptr<UsbLib> usb, uint8_t flags_) : DevicePTP(std::move(usb), L"fuzz"), flags(flags_) {}
    bool IsMemLogging() override { return flags & fuzzflags::memoryLog; }
    bool IsVoltageLogging() override { return flags & fuzzflags::voltageLog; }

private:
    const uint8_t flags;
};

// The id of the first file in the catalogue, or `fallback`.
int FirstFile(DevicePTP& camera, int fallback)
{
    QKFileInfo* files = nullptr;
    int count = 0;
    if (camera.GetFileList(&files, &count) != QK_OK || !files)
        return fallback;
    const int id = files[0].id;
    camera.FreePointer(files);
    return id;
}

void Session(DevicePTP& camera)
{
    camera.PTPOpenSession();
    camera.QKMLoadSerialNumber();
    camera.QKMLoadVersion("1.2.3.4");
    camera.LoadCameraFlags();
    camera.InitialLoadProperties();
    camera.ReadCameraMode();
    camera.ReadBatteryLevel(false);
    camera.PTPLoadEvents();
    std::vector<int> mode;
    camera.PTPQKMGet(getModeSubCommand, 1, &mode);
    camera.UpdateZoom();
}

void Catalogue(DevicePTP& camera)
{
    camera.PTPUpdateObjectsInfo();
    FirstFile(camera, 0);
    camera.PTPCleanCard();
    camera.PTPStartVideo();
    QKFileInfo video;
    camera.PTPStopVideo(&video);
}

void Download(DevicePTP& camera, const std::string& path)
{
    camera.PTPUpdateObjectsInfo();
    const int id = FirstFile(camera, 1);
    camera.PTPDownloadFile(id, path);
    camera.PTPRemoveFile(id);
}

void Preview(DevicePTP& camera)
{
    VideoSettings settings;
    camera.PTPGetVideoSettings(&settings);
    // The second load reuses the settings the first one read.
    camera.PTPLoadPreviewFrame();
    camera.PTPLoadPreviewFrame();
    void* frame = nullptr;
    int size = 0;
    if (camera.GetPreviewFrame(&frame, &size) == QK_OK)
        camera.FreePointer(frame);
}

void DirectShot(DevicePTP& camera, const std::string& path)
{
    camera.SetChainTimeLimit(chainLimit);
    int id = 0;
    ContProc::run(camera.PTPShoot_Direct([&id](QKFileInfo file) { id = file.id; }));
    if (id < 0) {
        camera.PTPDownloadFile(id, path);
        camera.PTPRemoveFile(id);
    }
}

void NormalShot(DevicePTP& camera)
{
    camera.SetChainTimeLimit(chainLimit);
    ContProc::run(camera.PTPShoot_Normal([](QKFileInfo) {}));
}

void Diagnostics(DevicePTP& camera)
{
    camera.PTPDownloadCameraLog();
    camera.PTPDebugLogMemory("fuzz");
}

void Lens(DevicePTP& camera)
{
    camera.UpdateFocusPos();
    int first = 0;
    int position = 0;
    camera.PTPManualFocusGetParams(&first, &position);
    int reached = 0;
    camera.PTPManualFocusSet(position + 1, &reached);
    camera.FocusShift(2);
    camera.FocusShift(-1);
    camera.SetChainTimeLimit(chainLimit);
    ContProc::run(camera.PTPSetZoom(5));
    camera.UpdateZoom();
}

// One file for every download of the process, removed at exit.
struct DownloadFile {
    DownloadFile()
    {
        const int fd = mkstemp(path.data());
        if (fd < 0)
            std::abort();
        close(fd);
    }
    ~DownloadFile() { unlink(path.c_str()); }
    std::string path = (std::filesystem::temp_directory_path() / "qkfuzz-XXXXXX").string();
};

const std::string& DownloadPath()
{
    static const DownloadFile file;
    return file.path;
}

} // namespace

std::wstring FamilyProduct(uint8_t flags)
{
    static const wchar_t* const models[] = {L"SX160", L"A1400", L"A810", L"SX170"};
    return std::wstring(L"QK Virtual Camera ") + models[(flags >> fuzzflags::modelShift) & 3];
}

void RunCameraFamily(Family family, uint8_t flags, const std::shared_ptr<UsbLib>& usb, const std::string& path)
{
    // The camera's memory words are what this family is about.
    if (family == Family::Diagnostics)
        flags |= fuzzflags::memoryLog;
    auto camera = std::make_shared<FuzzCamera>(usb, flags);
    if (camera->Init() != QK_OK)
        return;
    switch (family) {
    case Family::Session: Session(*camera); break;
    case Family::Catalogue: Catalogue(*camera); break;
    case Family::Download: Download(*camera, path); break;
    case Family::Preview: Preview(*camera); break;
    case Family::DirectShot: DirectShot(*camera, path); break;
    case Family::NormalShot: NormalShot(*camera); break;
    case Family::Diagnostics: Diagnostics(*camera); break;
    case Family::Lens: Lens(*camera); break;
    case Family::Transport:
    case Family::Count: break;
    }
}

void RunInput(const uint8_t* data, size_t size)
{
    static const bool quiet = [] {
        LoggerSpecialInit(false, "/dev/null", "/dev/null");
        return true;
    }();
    (void)quiet;
    if (size < 2)
        return;
    const Family family = FamilyOf(data[0]);
    if (family == Family::Transport) {
        RunTransport(data + 2, size - 2);
        return;
    }
    RunCameraFamily(family, data[1], std::make_shared<ScriptedUsb>(data + 2, size - 2, FamilyProduct(data[1])),
                    DownloadPath());
}
