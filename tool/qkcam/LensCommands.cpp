// SPDX-License-Identifier: MIT
// qkcam zoom, focus, preview and video.

#include <fstream>
#include <iostream>

#include "tool/qkcam/Cli.h"

namespace qkcli {

namespace {

int Zoom(const Choice& choice, int position)
{
    Session session;
    if (int status = session.Open(choice, false))
        return status;
    std::vector<RigOutcome> outcomes = session.TheRig().ForEach([position](const Rig::Camera& camera, std::string* step) {
        int maxZoom = 0;
        camera.device->GetMaximumZoom(&maxZoom);
        *step = "PTPSetZoom " + std::to_string(position) + " (0 to " + std::to_string(maxZoom) + ")";
        return qkrig::ZoomTo(*camera.device, position);
    });
    return std::max(session.Partial(), Session::Report(outcomes));
}

int Focus(const Choice& choice, const std::optional<int>& position, const std::optional<int>& shift)
{
    if (position.has_value() == shift.has_value())
        return Say(kUsage, "focus: give a POSITION or --shift N");
    Session session;
    if (int status = session.Open(choice, false))
        return status;
    const Rig::Camera& camera = session.Cameras().front();
    QKResult result = QK_OK;
    if (position) {
        int reached = 0;
        result = camera.device->PTPManualFocusSet(*position, &reached);
        if (result == QK_OK)
            std::cout << "focus: " << reached << '\n';
        return result == QK_OK ? kOk : Failed(camera.serial, "PTPManualFocusSet", result);
    }
    result = camera.device->FocusShift(*shift);
    int focus = 0;
    if (result == QK_OK && camera.device->GetFocus(&focus) == QK_OK)
        std::cout << "focus: " << focus << '\n';
    return result == QK_OK ? kOk : Failed(camera.serial, "FocusShift", result);
}

int Preview(const Choice& choice, int frames, const std::string& dir)
{
    Session session;
    if (int status = session.Open(choice, false))
        return status;
    const Rig::Camera& camera = session.Cameras().front();
    for (int n = 1; n <= frames; ++n) {
        std::vector<unsigned char> bmp;
        const QKResult result = qkrig::PreviewBmp(*camera.device, &bmp);
        if (result != QK_OK)
            return Failed(camera.serial, "PTPLoadPreviewFrame", result);
        char name[64];
        std::snprintf(name, sizeof(name), "/preview_%s_%04d.bmp", Narrow(camera.serial).c_str(), n);
        const std::string path = dir + name;
        std::ofstream out(path, std::ios::binary);
        out.write(reinterpret_cast<const char*>(bmp.data()), static_cast<std::streamsize>(bmp.size()));
        if (!out.flush())
            return Say(kFailed, "cannot write " + path);
        std::cout << path << '\n';
    }
    return kOk;
}

int Video(const Choice& choice, const std::string& action, const std::string& dir)
{
    Session session;
    if (int status = session.Open(choice, false))
        return status;
    const Rig::Camera& camera = session.Cameras().front();
    if (action == "start") {
        const QKResult result = camera.device->PTPStartVideo();
        return result == QK_OK ? kOk : Failed(camera.serial, "PTPStartVideo", result);
    }
    // The video is found against the card as it was before the stop; a
    // start in another run of this command left no listing behind.
    QKFileInfo file;
    QKResult result = qkrig::StopVideo(*camera.device, &file);
    if (result != QK_OK)
        return Failed(camera.serial, "PTPStopVideo", result);
    std::string line = Narrow(camera.serial) + "\t" + Narrow(file.name) + "\t" + std::to_string(file.size);
    if (!dir.empty()) {
        std::string path;
        if ((result = Download(*camera.device, file, dir, "", nullptr, &path)) != QK_OK)
            return Failed(camera.serial, "PTPDownloadFile " + Narrow(file.name), result);
        line += "\t" + path;
    }
    std::cout << line << '\n';
    return kOk;
}

} // namespace

void AddLensCommands(CLI::App& app, int* status)
{
    auto choice = std::make_shared<Choice>();
    auto number = std::make_shared<int>(0);
    CLI::App* zoom = app.add_subcommand("zoom", "Move the zoom to POSITION (0 is widest)");
    AddChoice(zoom, choice.get(), true);
    zoom->add_option("POSITION", *number, "zoom position")->required();
    zoom->callback([=] { *status = Zoom(*choice, *number); });

    auto position = std::make_shared<std::optional<int>>();
    auto shift = std::make_shared<std::optional<int>>();
    CLI::App* focus = app.add_subcommand("focus", "Set the manual focus, or shift it by N steps");
    AddChoice(focus, choice.get(), false);
    focus->add_option("POSITION", *position, "focus position");
    focus->add_option("--shift", *shift, "steps nearer (negative: farther)");
    focus->callback([=] { *status = Focus(*choice, *position, *shift); });

    auto frames = std::make_shared<int>(1);
    auto dir = std::make_shared<std::string>(".");
    CLI::App* preview = app.add_subcommand("preview", "Write live preview frames as BMP files");
    AddChoice(preview, choice.get(), false);
    preview->add_option("--frames", *frames, "how many frames")->check(CLI::PositiveNumber);
    preview->add_option("-o,--output", *dir, "directory to write into")->check(CLI::ExistingDirectory);
    preview->callback([=] { *status = Preview(*choice, *frames, *dir); });

    auto action = std::make_shared<std::string>();
    auto download = std::make_shared<std::string>();
    CLI::App* video = app.add_subcommand("video", "Start or stop a video");
    video->add_option("ACTION", *action, "start or stop")->required()->check(CLI::IsMember({"start", "stop"}));
    AddChoice(video, choice.get(), false);
    video->add_option("--download", *download, "after stop, download the video into DIR")
        ->check(CLI::ExistingDirectory);
    video->callback([=] { *status = Video(*choice, *action, *download); });
}

} // namespace qkcli
