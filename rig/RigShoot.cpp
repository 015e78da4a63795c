// SPDX-License-Identifier: MIT
// The synchronised shot: the engine's own shot chains, each held at its
// shoot command by one gate shared by all cameras of the rig.

#include <thread>

#include "proc/ContProc.h"
#include "rig/Rig.h"
#include "rig/ShotGate.h"

std::vector<RigShotOutcome> Rig::Shoot(bool direct) const
{
    std::vector<RigShotOutcome> outcomes(cameras.size());
    ShotGate gate(cameras.size());
    std::vector<std::thread> workers;
    workers.reserve(cameras.size());
    for (size_t i = 0; i < cameras.size(); ++i) {
        workers.emplace_back([this, i, direct, &gate, &outcomes] {
            const Camera& camera = cameras[i];
            RigShotOutcome& outcome = outcomes[i];
            outcome.serial = camera.serial;
            outcome.path = camera.path;
            bool arrived = false;
            auto onCompleted = [&outcome](QKFileInfo file) { outcome.file = file; };
            auto atCommand = [&gate, &arrived] {
                arrived = true;
                gate.Arrive();
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
