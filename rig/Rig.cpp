// SPDX-License-Identifier: MIT
// Opening a rig and running an operation on all its cameras at once.

#include "rig/Rig.h"

#include <algorithm>
#include <thread>

namespace {

// Runs `work(i)` for every i below `count`, each on its own thread, and
// returns when all are done.
template <typename Work>
void OnePerCamera(size_t count, const Work& work)
{
    std::vector<std::thread> workers;
    workers.reserve(count);
    for (size_t i = 0; i < count; ++i)
        workers.emplace_back([&work, i] { work(i); });
    for (std::thread& worker : workers)
        worker.join();
}

struct Opening {
    Rig::Camera camera;
    RigOutcome outcome;
    bool wanted = true;
};

// The ready steps after the serial number, in the order a camera needs them.
QKResult Ready(DevicePTP& device, const RigOptions& options, std::string* step)
{
    *step = "PTPOpenSession";
    QKResult result = device.PTPOpenSession();
    if (result != QK_OK)
        return result;
    *step = "QKMLoadVersion";
    const char* required =
        options.requiredModuleVersion.empty() ? nullptr : options.requiredModuleVersion.c_str();
    if ((result = device.QKMLoadVersion(required)) != QK_OK)
        return result;
    *step = "PTPWaitForRecMode";
    if ((result = device.PTPWaitForRecMode(options.recModeLimit)) != QK_OK)
        return result;
    *step = "LoadCameraFlags";
    if ((result = device.LoadCameraFlags()) != QK_OK)
        return result;
    *step = "InitialLoadProperties";
    return device.InitialLoadProperties();
}

void OpenOne(const std::shared_ptr<UsbLib>& usb, const RigOptions& options, Opening* opening)
{
    RigOutcome& outcome = opening->outcome;
    std::shared_ptr<DevicePTP> device =
        options.build ? options.build(usb, outcome.path) : DevicePTP::build(usb, outcome.path);
    if (!device) {
        outcome.step = "build";
        outcome.result = QK_ERROR;
        return;
    }
    outcome.step = "Init";
    outcome.result = device->Init();
    if (outcome.result != QK_OK)
        return;
    outcome.step = "QKMLoadSerialNumber";
    outcome.result = device->QKMLoadSerialNumber();
    outcome.serial = device->GetSerialNumber();
    if (outcome.result != QK_OK)
        return;
    const std::vector<std::wstring>& serials = options.serials;
    if (!serials.empty() && std::find(serials.begin(), serials.end(), outcome.serial) == serials.end()) {
        opening->wanted = false;
        return;
    }
    if (!options.identifyOnly) {
        outcome.result = Ready(*device, options, &outcome.step);
        if (outcome.result != QK_OK)
            return;
    }
    outcome.step.clear();
    opening->camera = Rig::Camera{outcome.serial, outcome.path, device};
}

} // namespace

std::unique_ptr<Rig> Rig::Open(std::shared_ptr<UsbLib> usb, const RigOptions& options)
{
    std::unique_ptr<Rig> rig(new Rig());
    rig->usb = usb;
    std::vector<Opening> openings;
    for (const std::wstring& path : usb->GetAllConnectedDevicePaths()) {
        if (!options.paths.empty() && std::find(options.paths.begin(), options.paths.end(), path) == options.paths.end())
            continue;
        openings.emplace_back();
        openings.back().outcome.path = path;
    }
    OnePerCamera(openings.size(), [&](size_t i) { OpenOne(usb, options, &openings[i]); });

    std::vector<std::wstring> found;
    for (Opening& opening : openings) {
        if (!opening.wanted)
            continue;
        found.push_back(opening.outcome.serial);
        if (opening.outcome.ok())
            rig->cameras.push_back(std::move(opening.camera));
        else
            rig->failures.push_back(std::move(opening.outcome));
    }
    for (const std::wstring& serial : options.serials) {
        if (std::find(found.begin(), found.end(), serial) == found.end()) {
            RigOutcome missing;
            missing.serial = serial;
            missing.step = "find";
            missing.result = QK_ERROR;
            rig->failures.push_back(missing);
        }
    }
    return rig;
}

std::unique_ptr<Rig> Rig::Of(std::shared_ptr<UsbLib> usb, std::vector<Camera> cameras)
{
    std::unique_ptr<Rig> rig(new Rig());
    rig->usb = std::move(usb);
    rig->cameras = std::move(cameras);
    return rig;
}

const Rig::Camera* Rig::Find(const std::wstring& serial) const
{
    for (const Camera& camera : cameras)
        if (camera.serial == serial)
            return &camera;
    return nullptr;
}

std::vector<RigOutcome> Rig::ForEach(const Operation& operation) const
{
    std::vector<RigOutcome> outcomes(cameras.size());
    OnePerCamera(cameras.size(), [&](size_t i) {
        RigOutcome& outcome = outcomes[i];
        outcome.serial = cameras[i].serial;
        outcome.path = cameras[i].path;
        outcome.result = operation(cameras[i], &outcome.step);
        if (outcome.ok())
            outcome.step.clear();
    });
    return outcomes;
}
