// SPDX-License-Identifier: MIT
#pragma once
// One camera of the soak: a virtual camera on the bus, the engine's object
// for it, and the thread's loop of sessions with faults injected at random.

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "DevicePTP/DevicePTP.h"
#include "bench/SoakStats.h"
#include "sim/VirtualBus.h"
#include "usb/UsbLib.h"

namespace soak {

struct Config {
    int cameras = 16;
    double seconds = 600;
    double faultRate = 0.05;
    uint64_t seed = 1;
    int hangSeconds = 120;
    int maxGrowthMiB = 64;
    bool keepLog = false; // kept anyway when the run fails
    std::string dir;      // downloads and the engine's log
};

// What an operation's body found.
struct Check {
    bool ok = true;
    bool wrongData = false;
    std::string what;

    static Check Failed(std::string what) { return Check{false, false, std::move(what)}; }
    static Check Wrong(std::string what) { return Check{true, true, std::move(what)}; }
};

int64_t NowMs(); // steady clock
void Sleep(int ms);
// Faults whose bytes stand in for the camera's answer to the next command.
bool WritesRawReply(Fault fault);

class CameraWorker {
public:
    CameraWorker(int index, const Config& config, Stats& stats);
    ~CameraWorker();

    // The camera goes on the bus before the transport exists, as a host finds it.
    bool Plug();
    // The engine's object for it, opened.
    bool Connect(std::shared_ptr<UsbLib> usb);
    void Run(const std::atomic<bool>& stop);
    std::string Name() const;

    // Read by the watchdog: the operation under way, since when (0: none).
    std::atomic<int64_t> busySinceMs{0};
    std::atomic<int> busyOp{0};
    std::atomic<int> busyFault{0};
    std::atomic<int> sessions{0};
    std::atomic<bool> finished{false};

private:
    // Faults (SoakFaults.cpp).
    Fault PickFault();
    void Arm(Fault fault, uint64_t draw);
    void Disarm();
    void Settle();
    // Life cycle and classification (SoakCamera.cpp).
    // Runs one operation with perhaps a fault, classifies and counts it.
    // True when it came out right.
    bool Execute(Op op, bool faultable, const std::function<Check()>& body);
    // A fresh camera on the bus and a fresh engine object for it.
    bool Replug();
    void SetUpCamera();
    void Tidy();
    bool Chance(double p);
    int Pick(int count);

    // Operations (SoakOps.cpp).
    bool OpenSession();
    void Reinit();
    void SetProperty();
    void Zoom();
    void Preview();
    void ShootNormal();
    void ShootDirect();
    void DownloadExisting();
    Check DownloadAndCompare(int id, const std::vector<uint8_t>& expected);

    const int index;
    const Config& config;
    Stats& stats;
    std::mt19937_64 rng;
    qksim::CameraSetup setup;
    std::shared_ptr<qksim::VirtualCamera> camera;
    std::shared_ptr<UsbLib> usb;
    std::shared_ptr<DevicePTP> device;
    int generation = 0;           // bumped by every replug
    std::set<uint32_t> keptFiles; // the card's files as it came
    uint32_t nextTransId = 0;     // what the engine's next command will carry
    Op lastFaultOp = Op::Count;
    Fault lastFault = Fault::None;
    int opsSinceFault = 0;
};

} // namespace soak
