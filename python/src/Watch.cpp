// SPDX-License-Identifier: MIT
// _qkcam.Watch: cameras coming and going, told to a Python callback.
//
// The transport's polling thread runs its listener with the transport's lock
// held, so a callback there that opened a camera would wait on itself: the
// listener only wakes the watchers, and each watcher's own thread looks at
// the bus, identifies newcomers and calls Python.

#include <pybind11/stl.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <set>
#include <thread>

#include "Binding.h"

namespace qkpy {

namespace {

class Listener : public IUsbLib_Notify {
public:
    void OnUsbEvent() override
    {
        {
            std::lock_guard<std::mutex> lock(mutex);
            ++changes;
        }
        changed.notify_all();
    }

    // Waits for a change after `seen` for at most `limit`; the count now.
    unsigned long Wait(unsigned long seen, std::chrono::milliseconds limit, const std::atomic<bool>& stopping)
    {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait_for(lock, limit, [&] { return changes != seen || stopping; });
        return changes;
    }

    void Wake() { changed.notify_all(); }

private:
    std::mutex mutex;
    std::condition_variable changed;
    unsigned long changes = 0;
};

std::shared_ptr<Listener> TheListener()
{
    static const std::shared_ptr<Listener> listener = std::make_shared<Listener>();
    return listener;
}

// Who the camera at `path` is: from this process's open cameras, else by
// opening it a moment; a camera nobody can open is known by its path only.
Identity Identify(const std::wstring& path)
{
    Identity identity{wstrToStr(path), "", "", ""};
    if (FindOpen(wstrToStr(path), &identity))
        return identity;
    RigOptions options;
    options.identifyOnly = true;
    options.paths = {path};
    OpenRig(options, [&](std::unique_ptr<Rig> rig) {
        if (!rig->Cameras().empty())
            identity = IdentityOf(path, *rig->Cameras().front().device);
    });
    return identity;
}

// What a watcher's thread needs; the thread holds it too, so a watcher
// stopped from its own callback can go while its thread finishes.
struct WatchState {
    py::function callback;
    std::map<std::wstring, Identity> known;
    std::atomic<bool> stopping{false};

    ~WatchState()
    {
        if (!Py_IsInitialized())
            return;
        py::gil_scoped_acquire gil;
        callback = py::function();
    }

    void Run()
    {
        unsigned long seen = 0;
        while (!stopping) {
            // A missed wake-up costs at most a second.
            seen = TheListener()->Wait(seen, std::chrono::milliseconds(1000), stopping);
            if (stopping)
                break;
            const std::set<std::wstring> now = Transport()->GetAllConnectedDevicePaths();
            for (auto camera = known.begin(); camera != known.end();) {
                if (now.count(camera->first)) {
                    ++camera;
                    continue;
                }
                Tell("left", camera->second);
                camera = known.erase(camera);
            }
            for (const std::wstring& path : now)
                if (!known.count(path) && !stopping)
                    Tell("arrived", known.emplace(path, Identify(path)).first->second);
        }
    }

    void Tell(const char* event, const Identity& identity)
    {
        if (stopping)
            return;
        py::gil_scoped_acquire gil;
        try {
            callback(event, identity);
        } catch (py::error_already_set& error) {
            error.discard_as_unraisable("a qkcam.watch callback");
        }
    }
};

class Watch {
public:
    explicit Watch(py::function callback) : state(std::make_shared<WatchState>())
    {
        state->callback = std::move(callback);
        py::gil_scoped_release release;
        for (const std::wstring& path : Transport()->GetAllConnectedDevicePaths())
            state->known.emplace(path, Identify(path));
        worker = std::thread([running = state] { running->Run(); });
    }

    ~Watch() { Stop(); }

    void Stop()
    {
        state->stopping = true;
        TheListener()->Wake();
        if (!worker.joinable())
            return;
        // Stopped from its own callback: the thread ends once that returns.
        if (worker.get_id() == std::this_thread::get_id()) {
            worker.detach();
            return;
        }
        py::gil_scoped_release release;
        worker.join();
    }

private:
    std::shared_ptr<WatchState> state;
    std::thread worker;
};

} // namespace

std::weak_ptr<IUsbLib_Notify> WatchListener() { return TheListener(); }

void BindWatch(py::module_& module)
{
    py::class_<Watch>(module, "Watch")
        .def(py::init<py::function>(), py::arg("callback"))
        .def("stop", &Watch::Stop);
}

} // namespace qkpy
