// SPDX-License-Identifier: MIT
#pragma once
// What the parts of the Python module share: the one transport of the
// process, the cameras this process holds open, errors on their way to
// Python, and Ctrl-C between the steps of a long call.

#include <pybind11/pybind11.h>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <tuple>
#include <string>

#include "DevicePTP/DevicePTP.h"
#include "rig/Rig.h"
#include "usb/UsbLib.h"

namespace qkpy {

namespace py = pybind11;

// A failed engine step on its way to the matching qkcam exception; raised
// with the GIL released, turned into Python by the module's translator.
struct Failure {
    int result;
    std::string step;
    std::string message;
    // "CameraNotFound" and "Unsupported" name classes that carry no result.
    std::string kind;
};
[[noreturn]] void Fail(QKResult result, const std::string& step, const std::string& message = "");
[[noreturn]] void FailAs(const std::string& kind, const std::string& message);

// The transport every camera of the process shares; made on first use,
// telling WatchListener of every change on the bus.
std::shared_ptr<UsbLib> Transport();
std::weak_ptr<IUsbLib_Notify> WatchListener();
// Options that open the one camera qkcam.open names: by serial, by path, or
// the only one attached (CameraNotFound otherwise).
RigOptions OneCamera(const std::optional<std::string>& serial, const std::optional<std::string>& path);

// path, serial, product, model
using Identity = std::tuple<std::string, std::string, std::string, std::string>;
Identity IdentityOf(const std::wstring& path, DevicePTP& device);
// Rig::Open, one at a time in the process and over the attached cameras the
// process doesn't hold already; `use` takes the rig before the next opening
// starts, so the cameras it keeps are noted as held by then.
void OpenRig(RigOptions options, const std::function<void(std::unique_ptr<Rig>)>& use);
// Cameras this process holds open, by path: others can't open them again
// to read who they are.
void NoteOpen(const Identity& identity);
void NoteClosed(const std::string& path);
bool FindOpen(const std::string& path, Identity* identity);

// Asked between the steps of a chain, with the GIL released: takes the GIL
// a moment to run pending signal handlers; what they raised (Ctrl-C's
// KeyboardInterrupt) is kept and raised once the chain has let go.
class Interruption {
public:
    std::function<bool()> Asker();
    // Raises what a handler raised, if one did.
    void RaiseIfAny();

private:
    std::shared_ptr<py::error_already_set> raised;
};

// The Python callbacks a camera's hooks call, on the thread that raised them.
struct Hooks {
    py::object propertyChanged, zoomChanged, focusChanged, propertyListChanged, newPreviewFrame;
    // The last camera object may go on any thread, with or without the GIL.
    ~Hooks();
};
// Rig options whose cameras call `hooks` (none when it is null).
void UseHooks(RigOptions* options, std::shared_ptr<Hooks> hooks);

void BindCamera(py::module_& module);
void BindRig(py::module_& module);
void BindWatch(py::module_& module);

} // namespace qkpy
