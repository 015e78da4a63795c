// SPDX-License-Identifier: MIT
// qkcam shoot, files, download, rm, clean and camera-log.

#include <strings.h>

#include <climits>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <map>
#include <thread>

#include "DevicePTP/PtpCodes.h"
#include "proc/ContProc.h"
#include "tool/qkcam/Cli.h"

namespace qkcli {

namespace {

using json = nlohmann::ordered_json;

struct ShootOptions {
    bool direct = false;
    std::string downloadDir;
    bool remove = false;
    int count = 1;
    double interval = 0;
};

// Latest minus earliest arrival of each camera's last shoot command, as the
// virtual cameras' trace (QKCAM_TRACE) tells it; none without a trace.
std::optional<long long> SpreadFromTrace(const std::vector<RigShotOutcome>& shots, unsigned int subCommand)
{
    const char* path = std::getenv("QKCAM_TRACE");
    if (!path || shots.size() < 2)
        return std::nullopt;
    std::map<std::string, long long> latest;
    for (const RigShotOutcome& shot : shots)
        latest[Narrow(shot.serial)] = 0;
    std::ifstream trace(path);
    for (std::string line; std::getline(trace, line);) {
        json entry = json::parse(line, nullptr, false);
        if (entry.is_discarded() || !entry["subCommand"].is_number() || entry["subCommand"] != subCommand ||
            !entry["serial"].is_string())
            continue;
        auto camera = latest.find(entry["serial"].get<std::string>());
        if (camera != latest.end())
            camera->second = entry["ns"].get<long long>();
    }
    long long first = LLONG_MAX, last = 0;
    for (const auto& entry : latest) {
        if (entry.second == 0)
            return std::nullopt;
        first = std::min(first, entry.second);
        last = std::max(last, entry.second);
    }
    return last - first;
}

// Download and removal of one new picture; its line, or a failure said.
// With many cameras the same file name comes from each: the serial keeps them apart.
int Collect(const Rig::Camera& camera, const RigShotOutcome& shot, const ShootOptions& options, bool many,
            std::string* line)
{
    *line = Narrow(camera.serial) + "\t" + Narrow(shot.file.name) + "\t" + std::to_string(shot.file.size);
    if (options.downloadDir.empty())
        return kOk;
    std::string path;
    const std::string prefix = many ? Narrow(camera.serial) + "_" : "";
    const QKResult result = Download(*camera.device, shot.file, options.downloadDir, prefix, nullptr, &path);
    if (result != QK_OK)
        return Failed(camera.serial, "PTPDownloadFile " + Narrow(shot.file.name), result);
    *line += "\t" + path;
    // Only a picture safely on disk leaves the camera.
    if (options.remove) {
        const QKResult removed = camera.device->PTPRemoveFile(shot.file.id);
        if (removed != QK_OK)
            return Failed(camera.serial, "PTPRemoveFile " + Narrow(shot.file.name), removed);
    }
    return kOk;
}

int Shoot(const Choice& choice, const ShootOptions& options)
{
    Session session;
    if (int status = session.Open(choice, false))
        return status;
    int status = session.Partial();
    const std::vector<Rig::Camera>& cameras = session.Cameras();
    for (int picture = 0; picture < options.count; ++picture) {
        if (picture > 0)
            std::this_thread::sleep_for(std::chrono::duration<double>(options.interval));
        std::vector<RigShotOutcome> shots;
        if (choice.all) {
            shots = session.TheRig().Shoot(options.direct);
        } else {
            RigShotOutcome shot;
            shot.serial = cameras[0].serial;
            shot.step = options.direct ? "PTPShoot_Direct" : "PTPShoot_Normal";
            shot.result = qkrig::ShootOne(*cameras[0].device, options.direct, &shot.file);
            shots.push_back(shot);
        }
        // Each camera downloads its own picture at the same time as the others.
        std::vector<std::string> lines(shots.size());
        std::vector<int> statuses(shots.size(), kOk);
        std::vector<std::thread> workers;
        for (size_t i = 0; i < shots.size(); ++i) {
            if (!shots[i].ok()) {
                statuses[i] = Failed(shots[i].serial, shots[i].step, shots[i].result);
                continue;
            }
            workers.emplace_back([&, i] { statuses[i] = Collect(cameras[i], shots[i], options, choice.all, &lines[i]); });
        }
        for (std::thread& worker : workers)
            worker.join();
        for (size_t i = 0; i < shots.size(); ++i) {
            status = std::max(status, statuses[i]);
            if (!lines[i].empty() && statuses[i] == kOk)
                std::cout << lines[i] << '\n';
        }
        if (choice.all) {
            auto spread = SpreadFromTrace(shots, options.direct ? PTP_QKM_RemoteCaptureStart : PTP_QKM_Shoot);
            if (spread)
                std::cout << "spread: " << *spread / 1000 << " us over " << shots.size() << " cameras\n";
        }
        std::cout.flush();
    }
    return status;
}

// Files named by name (any case) or id; an unknown one ends the command.
int Resolve(const Rig::Camera& camera, const std::vector<QKFileInfo>& files, const std::vector<std::string>& names,
            std::vector<QKFileInfo>* chosen)
{
    for (const std::string& name : names) {
        auto match = std::find_if(files.begin(), files.end(), [&](const QKFileInfo& file) {
            return strcasecmp(Narrow(file.name).c_str(), name.c_str()) == 0 || std::to_string(file.id) == name;
        });
        if (match == files.end())
            return Say(kUsage, "camera " + Narrow(camera.serial) + " has no file " + name);
        chosen->push_back(*match);
    }
    return kOk;
}

// Runs `work` on the one chosen camera with its catalogue.
template <typename Work>
int WithCatalogue(const Choice& choice, const Work& work)
{
    Session session;
    if (int status = session.Open(choice, false))
        return status;
    const Rig::Camera& camera = session.Cameras().front();
    std::vector<QKFileInfo> files;
    const QKResult result = qkrig::Catalogue(*camera.device, &files);
    if (result != QK_OK)
        return Failed(camera.serial, "PTPUpdateObjectsInfo", result);
    return work(camera, files);
}

int Files(const Choice& choice)
{
    return WithCatalogue(choice, [&](const Rig::Camera&, const std::vector<QKFileInfo>& files) {
        json list = json::array();
        for (const QKFileInfo& file : files) {
            if (choice.json)
                list.push_back({{"id", file.id}, {"name", Narrow(file.name)}, {"size", file.size}});
            else
                std::cout << file.id << '\t' << Narrow(file.name) << '\t' << file.size << '\n';
        }
        if (choice.json)
            std::cout << list.dump(2) << '\n';
        return kOk;
    });
}

int DownloadFiles(const Choice& choice, const std::vector<std::string>& names, bool allFiles, const std::string& dir)
{
    if (names.empty() == !allFiles)
        return Say(kUsage, "download: name files (NAME or ID) or give --all-files");
    return WithCatalogue(choice, [&](const Rig::Camera& camera, const std::vector<QKFileInfo>& files) {
        std::vector<QKFileInfo> chosen;
        if (allFiles)
            chosen = files;
        else if (int status = Resolve(camera, files, names, &chosen))
            return status;
        Progress progress(Narrow(camera.serial), static_cast<int>(chosen.size()));
        int status = kOk;
        std::vector<std::string> paths;
        for (const QKFileInfo& file : chosen) {
            std::string path;
            const QKResult result = Download(*camera.device, file, dir, "", &progress, &path);
            if (result != QK_OK)
                status = Failed(camera.serial, "PTPDownloadFile " + Narrow(file.name), result);
            else
                paths.push_back(path);
        }
        progress.Finish();
        for (const std::string& path : paths)
            std::cout << path << '\n';
        return status;
    });
}

int Remove(const Choice& choice, const std::vector<std::string>& names)
{
    return WithCatalogue(choice, [&](const Rig::Camera& camera, const std::vector<QKFileInfo>& files) {
        std::vector<QKFileInfo> chosen;
        if (int status = Resolve(camera, files, names, &chosen))
            return status;
        for (const QKFileInfo& file : chosen) {
            const QKResult result = camera.device->PTPRemoveFile(file.id);
            if (result != QK_OK)
                return Failed(camera.serial, "PTPRemoveFile " + Narrow(file.name), result);
        }
        return kOk;
    });
}

int OnOneCamera(const Choice& choice, const char* step, QKResult (DevicePTP::*operation)())
{
    Session session;
    if (int status = session.Open(choice, false))
        return status;
    const Rig::Camera& camera = session.Cameras().front();
    const QKResult result = ((*camera.device).*operation)();
    return result == QK_OK ? kOk : Failed(camera.serial, step, result);
}

} // namespace

void AddShotCommands(CLI::App& app, int* status)
{
    auto choice = std::make_shared<Choice>();
    auto shoot = std::make_shared<ShootOptions>();
    CLI::App* shootCommand = app.add_subcommand("shoot", "Take pictures; with --all every camera at the same instant");
    AddChoice(shootCommand, choice.get(), true);
    shootCommand->add_flag("--direct", shoot->direct, "keep the picture in camera memory, not on the card");
    CLI::Option* download =
        shootCommand->add_option("--download", shoot->downloadDir, "download each picture into DIR")
            ->check(CLI::ExistingDirectory);
    shootCommand->add_flag("--remove", shoot->remove, "remove each picture from the camera once downloaded")
        ->needs(download);
    shootCommand->add_option("--count", shoot->count, "pictures to take")->check(CLI::PositiveNumber);
    shootCommand->add_option("--interval", shoot->interval, "seconds between pictures")
        ->check(CLI::NonNegativeNumber);
    shootCommand->callback([=] { *status = Shoot(*choice, *shoot); });

    CLI::App* files = app.add_subcommand("files", "List the files on the camera's card");
    AddChoice(files, choice.get(), false);
    files->add_flag("--json", choice->json, "as JSON");
    files->callback([=] { *status = Files(*choice); });

    auto names = std::make_shared<std::vector<std::string>>();
    auto allFiles = std::make_shared<bool>(false);
    auto dir = std::make_shared<std::string>(".");
    CLI::App* get = app.add_subcommand("download", "Download files by name or id");
    AddChoice(get, choice.get(), false);
    get->add_option("FILE", *names, "file names or ids");
    get->add_flag("--all-files", *allFiles, "every file on the card");
    get->add_option("-o,--output", *dir, "directory to write into")->check(CLI::ExistingDirectory);
    get->callback([=] { *status = DownloadFiles(*choice, *names, *allFiles, *dir); });

    CLI::App* rm = app.add_subcommand("rm", "Remove files from the card by name or id");
    AddChoice(rm, choice.get(), false);
    rm->add_option("FILE", *names, "file names or ids")->required();
    rm->callback([=] { *status = Remove(*choice, *names); });

    CLI::App* clean = app.add_subcommand("clean", "Remove the pictures IMG_0010 and later from the card");
    AddChoice(clean, choice.get(), false);
    clean->callback([=] { *status = OnOneCamera(*choice, "PTPCleanCard", &DevicePTP::PTPCleanCard); });

    CLI::App* log = app.add_subcommand("camera-log", "Copy the camera's own log into the engine's log");
    AddChoice(log, choice.get(), false);
    log->callback([=] {
        *status = OnOneCamera(*choice, "PTPDownloadCameraLog", &DevicePTP::PTPDownloadCameraLog);
        if (*status == kOk)
            std::cout << "camera log written to " << MainLogPath() << '\n';
    });
}

} // namespace qkcli
