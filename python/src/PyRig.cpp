// SPDX-License-Identifier: MIT
// _qkcam.Rig: the rig layer's cameras as Python cameras, and what it does
// to all of them at once.

#include <pybind11/stl.h>
#include <sys/stat.h>

#include <cerrno>

#include "Binding.h"
#include "PyCamera.h"
#include "rig/CameraSteps.h"

namespace qkpy {

namespace {

// serial, result, step, message, file
using Outcome = std::tuple<std::string, int, std::string, std::string, FileTuple>;

class PyRig {
public:
    explicit PyRig(const std::optional<std::vector<std::string>>& serials)
    {
        RigOptions options;
        for (const std::string& serial : serials.value_or(std::vector<std::string>{}))
            options.serials.push_back(strToWstr(serial));
        OpenRig(options, [this](std::unique_ptr<Rig> opened) {
            rig = std::move(opened);
            for (const Rig::Camera& camera : rig->Cameras())
                cameras.push_back(std::make_shared<Camera>(camera));
        });
        for (const RigOutcome& failure : rig->Failures())
            failures.emplace_back(wstrToStr(failure.serial.empty() ? failure.path : failure.serial),
                                  static_cast<int>(failure.result), failure.step, failure.step + " failed",
                                  FileTuple{});
    }

    std::vector<Outcome> Shoot(bool direct) const
    {
        std::vector<Outcome> outcomes;
        for (const RigShotOutcome& shot : rig->Shoot(direct))
            outcomes.emplace_back(wstrToStr(shot.serial), static_cast<int>(shot.result), shot.step,
                                  shot.ok() ? "" : shot.step + " failed",
                                  FileTuple{shot.file.id, wstrToStr(shot.file.name), shot.file.size});
        return outcomes;
    }

    std::vector<Outcome> Set(const std::string& name, const std::string& value) const
    {
        return Each([&](Camera& camera, FileTuple*) { camera.Set(name, value); });
    }

    // Each camera's files (all of its card when `ids` names none for it)
    // into DIR/<serial>/<name>, every camera at once.
    std::vector<Outcome> DownloadAll(const std::string& directory,
                                     const std::map<std::string, std::vector<int>>& ids) const
    {
        return Each([&](Camera& camera, FileTuple*) {
            const std::string serial = std::get<1>(camera.Who());
            const std::string folder = directory + "/" + serial;
            if (mkdir(folder.c_str(), 0777) != 0 && errno != EEXIST)
                Fail(QK_ERROR, "mkdir", "can't make " + folder);
            auto wanted = ids.find(serial);
            for (const FileTuple& file : camera.Files())
                if (wanted == ids.end() || std::count(wanted->second.begin(), wanted->second.end(), std::get<0>(file))) {
                    if (!qkrig::IsPlainFileName(std::get<1>(file)))
                        Fail(QK_ERROR, "download", "the camera's file name \"" + std::get<1>(file) +
                                                       "\" can't stand as a local file name");
                    camera.Download(std::get<0>(file), folder + "/" + std::get<1>(file));
                }
        });
    }

    const std::vector<std::shared_ptr<Camera>>& Cameras() const { return cameras; }
    const std::vector<Outcome>& Failures() const { return failures; }

    void Close()
    {
        for (const std::shared_ptr<Camera>& camera : cameras)
            camera->Close();
        rig.reset();
    }

private:
    // Runs `work` on every camera at once; a camera's failure is its outcome.
    template <typename Work>
    std::vector<Outcome> Each(const Work& work) const
    {
        if (!rig)
            FailAs("", "the rig is closed");
        std::vector<std::string> messages(cameras.size());
        std::vector<RigOutcome> done = rig->ForEach([&](const Rig::Camera& each, std::string* step) {
            const size_t index = static_cast<size_t>(&each - rig->Cameras().data());
            try {
                FileTuple file;
                work(*cameras[index], &file);
                return QK_OK;
            } catch (const Failure& failure) {
                // Each worker's failure stays its camera's outcome.
                *step = failure.step;
                messages[index] = failure.message;
                return failure.result == QK_OK ? QK_ERROR : static_cast<QKResult>(failure.result);
            }
        });
        std::vector<Outcome> outcomes;
        for (size_t i = 0; i < done.size(); ++i)
            outcomes.emplace_back(wstrToStr(done[i].serial), static_cast<int>(done[i].result), done[i].step,
                                  messages[i], FileTuple{});
        return outcomes;
    }

    std::unique_ptr<Rig> rig;
    std::vector<std::shared_ptr<Camera>> cameras;
    std::vector<Outcome> failures;
};

} // namespace

void BindRig(py::module_& module)
{
    using Release = py::call_guard<py::gil_scoped_release>;
    py::class_<PyRig>(module, "Rig")
        .def(py::init<const std::optional<std::vector<std::string>>&>(), py::arg("serials"), Release())
        .def_property_readonly("cameras", &PyRig::Cameras)
        .def_property_readonly("failures", &PyRig::Failures)
        .def("shoot", &PyRig::Shoot, Release())
        .def("set", &PyRig::Set, Release())
        .def("download_all", &PyRig::DownloadAll, Release())
        .def("close", &PyRig::Close, Release());
}

} // namespace qkpy
