// SPDX-License-Identifier: MIT
// Spread of a many-camera shot: latest minus earliest arrival of the shoot
// command at the virtual cameras, for the rig's synchronised shot and for a
// plain loop that starts one normal-shot chain per camera on its own thread.
// A timed program: prints a table, median of a few shots per cell.
//
//   qk_bench_rig_spread [SHOTS [CAMERAS]]    CAMERAS: one rig size only

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "DevicePTP/PtpCodes.h"
#include "proc/ContProc.h"
#include "rig/Rig.h"
#include "sim/CameraCard.h"
#include "sim/VirtualBus.h"
#include "usb/UsbLib_libusb.h"

namespace {

const char* const models[] = {"SX160", "A1400", "G15", "SX170", "IXUS160", "SX520"};

int64_t ShootSpreadNs(const std::vector<std::shared_ptr<qksim::VirtualCamera>>& cameras)
{
    int64_t first = INT64_MAX, last = 0;
    for (const auto& camera : cameras) {
        int64_t arrival = 0;
        for (const qksim::PtpCommand& c : camera->ReceivedCommands())
            if (c.code == 0x9999 && !c.params.empty() && c.params[0] == PTP_QKM_Shoot)
                arrival = c.arrivalNs;
        first = std::min(first, arrival);
        last = std::max(last, arrival);
    }
    return last - first;
}

void PlainLoop(const Rig& rig)
{
    std::vector<std::thread> workers;
    for (const Rig::Camera& camera : rig.Cameras())
        workers.emplace_back([&camera] { ContProc::run(camera.device->PTPShoot_Normal([](QKFileInfo) {})); });
    for (std::thread& worker : workers)
        worker.join();
}

// Median spread in µs over `shots` shots of `count` cameras with cards of
// `files` files (-1: mixed, 0/100/1000 in turn).
int64_t MedianSpreadUs(int count, int files, bool synchronised, int shots)
{
    qksim::VirtualBus& bus = qksim::VirtualBus::Instance();
    std::vector<std::shared_ptr<qksim::VirtualCamera>> cameras;
    for (int i = 0; i < count; ++i) {
        qksim::CameraSetup setup;
        setup.model = models[i % 6];
        setup.serial = "B" + std::to_string(1000 + i);
        cameras.push_back(bus.AddCamera(setup));
        const int n = files >= 0 ? files : (i % 3 == 0 ? 0 : i % 3 == 1 ? 100 : 1000);
        for (int f = 0; f < n; ++f)
            cameras.back()->Card().AddFile(qksim::CameraCard::FileName("IMG_", 100 + f, ".JPG"), {1, 2, 3});
    }
    std::vector<int64_t> spreads;
    {
        std::unique_ptr<Rig> rig = Rig::Open(UsbLib_libusb::build(UsbLib::EmptyNotify), RigOptions());
        if (static_cast<int>(rig->Cameras().size()) != count) {
            std::fprintf(stderr, "only %zu of %d cameras ready\n", rig->Cameras().size(), count);
            std::exit(1);
        }
        for (int shot = 0; shot < shots; ++shot) {
            for (const auto& camera : cameras)
                camera->ClearRecords();
            if (synchronised)
                rig->Shoot(false);
            else
                PlainLoop(*rig);
            spreads.push_back(ShootSpreadNs(cameras) / 1000);
        }
    }
    cameras.clear();
    bus.RemoveAll();
    std::sort(spreads.begin(), spreads.end());
    return spreads[spreads.size() / 2];
}

} // namespace

int main(int argc, char** argv)
{
    if (!qksim::VirtualBus::EnsurePreload(argc, argv))
        return 127;
    const int shots = argc > 1 ? std::max(1, std::atoi(argv[1])) : 3;
    std::printf("spread of the shoot command, median of %d shots, in microseconds\n", shots);
    std::printf("%8s %8s %12s %12s %8s\n", "cameras", "files", "rig", "plain loop", "ratio");
    const int only = argc > 2 ? std::atoi(argv[2]) : 0;
    for (int count : {2, 8, 16}) {
        if (only > 0 && count != only)
            continue;
        for (int files : {0, 100, 1000, -1}) {
            const int64_t rig = MedianSpreadUs(count, files, true, shots);
            const int64_t loop = MedianSpreadUs(count, files, false, shots);
            std::printf("%8d %8s %12lld %12lld %8.1f\n", count, files < 0 ? "mixed" : std::to_string(files).c_str(),
                        static_cast<long long>(rig), static_cast<long long>(loop),
                        rig > 0 ? static_cast<double>(loop) / static_cast<double>(rig) : 0.0);
            std::fflush(stdout);
        }
    }
    return 0;
}
