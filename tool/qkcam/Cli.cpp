// SPDX-License-Identifier: MIT
#include "tool/qkcam/Cli.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <strings.h>

#include "usb/UsbLib_libusb.h"

namespace qkcli {

void AddChoice(CLI::App* command, Choice* choice, bool allowAll)
{
    CLI::Option* camera = command->add_option("-c,--camera", choice->serial, "the camera with this serial number");
    if (allowAll)
        command->add_flag("--all", choice->all, "every attached camera, at once")->excludes(camera);
}

std::string Narrow(const std::wstring& text) { return wstrToStr(text); }

const char* ResultName(QKResult result)
{
    switch (result) {
    case QK_OK: return "QK_OK";
    case QK_ERROR: return "QK_ERROR";
    case QK_NOT_READY: return "QK_NOT_READY";
    case QK_UNKNOWN_PROPERTY: return "QK_UNKNOWN_PROPERTY";
    case QK_UNSUPPORTED_VALUE: return "QK_UNSUPPORTED_VALUE";
    case QK_LOW_BATTERY: return "QK_LOW_BATTERY";
    case QK_OLD_MODULE: return "QK_OLD_MODULE";
    }
    return "QK_ERROR";
}

int Failed(const std::wstring& serial, const std::string& step, QKResult result)
{
    std::cerr << "qkcam: camera " << Narrow(serial) << ": " << step << " failed: " << ResultName(result)
              << std::endl;
    return kFailed;
}

int Say(int status, const std::string& message)
{
    std::cerr << "qkcam: " << message << std::endl;
    return status;
}

int Session::Open(const Choice& choice, bool wantAll, bool identifyOnly)
{
    usb = UsbLib_libusb::build(UsbLib::EmptyNotify);
    RigOptions options;
    options.identifyOnly = identifyOnly;
    if (!choice.serial.empty()) {
        options.serials = {strToWstr(choice.serial)};
    } else if (!choice.all && !wantAll) {
        const std::set<std::wstring> paths = usb->GetAllConnectedDevicePaths();
        if (paths.empty())
            return Say(kNoCamera, "no camera found");
        if (paths.size() > 1) {
            RigOptions identify;
            identify.identifyOnly = true;
            std::vector<std::string> serials;
            const std::unique_ptr<Rig> attached = Rig::Open(usb, identify);
            for (const Rig::Camera& camera : attached->Cameras())
                serials.push_back(Narrow(camera.serial));
            return Say(kUsage, "several cameras are attached; choose one with -c: " + JoinNames(serials));
        }
    }
    rig = Rig::Open(usb, options);
    int status = kOk;
    for (const RigOutcome& failure : rig->Failures()) {
        if (failure.step == "find")
            status = std::max(status, Say(kNoCamera, "no camera with serial " + Narrow(failure.serial)));
        else
            status = std::max(status, Failed(failure.serial.empty() ? failure.path : failure.serial,
                                             failure.step, failure.result));
    }
    if (rig->Cameras().empty() && status == kOk)
        return Say(kNoCamera, "no camera found");
    // The ready cameras go on; the failures count in the command's status.
    if (rig->Cameras().empty())
        return status;
    partial = status;
    return kOk;
}

int Session::Report(const std::vector<RigOutcome>& outcomes)
{
    int status = kOk;
    for (const RigOutcome& outcome : outcomes)
        if (!outcome.ok())
            status = Failed(outcome.serial, outcome.step, outcome.result);
    return status;
}

namespace {

bool IsNumber(const std::string& text, int* number)
{
    if (text.empty())
        return false;
    char* end = nullptr;
    const long value = std::strtol(text.c_str(), &end, 10);
    if (*end != '\0' || value < INT32_MIN || value > INT32_MAX)
        return false;
    *number = static_cast<int>(value);
    return true;
}

} // namespace

std::optional<int> FindProperty(const std::string& text)
{
    int number = 0;
    for (const auto& [property, name] : g_PropNames)
        if (strcasecmp(name, text.c_str()) == 0 || (IsNumber(text, &number) && number == static_cast<int>(property)))
            return static_cast<int>(property);
    return std::nullopt;
}

std::optional<int> FindValue(int property, const std::string& text)
{
    int number = 0;
    for (const auto& [key, name] : g_PropValNames)
        if (static_cast<int>(key.first) == property &&
            (strcasecmp(name, text.c_str()) == 0 || (IsNumber(text, &number) && number == key.second)))
            return key.second;
    return std::nullopt;
}

std::string PropertyName(int property)
{
    const char* name = nullptr;
    return GetPropertyName(property, &name) == 0 ? name : std::to_string(property);
}

std::string ValueName(int property, int value)
{
    const char* name = nullptr;
    return GetPropertyValName(property, value, &name) == 0 ? name : std::to_string(value);
}

std::vector<int> CameraProperties(DevicePTP& device)
{
    int* list = nullptr;
    int count = 0;
    std::vector<int> properties;
    if (device.GetPropertyList(&list, &count) != QK_OK)
        return properties;
    properties.assign(list, list + count);
    device.FreePointer(list);
    return properties;
}

std::vector<int> AllowedValues(DevicePTP& device, int property)
{
    QKProp_Desc* desc = nullptr;
    std::vector<int> values;
    if (device.GetPropertyDesc(property, &desc) != QK_OK || !desc)
        return values;
    values.assign(desc->values, desc->values + desc->count);
    device.FreePointer(desc);
    return values;
}

std::string JoinNames(const std::vector<std::string>& names)
{
    std::string joined;
    for (const std::string& name : names)
        joined += (joined.empty() ? "" : ", ") + name;
    return joined;
}

Progress::Progress(std::string label_, int files_)
    : label(std::move(label_)), files(files_), start(std::chrono::steady_clock::now()),
      terminal(isatty(STDOUT_FILENO) == 1)
{
}

void Progress::FileDone(long long fileBytes)
{
    ++done;
    bytes += fileBytes;
    if (!terminal)
        return;
    const double seconds =
        std::max(1e-3, std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    const int width = 30;
    const int filled = files > 0 ? width * done / files : width;
    std::printf("\r%s [%s%s] %d/%d %.1f MB/s", label.c_str(), std::string(filled, '#').c_str(),
                std::string(width - filled, '.').c_str(), done, files, bytes / seconds / 1e6);
    std::fflush(stdout);
}

void Progress::Finish()
{
    if (terminal && done > 0)
        std::printf("\n");
}

QKResult Download(DevicePTP& device, const QKFileInfo& file, const std::string& dir, const std::string& prefix,
                  Progress* progress, std::string* path)
{
    *path = dir + "/" + prefix + Narrow(file.name);
    const QKResult result = device.PTPDownloadFile(file.id, *path);
    if (result != QK_OK) {
        // Nothing half written stays behind.
        std::remove(path->c_str());
        return result;
    }
    if (progress)
        progress->FileDone(file.size);
    return QK_OK;
}

} // namespace qkcli
