// SPDX-License-Identifier: MIT
#include "tool/qkcam/Cli.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <iostream>

#include "usb/UsbLib_libusb.h"

namespace qkcli {

void AddChoice(CLI::App* command, Choice* choice, bool allowAll)
{
    CLI::Option* camera = command->add_option("-c,--camera", choice->serial, "the camera with this serial number");
    if (allowAll)
        command->add_flag("--all", choice->all, "every attached camera, at once")->excludes(camera);
}

std::string Narrow(const std::wstring& text) { return wstrToStr(text); }

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
    if (!qkrig::IsPlainFileName(Narrow(file.name)))
        return QK_ERROR;
    *path = dir + "/" + prefix + Narrow(file.name);
    const QKResult result = qkrig::DownloadTo(device, file.id, *path);
    if (result != QK_OK)
        return result;
    if (progress)
        progress->FileDone(file.size);
    return QK_OK;
}

} // namespace qkcli
