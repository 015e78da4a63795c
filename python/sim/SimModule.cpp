// SPDX-License-Identifier: MIT
// qkcam_virtual: the virtual cameras of the package's tests, in the test's
// own process (which runs with umockdev's preload library). Cameras come
// and go while the test runs, and their cards can be read directly.

#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include "sim/CameraCard.h"
#include "sim/CameraShutter.h"
#include "sim/VirtualBus.h"
#include "usb/UsbLib.h"

namespace py = pybind11;
using qksim::VirtualBus;
using qksim::VirtualCamera;

PYBIND11_MODULE(qkcam_virtual, module)
{
    module.doc() = "Virtual cameras for the qkcam package's tests.";
    // Made now, before the engine's libusb looks at the bus for the first time.
    VirtualBus::Instance();
    py::class_<VirtualCamera, std::shared_ptr<VirtualCamera>>(module, "VirtualCamera")
        .def_property_readonly("serial", [](const VirtualCamera& camera) { return camera.Setup().serial; })
        .def_property_readonly("path", [](const VirtualCamera& camera) { return wstrToStr(camera.Path()); })
        .def("unplug", &VirtualCamera::Unplug, py::call_guard<py::gil_scoped_release>())
        .def(
            "card_file",
            [](VirtualCamera& camera, const std::string& name) {
                const std::vector<uint8_t> bytes = camera.Card().Content(camera.Card().Find(name));
                return py::bytes(reinterpret_cast<const char*>(bytes.data()), bytes.size());
            },
            "The bytes of the card's file `name`; empty if there is none.")
        .def(
            "add_card_file",
            [](VirtualCamera& camera, const std::string& name, size_t size) {
                return camera.Card().AddFile(name, qksim::FillerBytes(size, 7));
            },
            "Puts a file of `size` filler bytes on the card; its handle.")
        .def(
            "set_picture",
            [](VirtualCamera& camera, int width, int height, size_t bytes) {
                camera.Shutter().SetPictureSize(width, height);
                camera.Shutter().SetPictureBytes(bytes);
            },
            py::arg("width"), py::arg("height"), py::arg("bytes") = 0,
            "Size of the pictures taken from now on, padded to `bytes` if that is larger.");
    module.def(
        "add_camera",
        [](const std::string& model, const std::string& serial) {
            qksim::CameraSetup setup;
            setup.model = model;
            setup.serial = serial;
            return VirtualBus::Instance().AddCamera(setup);
        },
        py::arg("model"), py::arg("serial"), py::call_guard<py::gil_scoped_release>());
    module.def(
        "remove", [](const std::shared_ptr<VirtualCamera>& camera) { VirtualBus::Instance().Remove(camera); },
        py::call_guard<py::gil_scoped_release>());
    module.def("remove_all", [] { VirtualBus::Instance().RemoveAll(); }, py::call_guard<py::gil_scoped_release>());
}
