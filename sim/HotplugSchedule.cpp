// SPDX-License-Identifier: MIT
#include "sim/HotplugSchedule.h"

#include <algorithm>
#include <chrono>
#include <cstdio>

namespace qksim {

void HotplugSchedule::Start()
{
    if (events.empty() || worker.joinable())
        return;
    std::stable_sort(events.begin(), events.end(),
                     [](const HotplugEvent& a, const HotplugEvent& b) { return a.delayMs < b.delayMs; });
    worker = std::thread(&HotplugSchedule::Run, this);
}

void HotplugSchedule::Stop()
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        stopping = true;
    }
    wake.notify_all();
    if (worker.joinable())
        worker.join();
}

void HotplugSchedule::Run()
{
    const auto start = std::chrono::steady_clock::now();
    std::unique_lock<std::mutex> lock(mutex);
    for (const HotplugEvent& event : events) {
        if (wake.wait_until(lock, start + std::chrono::milliseconds(event.delayMs),
                            [this] { return stopping; }))
            return;
        lock.unlock();
        Carry(event);
        lock.lock();
    }
}

void HotplugSchedule::Carry(const HotplugEvent& event)
{
    const char* serial = event.setup.serial.c_str();
    if (event.plug) {
        std::shared_ptr<VirtualCamera> camera = bus.AddCamera(event.setup);
        if (!camera) {
            std::fprintf(stderr, "qkcam-virtual: cannot plug camera %s:%s\n", event.setup.model.c_str(),
                         serial);
            return;
        }
        if (verbose) {
            const std::wstring path = camera->Path();
            std::fprintf(stderr, "qkcam-virtual: plugged %s, serial %s, at %ls\n",
                         camera->Setup().product.c_str(), serial, path.c_str());
        }
        plugged.push_back(std::move(camera));
        return;
    }
    // The latest camera of that serial still on the bus: a serial may be
    // plugged again after it was pulled.
    auto found = std::find_if(plugged.rbegin(), plugged.rend(), [&](const auto& camera) {
        return camera->Setup().serial == event.setup.serial && camera->Plugged();
    });
    if (found == plugged.rend()) {
        std::fprintf(stderr, "qkcam-virtual: no camera %s on the bus to unplug\n", serial);
        return;
    }
    (*found)->Unplug();
    if (verbose) {
        const std::wstring path = (*found)->Path();
        std::fprintf(stderr, "qkcam-virtual: unplugged serial %s from %ls\n", serial, path.c_str());
    }
}

} // namespace qksim
