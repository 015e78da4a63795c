// SPDX-License-Identifier: MIT
#pragma once
// What the qkcam subcommands share: choosing cameras, opening them through
// the rig, reporting failures with the exit status the command ends with,
// and names of properties and values as the engine's tables give them.

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "rig/CameraSteps.h"
#include "rig/Rig.h"

namespace qkcli {

constexpr int kOk = 0, kFailed = 1, kUsage = 2, kNoCamera = 3;

// -c SERIAL or --all, as a subcommand was given them.
struct Choice {
    std::string serial;
    bool all = false;
    bool json = false;
};

// Adds -c (and --all when the command can work on every camera).
void AddChoice(CLI::App* command, Choice* choice, bool allowAll);

std::string Narrow(const std::wstring& text);
using qkrig::AllowedValues;
using qkrig::CameraProperties;
using qkrig::FindProperty;
using qkrig::FindValue;
using qkrig::JoinNames;
using qkrig::PropertyName;
using qkrig::ResultName;
using qkrig::ValueName;

// "qkcam: camera S: STEP failed: RESULT" on stderr; returns kFailed.
int Failed(const std::wstring& serial, const std::string& step, QKResult result);
// A message on stderr; returns `status`.
int Say(int status, const std::string& message);

// The opened cameras of one command.
class Session {
public:
    // Opens what `choice` names: one camera (-c, or the only one attached),
    // or all with --all (or when `wantAll`). Returns kOk or the status to
    // end with, having said why.
    int Open(const Choice& choice, bool wantAll, bool identifyOnly = false);
    const std::vector<Rig::Camera>& Cameras() const { return rig->Cameras(); }
    // The status the cameras that could not be opened leave the command with.
    int Partial() const { return partial; }
    const Rig& TheRig() const { return *rig; }
    // Outcomes of a rig operation: failures said, status of the worst.
    static int Report(const std::vector<RigOutcome>& outcomes);

private:
    std::shared_ptr<UsbLib> usb;
    std::unique_ptr<Rig> rig;
    int partial = kOk;
};

// A downloaded file's progress on a terminal: one bar per file with the
// rate so far; nothing when standard output is not a terminal.
class Progress {
public:
    explicit Progress(std::string label, int files);
    void FileDone(long long bytes);
    void Finish();

private:
    std::string label;
    int files;
    int done = 0;
    long long bytes = 0;
    std::chrono::steady_clock::time_point start;
    bool terminal;
};

// Downloads one file into `dir` under its own name behind `prefix`; the
// local path on success, and nothing left on disk on failure.
QKResult Download(DevicePTP& device, const QKFileInfo& file, const std::string& dir, const std::string& prefix,
                  Progress* progress, std::string* path);

// Where the engine's main log goes in this run.
std::string MainLogPath();

// Subcommands, each in the file of its group.
void AddSettingCommands(CLI::App& app, int* status);
void AddShotCommands(CLI::App& app, int* status);
void AddLensCommands(CLI::App& app, int* status);
void AddRigCommands(CLI::App& app, int* status);

} // namespace qkcli
