// SPDX-License-Identifier: MIT
#pragma once
// Cameras plugged into and unplugged from the virtual bus at set times after
// a start, so that a program run by the launcher sees them come and go.

#include "sim/VirtualBus.h"

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace qksim {

struct HotplugEvent {
    unsigned delayMs = 0; // after Start
    bool plug = true;
    CameraSetup setup;    // an unplug names its camera by setup.serial only
};

class HotplugSchedule {
public:
    HotplugSchedule(VirtualBus& bus, bool verbose) : bus(bus), verbose(verbose) {}
    ~HotplugSchedule() { Stop(); }
    HotplugSchedule(const HotplugSchedule&) = delete;
    HotplugSchedule& operator=(const HotplugSchedule&) = delete;

    void Add(const HotplugEvent& event) { events.push_back(event); }
    // A camera that is on the bus from the start, so an unplug can name it.
    void AddPresent(std::shared_ptr<VirtualCamera> camera) { plugged.push_back(std::move(camera)); }

    // Carries the events out on a thread of their own, in time order (events
    // at the same time in the order they were added).
    void Start();
    // Events not due yet are dropped.
    void Stop();

private:
    void Run();
    void Carry(const HotplugEvent& event);

    VirtualBus& bus;
    const bool verbose;
    std::vector<HotplugEvent> events;
    std::vector<std::shared_ptr<VirtualCamera>> plugged; // the schedule's thread only, once started
    std::thread worker;
    std::mutex mutex;
    std::condition_variable wake;
    bool stopping = false; // guarded by mutex
};

} // namespace qksim
