// SPDX-License-Identifier: MIT
#pragma once
// One camera as the Python package sees it. Every method is called without
// the GIL (the binding's call guard), except those that make Python objects,
// which release it themselves around the engine.

#include <mutex>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "Binding.h"
#include "proc/ContProc.h"

namespace qkpy {

// id, name, size
using FileTuple = std::tuple<int, std::string, int>;

class Camera {
public:
    explicit Camera(const Rig::Camera& camera);
    ~Camera();
    static std::shared_ptr<Camera> Open(const std::optional<std::string>& serial,
                                        const std::optional<std::string>& path, std::shared_ptr<Hooks> hooks);

    const Identity& Who() const { return identity; }
    std::string ModuleVersion() const;
    std::string Battery() const;
    std::vector<std::string> PropertyNames() const;
    std::string Get(const std::string& name) const;
    void Set(const std::string& name, const std::string& value);
    std::vector<std::string> Values(const std::string& name) const;
    int Zoom() const;
    int MaxZoom() const;
    void SetZoom(int zoom);
    int Focus() const;
    int SetFocus(int focus);
    void FocusShift(int shift);
    FileTuple Shoot(bool direct);
    std::vector<FileTuple> Files() const;
    void Download(int id, const std::string& path);
    py::bytes Read(int id);
    void Remove(int id);
    void CleanCard();
    py::bytes PreviewBmp();
    void StartVideo();
    FileTuple StopVideo();
    void Close();
    bool Closed() const { return !device; }
    // The engine's camera object, or Error once closed.
    std::shared_ptr<DevicePTP> Device() const;

private:
    void Check(QKResult result, const std::string& step) const;
    int Property(const std::string& name) const;
    void NeedManualFocus() const;
    // One chain of a camera at a time; Ctrl-C stops it between steps.
    QKResult RunChain(ContProc* chain);

    mutable std::mutex mutex;
    std::mutex chainMutex;
    std::shared_ptr<DevicePTP> device;
    Identity identity;
};

} // namespace qkpy
