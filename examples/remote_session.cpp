// SPDX-License-Identifier: MIT
// remote_session: one whole remote-control session with the first camera
// found: identity, session, module version, record mode, properties, zoom,
// live preview, a shot downloaded and removed from the card.
//
//   remote_session [DIRECTORY]    files go to DIRECTORY (/tmp/qkcam-session)
//
// Run it against a real camera, or without one:
//   build/sim/qkcam-virtual --camera SX160:QKS0001 -- build/examples/remote_session

#include <sys/stat.h>

#include <cstdio>
#include <string>

#include <qkcam/DevicePTP/DevicePTP.h>
#include <qkcam/proc/ContProc.h>
#include <qkcam/usb/UsbLib_libusb.h>

namespace {

std::string Narrow(const std::wstring& text)
{
    std::string out;
    for (wchar_t c : text)
        out.push_back(c > 0 && c < 128 ? static_cast<char>(c) : '?');
    return out;
}

bool Step(const char* what, QKResult result)
{
    std::printf("%-34s %s\n", what, result == QK_OK ? "ok" : ("failed (" + std::to_string(result) + ")").c_str());
    return result == QK_OK;
}

const char* NameOf(int property, int value)
{
    const char* name = "?";
    GetPropertyValName(property, value, &name);
    return name;
}

void PrintProperties(DevicePTP& camera)
{
    int* properties = nullptr;
    int count = 0;
    camera.GetPropertyList(&properties, &count);
    for (int i = 0; i < count; ++i) {
        const char* name = "?";
        GetPropertyName(properties[i], &name);
        int value = 0;
        if (camera.GetPropertyData(properties[i], &value) == QK_OK)
            std::printf("    %-24s %s\n", name, NameOf(properties[i], value));
    }
    camera.FreePointer(properties);
}

// Picks the second value the camera offers now, to show a change.
bool SecondValue(DevicePTP& camera, QKProp property, int* value)
{
    QKProp_Desc* desc = nullptr;
    if (camera.GetPropertyDesc(static_cast<int>(property), &desc) != QK_OK)
        return false;
    bool found = desc->count > 1;
    if (found)
        *value = desc->values[1];
    camera.FreePointer(desc);
    return found;
}

} // namespace

int main(int argc, char** argv)
{
    const std::string directory = argc > 1 ? argv[1] : "/tmp/qkcam-session";
    mkdir(directory.c_str(), 0755);

    std::shared_ptr<UsbLib> usb = UsbLib_libusb::build(UsbLib::EmptyNotify);
    std::set<std::wstring> paths = usb->GetAllConnectedDevicePaths();
    if (paths.empty()) {
        std::fprintf(stderr, "camera not found\n");
        return 1;
    }
    std::shared_ptr<DevicePTP> camera = DevicePTP::build(usb, *paths.begin());
    if (!Step("open the camera", camera->Init()) || !Step("read its serial number", camera->QKMLoadSerialNumber()))
        return 1;
    std::printf("    %s ; %s (model %s)\n", Narrow(camera->GetSerialNumber()).c_str(),
                Narrow(camera->GetCameraName()).c_str(), Narrow(camera->GetCameraId()).c_str());

    if (!Step("open the PTP session", camera->PTPOpenSession()) ||
        !Step("module version 1.0 or newer", camera->QKMLoadVersion("1.0")) ||
        !Step("wait for record mode", camera->PTPWaitForRecMode()) ||
        !Step("read the camera's flags", camera->LoadCameraFlags()) ||
        !Step("load the properties", camera->InitialLoadProperties()))
        return 1;
    PrintProperties(*camera);

    Step("shooting mode Manual", camera->SetPropertyDataByName(static_cast<int>(QKProp::ShootingMode), "Manual"));
    int value = 0;
    if (SecondValue(*camera, QKProp::Av, &value)) {
        Step("aperture changed", camera->SetPropertyData(static_cast<int>(QKProp::Av), value));
        std::printf("    Av is now %s\n", NameOf(static_cast<int>(QKProp::Av), value));
    }

    int maxZoom = 0;
    camera->GetMaximumZoom(&maxZoom);
    if (Step("zoom to the middle", ContProc::run(camera->PTPSetZoom(maxZoom / 2)))) {
        int zoom = 0;
        camera->GetZoom(&zoom);
        std::printf("    zoom %d of %d\n", zoom, maxZoom);
    }

    for (int i = 0; i < 3; ++i)
        camera->PTPLoadPreviewFrame();
    void* picture = nullptr;
    int size = 0;
    if (Step("live preview", camera->GetPreviewFrame(&picture, &size))) {
        const std::string path = directory + "/preview.bmp";
        if (FILE* file = std::fopen(path.c_str(), "wb")) {
            std::fwrite(picture, 1, static_cast<size_t>(size), file);
            std::fclose(file);
            std::printf("    %d bytes -> %s\n", size, path.c_str());
        }
        camera->FreePointer(picture);
    }

    QKFileInfo shot;
    shot.id = -1;
    if (Step("shoot to the card", ContProc::run(camera->PTPShoot_Normal([&shot](QKFileInfo file) { shot = file; })))) {
        const std::string name = Narrow(shot.name);
        const std::string path = directory + "/" + name;
        std::printf("    %s, %d bytes\n", name.c_str(), shot.size);
        if (Step("download it", camera->PTPDownloadFile(shot.id, path)))
            std::printf("    -> %s\n", path.c_str());
        Step("remove it from the card", camera->PTPRemoveFile(shot.id));
    }
    Step("power down", camera->PTPPowerDown());
    return 0;
}
