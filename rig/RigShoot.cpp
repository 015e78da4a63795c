// SPDX-License-Identifier: MIT
// The synchronised shot: the engine's own shot chains, each held at its
// shoot command by one gate shared by all cameras of the rig.

#include <thread>

#include "proc/ContProc.h"
#include "rig/Rig.h"
#include "rig/ShotGate.h"

namespace {

std::vector<RigShotOutcome> ShootThrough(const std::vector<Rig::Camera>& cameras, ShotGate& gate, bool direct)
{
    std::vector<RigShotOutcome> outcomes(cameras.size());
    std::vector<std::thread> workers;
    workers.reserve(cameras.size());
    for (size_t i = 0; i < cameras.size(); ++i) {
        workers.emplace_back([&cameras, i, direct, &gate, &outcomes] {
            const Rig::Camera& camera = cameras[i];
            RigShotOutcome& outcome = outcomes[i];
            outcome.serial = camera.serial;
            outcome.path = camera.path;
            bool arrived = false;
            auto onCompleted = [&outcome](QKFileInfo file) { outcome.file = file; };
            auto atCommand = [&gate, &arrived, &outcome] {
                arrived = true;
                gate.Arrive();
                outcome.released = std::chrono::system_clock::now();
            };
            ContProc* chain = direct ? camera.device->PTPShoot_DirectGated(onCompleted, atCommand)
                                     : camera.device->PTPShoot_NormalGated(onCompleted, atCommand);
            outcome.result = ContProc::run(chain);
            if (!arrived) {
                gate.Withdraw();
                outcome.step = "before the shoot command";
            } else if (outcome.result != QK_OK) {
                outcome.step = direct ? "PTPShoot_Direct" : "PTPShoot_Normal";
            }
        });
    }
    for (std::thread& worker : workers)
        worker.join();
    return outcomes;
}

} // namespace

std::vector<RigShotOutcome> Rig::Shoot(bool direct) const
{
    ShotGate gate(cameras.size());
    return ShootThrough(cameras, gate, direct);
}

std::vector<RigShotOutcome> Rig::ShootAt(bool direct, std::chrono::system_clock::time_point fireAt) const
{
    ShotGate gate(cameras.size(), fireAt);
    return ShootThrough(cameras, gate, direct);
}
