// SPDX-License-Identifier: MIT
#pragma once
/// @file
/// Many cameras at once: a rig opens a set of attached cameras through one
/// shared transport, readies each for work, runs an operation on all of them
/// in parallel (one worker thread per camera) and shoots them together, the
/// shoot command released to every camera at the same instant.

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "../DevicePTP/DevicePTP.h"
#include "../DevicePTP/QKFileInfo.h"
#include "../DevicePTP/QKResult.h"
#include "../usb/UsbLib.h"

/// What happened to one camera in a rig operation.
struct RigOutcome {
    std::wstring serial;  ///< The camera's serial number (empty if it could not be read).
    std::wstring path;    ///< The camera's transport path.
    std::string step;     ///< The step that failed, or empty on success.
    QKResult result = QK_OK; ///< QK_OK, or what the failed step returned
    /// Whether the camera did it.
    bool ok() const { return result == QK_OK; }
};

/// One camera's part of a synchronised shot.
struct RigShotOutcome : RigOutcome {
    QKFileInfo file{};  ///< The new picture (valid when ok()).
    /// When the camera's shoot command was let go, on the wall clock (the
    /// epoch when it never got there).
    std::chrono::system_clock::time_point released{};
};

/// How a rig is opened.
struct RigOptions {
    /// Serial numbers to take; empty takes every attached camera.
    std::vector<std::wstring> serials;
    /// Transport paths to look at; empty looks at every attached camera.
    std::vector<std::wstring> paths;
    /// Makes the camera objects, for a host whose derived class listens to
    /// the hooks; empty uses DevicePTP::build.
    std::function<std::shared_ptr<DevicePTP>(std::shared_ptr<UsbLib> usb, std::wstring path)> build;
    /// How long to wait for each camera to reach record mode.
    std::chrono::milliseconds recModeLimit{15000};
    /// With a version, a camera whose module is older fails its opening.
    std::string requiredModuleVersion;
    /// Skip the ready steps after the serial number (session, version,
    /// record mode, flags, properties): for listing cameras only.
    bool identifyOnly = false;
};

/// A set of cameras driven together. Build with Rig::Open.
class Rig {
public:
    /// A camera of the rig, ready for work.
    struct Camera {
        std::wstring serial;               ///< its serial number
        std::wstring path;                 ///< its transport path
        std::shared_ptr<DevicePTP> device; ///< the camera object, session open
    };

    /// Opens the attached cameras that `options` asks for, each on its own
    /// worker thread, through `usb`. Cameras that fail a step are left out
    /// of Cameras() and reported by Failures(); the others go on. A serial
    /// asked for but not attached is reported with step "find".
    static std::unique_ptr<Rig> Open(std::shared_ptr<UsbLib> usb, const RigOptions& options);

    /// The ready cameras, in transport path order.
    const std::vector<Camera>& Cameras() const { return cameras; }
    /// The cameras that could not be opened or readied, with their step.
    const std::vector<RigOutcome>& Failures() const { return failures; }
    /// The ready camera with that serial, or null.
    const Camera* Find(const std::wstring& serial) const;

    /// An operation on one camera. It names the step that failed through
    /// `step` and returns its result.
    using Operation = std::function<QKResult(const Camera& camera, std::string* step)>;
    /// Runs `operation` on every ready camera at once, one worker per
    /// camera, and gives one outcome per camera in Cameras() order.
    std::vector<RigOutcome> ForEach(const Operation& operation) const;

    /// A synchronised shot on every ready camera: each does all that comes
    /// before its shoot command, the rig waits until every camera is there,
    /// then releases all commands together. `direct` keeps the pictures in
    /// camera memory (negative file ids) instead of the card.
    std::vector<RigShotOutcome> Shoot(bool direct) const;
    /// The same, the commands let go at `fireAt` on the wall clock
    /// (CLOCK_REALTIME) once every camera is there, or at once if that has
    /// passed: rigs on hosts whose clocks agree fire together.
    std::vector<RigShotOutcome> ShootAt(bool direct, std::chrono::system_clock::time_point fireAt) const;

    /// A rig of cameras already opened and readied (by earlier rigs on the
    /// same transport), for a host whose set of cameras changes.
    static std::unique_ptr<Rig> Of(std::shared_ptr<UsbLib> usb, std::vector<Camera> cameras);

    /// The transport the rig was opened on.
    const std::shared_ptr<UsbLib>& Transport() const { return usb; }

private:
    Rig() = default;
    std::shared_ptr<UsbLib> usb;
    std::vector<Camera> cameras;
    std::vector<RigOutcome> failures;
};
