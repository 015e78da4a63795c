// SPDX-License-Identifier: MIT
// _qkcam.Camera: one camera, every call into the engine without the GIL.

#include <pybind11/stl.h>

#include <algorithm>

#include "Binding.h"
#include "PyCamera.h"
#include "proc/ContProc.h"
#include "rig/CameraSteps.h"

namespace qkpy {

namespace {

// The camera object of a Python camera, calling its hooks.
class HookedDevice : public DevicePTP {
public:
    HookedDevice(std::shared_ptr<UsbLib> usb, std::wstring path, std::shared_ptr<Hooks> hooks_)
        : DevicePTP(std::move(usb), std::move(path)), hooks(std::move(hooks_))
    {
    }

    void OnPropertyChanged(int property) override
    {
        int value = 0;
        if (!hooks->propertyChanged.is_none() && GetPropertyData(property, &value) == QK_OK)
            Call(hooks->propertyChanged, qkrig::PropertyName(property), qkrig::ValueName(property, value));
    }
    void OnZoomChanged() override
    {
        int zoom = 0;
        if (!hooks->zoomChanged.is_none() && GetZoom(&zoom) == QK_OK)
            Call(hooks->zoomChanged, zoom);
    }
    void OnFocusChanged() override
    {
        int focus = 0;
        if (!hooks->focusChanged.is_none() && GetFocus(&focus) == QK_OK)
            Call(hooks->focusChanged, focus);
    }
    void OnPropertyListChanged() override { Call(hooks->propertyListChanged); }
    void OnNewPreviewFrame() override { Call(hooks->newPreviewFrame); }

private:
    // A callback's exception can't travel back through the engine: Python
    // reports it as unraisable and the camera goes on.
    template <typename... Args>
    static void Call(const py::object& callback, Args&&... args)
    {
        if (!callback || callback.is_none())
            return;
        py::gil_scoped_acquire gil;
        try {
            callback(std::forward<Args>(args)...);
        } catch (py::error_already_set& error) {
            error.discard_as_unraisable("a qkcam camera hook");
        }
    }

    std::shared_ptr<Hooks> hooks;
};

std::string Narrow(const std::wstring& text) { return wstrToStr(text); }

FileTuple ToTuple(const QKFileInfo& file) { return FileTuple{file.id, Narrow(file.name), file.size}; }

} // namespace

Hooks::~Hooks()
{
    if (!Py_IsInitialized())
        return;
    py::gil_scoped_acquire gil;
    propertyChanged = zoomChanged = focusChanged = propertyListChanged = newPreviewFrame = py::object();
}

void UseHooks(RigOptions* options, std::shared_ptr<Hooks> hooks)
{
    if (!hooks)
        return;
    options->build = [hooks](std::shared_ptr<UsbLib> usb, std::wstring path) -> std::shared_ptr<DevicePTP> {
        return std::make_shared<HookedDevice>(std::move(usb), std::move(path), hooks);
    };
}

Camera::Camera(const Rig::Camera& camera) : device(camera.device), identity(IdentityOf(camera.path, *camera.device))
{
    NoteOpen(identity);
}

Camera::~Camera() { Close(); }

std::shared_ptr<Camera> Camera::Open(const std::optional<std::string>& serial, const std::optional<std::string>& path,
                                     std::shared_ptr<Hooks> hooks)
{
    py::gil_scoped_release release;
    RigOptions options = OneCamera(serial, path);
    UseHooks(&options, std::move(hooks));
    std::shared_ptr<Camera> opened;
    RigOutcome failure;
    OpenRig(options, [&](std::unique_ptr<Rig> rig) {
        if (!rig->Cameras().empty())
            opened = std::make_shared<Camera>(rig->Cameras().front());
        failure.step = "find";
        // The asked camera's own failure; other cameras' (held elsewhere) only without a serial.
        for (const RigOutcome& each : rig->Failures())
            if (serial ? each.serial == strToWstr(*serial) : true)
                failure = each;
    });
    if (opened)
        return opened;
    if (failure.step == "find")
        FailAs("CameraNotFound", serial ? "no camera with serial " + *serial
                                        : "no camera at " + path.value_or("?") + " that this process doesn't hold");
    Fail(failure.result, failure.step,
         "camera " + (failure.serial.empty() ? Narrow(failure.path) : Narrow(failure.serial)) + ": " + failure.step +
             " failed");
}

std::shared_ptr<DevicePTP> Camera::Device() const
{
    std::lock_guard<std::mutex> lock(mutex);
    if (!device)
        FailAs("", "the camera " + std::get<1>(identity) + " is closed");
    return device;
}

void Camera::Close()
{
    std::shared_ptr<DevicePTP> closing;
    {
        std::lock_guard<std::mutex> lock(mutex);
        closing.swap(device);
    }
    if (closing)
        NoteClosed(std::get<0>(identity));
}

void Camera::Check(QKResult result, const std::string& step) const
{
    if (result != QK_OK)
        Fail(result, step, "camera " + std::get<1>(identity) + ": " + step + " failed");
}

int Camera::Property(const std::string& name) const
{
    const std::optional<int> property = qkrig::FindProperty(name);
    const std::vector<int> own = qkrig::CameraProperties(*Device());
    if (!property || std::find(own.begin(), own.end(), *property) == own.end())
        Fail(QK_UNKNOWN_PROPERTY, "property",
             "camera " + std::get<1>(identity) + " has no property \"" + name + "\"; properties: " +
                 qkrig::JoinNames(PropertyNames()));
    return *property;
}

std::vector<std::string> Camera::PropertyNames() const
{
    std::vector<std::string> names;
    for (int property : qkrig::CameraProperties(*Device()))
        names.push_back(qkrig::PropertyName(property));
    return names;
}

std::string Camera::Get(const std::string& name) const
{
    const int property = Property(name);
    int value = 0;
    Check(Device()->GetPropertyData(property, &value), "GetPropertyData " + qkrig::PropertyName(property));
    return qkrig::ValueName(property, value);
}

std::vector<std::string> Camera::Values(const std::string& name) const
{
    const int property = Property(name);
    std::vector<std::string> names;
    for (int value : qkrig::AllowedValues(*Device(), property))
        names.push_back(qkrig::ValueName(property, value));
    return names;
}

void Camera::Set(const std::string& name, const std::string& valueText)
{
    const int property = Property(name);
    const std::string propertyName = qkrig::PropertyName(property);
    const std::optional<int> value = qkrig::FindValue(property, valueText);
    if (!value)
        Fail(QK_UNSUPPORTED_VALUE, "SetPropertyData " + propertyName,
             "unknown value \"" + valueText + "\" of " + propertyName + "; values: " + qkrig::JoinNames(Values(name)));
    const QKResult result = qkrig::SetAllowedValue(*Device(), property, *value);
    if (result == QK_UNSUPPORTED_VALUE)
        Fail(result, "SetPropertyData " + propertyName,
             propertyName + " = " + qkrig::ValueName(property, *value) + " is not available now; values: " +
                 qkrig::JoinNames(Values(name)));
    Check(result, "SetPropertyData " + propertyName);
}

std::string Camera::Battery() const { return Get(qkrig::PropertyName(static_cast<int>(QKProp::BatteryLevel))); }

int Camera::Zoom() const
{
    int zoom = 0;
    Check(Device()->GetZoom(&zoom), "GetZoom");
    return zoom;
}

int Camera::MaxZoom() const
{
    int zoom = 0;
    Check(Device()->GetMaximumZoom(&zoom), "GetMaximumZoom");
    return zoom;
}

QKResult Camera::RunChain(ContProc* chain)
{
    std::lock_guard<std::mutex> lock(chainMutex);
    Interruption interruption;
    const QKResult result = ContProc::run(chain, interruption.Asker());
    interruption.RaiseIfAny();
    return result;
}

void Camera::SetZoom(int zoom)
{
    std::lock_guard<std::mutex> lock(chainMutex);
    Interruption interruption;
    const QKResult result = qkrig::ZoomTo(*Device(), zoom, interruption.Asker());
    interruption.RaiseIfAny();
    if (result == QK_UNSUPPORTED_VALUE)
        Fail(result, "PTPSetZoom", "zoom " + std::to_string(zoom) + " is outside 0 to " + std::to_string(MaxZoom()));
    Check(result, "PTPSetZoom");
}

void Camera::NeedManualFocus() const
{
    const std::vector<int> own = qkrig::CameraProperties(*Device());
    if (std::find(own.begin(), own.end(), static_cast<int>(QKProp::ManualFocusMode)) == own.end())
        FailAs("Unsupported", "camera " + std::get<1>(identity) + " (" + std::get<3>(identity) +
                                  ") has no manual focus");
}

int Camera::Focus() const
{
    NeedManualFocus();
    int focus = 0;
    Check(Device()->GetFocus(&focus), "GetFocus");
    return focus;
}

int Camera::SetFocus(int focus)
{
    NeedManualFocus();
    int reached = 0;
    Check(Device()->PTPManualFocusSet(focus, &reached), "PTPManualFocusSet");
    return reached;
}

void Camera::FocusShift(int shift)
{
    NeedManualFocus();
    Check(Device()->FocusShift(shift), "FocusShift");
}

FileTuple Camera::Shoot(bool direct)
{
    QKFileInfo file;
    std::shared_ptr<DevicePTP> camera = Device();
    auto keep = [&file](QKFileInfo shot) { file = shot; };
    Check(RunChain(direct ? camera->PTPShoot_Direct(keep) : camera->PTPShoot_Normal(keep)),
          direct ? "PTPShoot_Direct" : "PTPShoot_Normal");
    return ToTuple(file);
}

std::vector<FileTuple> Camera::Files() const
{
    std::vector<QKFileInfo> files;
    Check(qkrig::Catalogue(*Device(), &files), "PTPUpdateObjectsInfo");
    std::vector<FileTuple> tuples;
    for (const QKFileInfo& file : files)
        tuples.push_back(ToTuple(file));
    return tuples;
}

void Camera::Download(int id, const std::string& path)
{
    Check(qkrig::DownloadTo(*Device(), id, path), "PTPDownloadFile " + std::to_string(id));
}

py::bytes Camera::Read(int id)
{
    std::string bytes;
    {
        py::gil_scoped_release release;
        Check(qkrig::ReadFile(*Device(), id, &bytes), "PTPDownloadFile " + std::to_string(id));
    }
    return py::bytes(bytes);
}

void Camera::Remove(int id) { Check(Device()->PTPRemoveFile(id), "PTPRemoveFile " + std::to_string(id)); }

void Camera::CleanCard() { Check(Device()->PTPCleanCard(), "PTPCleanCard"); }

py::bytes Camera::PreviewBmp()
{
    std::vector<unsigned char> bmp;
    {
        py::gil_scoped_release release;
        Check(qkrig::PreviewBmp(*Device(), &bmp), "PTPLoadPreviewFrame");
    }
    return py::bytes(reinterpret_cast<const char*>(bmp.data()), bmp.size());
}

void Camera::StartVideo() { Check(Device()->PTPStartVideo(), "PTPStartVideo"); }

FileTuple Camera::StopVideo()
{
    QKFileInfo file;
    Check(qkrig::StopVideo(*Device(), &file), "PTPStopVideo");
    return ToTuple(file);
}

std::string Camera::ModuleVersion() const { return Narrow(Device()->GetModuleVersion()); }

} // namespace qkpy

namespace qkpy {

void BindCamera(py::module_& module)
{
    using Release = py::call_guard<py::gil_scoped_release>;
    py::class_<Hooks, std::shared_ptr<Hooks>>(module, "Hooks")
        .def(py::init<>())
        .def_readwrite("property_changed", &Hooks::propertyChanged)
        .def_readwrite("zoom_changed", &Hooks::zoomChanged)
        .def_readwrite("focus_changed", &Hooks::focusChanged)
        .def_readwrite("property_list_changed", &Hooks::propertyListChanged)
        .def_readwrite("new_preview_frame", &Hooks::newPreviewFrame);
    py::class_<Camera, std::shared_ptr<Camera>>(module, "Camera")
        .def_static("open", &Camera::Open, py::arg("serial"), py::arg("path"), py::arg("hooks"))
        .def_property_readonly("identity", &Camera::Who)
        .def_property_readonly("closed", &Camera::Closed)
        .def("module_version", &Camera::ModuleVersion, Release())
        .def("battery", &Camera::Battery, Release())
        .def("property_names", &Camera::PropertyNames, Release())
        .def("get", &Camera::Get, Release())
        .def("set", &Camera::Set, Release())
        .def("values", &Camera::Values, Release())
        .def("zoom", &Camera::Zoom, Release())
        .def("max_zoom", &Camera::MaxZoom, Release())
        .def("set_zoom", &Camera::SetZoom, Release())
        .def("focus", &Camera::Focus, Release())
        .def("set_focus", &Camera::SetFocus, Release())
        .def("focus_shift", &Camera::FocusShift, Release())
        .def("shoot", &Camera::Shoot, Release())
        .def("files", &Camera::Files, Release())
        .def("download", &Camera::Download, Release())
        .def("read", &Camera::Read)
        .def("remove", &Camera::Remove, Release())
        .def("clean_card", &Camera::CleanCard, Release())
        .def("preview_bmp", &Camera::PreviewBmp)
        .def("start_video", &Camera::StartVideo, Release())
        .def("stop_video", &Camera::StopVideo, Release())
        .def("close", &Camera::Close, Release());
}

} // namespace qkpy
