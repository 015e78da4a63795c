// SPDX-License-Identifier: MIT
// The module _qkcam: the transport, errors, the camera list and opening one
// camera; the classes are bound in their own files.

#include <pybind11/stl.h>

#include <set>

#include "Binding.h"
#include "DevicePTP/PtpCodes.h"
#include "DevicePTP/Version.h"
#include "log/Log.h"
#include "rig/CameraSteps.h"
#include "usb/UsbLib_libusb.h"

namespace qkpy {

[[noreturn]] void Fail(QKResult result, const std::string& step, const std::string& message)
{
    throw Failure{static_cast<int>(result), step, message, ""};
}

[[noreturn]] void FailAs(const std::string& kind, const std::string& message)
{
    throw Failure{static_cast<int>(QK_ERROR), "", message, kind};
}

namespace {

std::mutex openMutex;
std::map<std::string, Identity> openCameras;

void Translate(const Failure& failure)
{
    py::object errors = py::module_::import("qkcam.errors");
    py::object error = errors.attr("make")(failure.result, failure.step, failure.message, failure.kind);
    PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(error.ptr())), error.ptr());
}

std::vector<Identity> Cameras()
{
    std::vector<Identity> found;
    for (const std::wstring& path : Transport()->GetAllConnectedDevicePaths()) {
        Identity held;
        if (FindOpen(wstrToStr(path), &held))
            found.push_back(held);
    }
    RigOptions options;
    options.identifyOnly = true;
    OpenRig(options, [&found](std::unique_ptr<Rig> rig) {
        for (const Rig::Camera& camera : rig->Cameras())
            found.push_back(IdentityOf(camera.path, *camera.device));
        // Held by another process: known by the path alone.
        for (const RigOutcome& failure : rig->Failures())
            found.push_back(Identity{wstrToStr(failure.path), wstrToStr(failure.serial), "", ""});
    });
    std::sort(found.begin(), found.end());
    return found;
}

// Serials of the attached cameras, for a message that asks to choose.
std::string AttachedSerials()
{
    std::vector<std::string> serials;
    for (const Identity& camera : Cameras())
        serials.push_back(std::get<1>(camera).empty() ? std::get<0>(camera) : std::get<1>(camera));
    return qkrig::JoinNames(serials);
}

} // namespace

std::shared_ptr<UsbLib> Transport()
{
    static std::mutex mutex;
    static std::shared_ptr<UsbLib> usb;
    std::lock_guard<std::mutex> lock(mutex);
    if (!usb)
        usb = UsbLib_libusb::build(WatchListener());
    return usb;
}

Identity IdentityOf(const std::wstring& path, DevicePTP& device)
{
    return Identity{wstrToStr(path), wstrToStr(device.GetSerialNumber()), wstrToStr(device.GetCameraName()),
                    wstrToStr(device.GetCameraId())};
}

void NoteOpen(const Identity& identity)
{
    std::lock_guard<std::mutex> lock(openMutex);
    openCameras[std::get<0>(identity)] = identity;
}

void NoteClosed(const std::string& path)
{
    std::lock_guard<std::mutex> lock(openMutex);
    openCameras.erase(path);
}

bool FindOpen(const std::string& path, Identity* identity)
{
    std::lock_guard<std::mutex> lock(openMutex);
    auto found = openCameras.find(path);
    if (found == openCameras.end())
        return false;
    *identity = found->second;
    return true;
}

void OpenRig(RigOptions options, const std::function<void(std::unique_ptr<Rig>)>& use)
{
    static std::mutex opening;
    std::lock_guard<std::mutex> lock(opening);
    std::vector<std::wstring> free;
    for (const std::wstring& path : Transport()->GetAllConnectedDevicePaths()) {
        Identity held;
        const bool asked = options.paths.empty() ||
                           std::find(options.paths.begin(), options.paths.end(), path) != options.paths.end();
        if (asked && !FindOpen(wstrToStr(path), &held))
            free.push_back(path);
    }
    // No free camera: a path no transport gives, so that the rig opens none.
    options.paths = free.empty() ? std::vector<std::wstring>{L"-"} : free;
    use(Rig::Open(Transport(), options));
}

std::function<bool()> Interruption::Asker()
{
    return [this] {
        if (raised)
            return true;
        py::gil_scoped_acquire gil;
        if (PyErr_CheckSignals() == 0)
            return false;
        raised = std::make_shared<py::error_already_set>();
        return true;
    };
}

void Interruption::RaiseIfAny()
{
    if (raised)
        throw py::error_already_set(*raised);
}

// The options that open one camera as `qkcam.open` was asked to.
RigOptions OneCamera(const std::optional<std::string>& serial, const std::optional<std::string>& path)
{
    RigOptions options;
    if (serial)
        options.serials = {strToWstr(*serial)};
    if (path)
        options.paths = {strToWstr(*path)};
    if (serial || path)
        return options;
    const std::set<std::wstring> attached = Transport()->GetAllConnectedDevicePaths();
    if (attached.empty())
        FailAs("CameraNotFound", "no camera is attached");
    if (attached.size() > 1)
        FailAs("CameraNotFound",
               std::to_string(attached.size()) + " cameras are attached; choose one by serial: " + AttachedSerials());
    options.paths = {*attached.begin()};
    return options;
}

} // namespace qkpy

PYBIND11_MODULE(_qkcam, module)
{
    using namespace qkpy;
    module.doc() = "The engine under the qkcam package; use the package, not this module.";
    module.attr("__version__") = qkcamVersion();
    // The sub-commands that fire a normal and a direct shot, as a trace names them.
    module.attr("SHOOT_COMMANDS") = py::make_tuple(PTP_QKM_Shoot, PTP_QKM_RemoteCaptureStart);
    py::register_exception_translator([](std::exception_ptr pointer) {
        try {
            if (pointer)
                std::rethrow_exception(pointer);
        } catch (const Failure& failure) {
            Translate(failure);
        }
    });
    module.def("cameras", &Cameras, py::call_guard<py::gil_scoped_release>(),
               "(path, serial, product, model) of every attached camera");
    module.def(
        "log_to",
        [](const std::string& directory, bool console) {
            LoggerSpecialInit(console, directory + "/qkdll.log", directory + "/qkdll_api.log");
        },
        py::arg("directory"), py::arg("console") = false);
    module.def("property_names", &qkrig::AllPropertyNames, "Every property name the engine knows.");
    BindCamera(module);
    BindRig(module);
    BindWatch(module);
}
