// SPDX-License-Identifier: MIT
// qk_soak: many virtual cameras, one thread each, driven through whole
// sessions for minutes while faults are injected at random; every
// operation's result is checked against what the camera holds.
//
//   qk_soak [--cameras N] [--minutes M | --seconds S] [--fault-rate P] [--seed N]
//           [--hang-seconds S] [--max-growth-mib M] [--keep-log 1]
//
// Exits non-zero on any unexpected failure (an operation that failed with
// no fault injected, wrong data, a hang) or when resident memory grows by
// more than --max-growth-mib (64 MiB) from the end of the warm-up (every
// camera through its first session) to the end of the run, or the peak of
// the address space by more than 2 GiB (a length the camera announced,
// allocated whole, shows there even while its pages stay untouched).

#include <malloc.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench/SoakCamera.h"
#include "log/Log.h"
#include "usb/UsbLib_libusb.h"

namespace {

using soak::Config;
using soak::NowMs;

constexpr int maxPeakGrowthMiB = 2048;

// A figure of /proc/self/status in MiB ("VmRSS", "VmHWM").
double StatusMiB(const char* key)
{
    std::ifstream status("/proc/self/status");
    std::string line;
    const size_t keyLength = std::strlen(key);
    while (std::getline(status, line))
        if (line.compare(0, keyLength, key) == 0 && line.size() > keyLength && line[keyLength] == ':')
            return std::strtod(line.c_str() + keyLength + 1, nullptr) / 1024.0;
    return 0;
}

// Resident memory once the allocator has handed back what is free, so that
// the figure follows what is live.
double ResidentMiB()
{
    malloc_trim(0);
    return StatusMiB("VmRSS");
}

// Bytes handed out by malloc and not freed, over all arenas.
double HeapInUseMiB()
{
    const struct mallinfo2 info = mallinfo2();
    return static_cast<double>(info.uordblks + info.hblkhd) / (1 << 20);
}

bool ParseArgs(int argc, char** argv, Config* config)
{
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (i + 1 >= argc)
            return false;
        const char* value = argv[++i];
        if (arg == "--cameras")
            config->cameras = std::atoi(value);
        else if (arg == "--minutes")
            config->seconds = 60 * std::strtod(value, nullptr);
        else if (arg == "--seconds")
            config->seconds = std::strtod(value, nullptr);
        else if (arg == "--fault-rate")
            config->faultRate = std::strtod(value, nullptr);
        else if (arg == "--seed")
            config->seed = std::strtoull(value, nullptr, 10);
        else if (arg == "--hang-seconds")
            config->hangSeconds = std::atoi(value);
        else if (arg == "--max-growth-mib")
            config->maxGrowthMiB = std::atoi(value);
        else if (arg == "--keep-log")
            config->keepLog = std::atoi(value) != 0;
        else
            return false;
    }
    // One device file per camera, under the preload's limit.
    return config->cameras > 0 && config->cameras <= qksim::VirtualBus::maxCameras && config->seconds > 0 &&
           config->faultRate >= 0 && config->faultRate <= 1 && config->hangSeconds > 0 && config->maxGrowthMiB > 0;
}

} // namespace

int main(int argc, char** argv)
{
    Config config;
    if (!ParseArgs(argc, argv, &config)) {
        std::fprintf(stderr, "usage: qk_soak [--cameras N] [--minutes M | --seconds S] [--fault-rate P] "
                             "[--seed N] [--hang-seconds S] [--max-growth-mib M] [--keep-log 1]\n");
        return 2;
    }
    if (!qksim::VirtualBus::EnsurePreload(argc, argv))
        return 2;
    // A fixed threshold keeps big buffers (frames, chunks, files) out of the
    // arenas, where a moving one would let them pile up as free space that
    // resident memory still counts.
    mallopt(M_MMAP_THRESHOLD, 128 * 1024);
    char tmpl[] = "/tmp/qkcam-soak-XXXXXX";
    if (!mkdtemp(tmpl)) {
        std::perror("qk_soak: mkdtemp");
        return 2;
    }
    config.dir = tmpl;
    LoggerSpecialInit(false, config.dir + "/qkdll.log", config.dir + "/qkdll_api.log");
    std::printf("qk_soak: %d cameras, %.0f s, fault rate %.3f, seed %llu; engine log and downloads in %s\n",
                config.cameras, config.seconds, config.faultRate, static_cast<unsigned long long>(config.seed),
                config.dir.c_str());
    std::fflush(stdout);

    soak::Stats stats;
    std::vector<std::unique_ptr<soak::CameraWorker>> workers;
    for (int i = 0; i < config.cameras; ++i) {
        workers.push_back(std::make_unique<soak::CameraWorker>(i, config, stats));
        if (!workers.back()->Plug()) {
            std::fprintf(stderr, "qk_soak: the virtual bus took no camera %d\n", i);
            return 2;
        }
    }
    std::shared_ptr<UsbLib> usb = UsbLib_libusb::build(UsbLib::EmptyNotify);
    for (auto& worker : workers)
        if (!worker->Connect(usb)) {
            std::fprintf(stderr, "qk_soak: %s does not open\n", worker->Name().c_str());
            return 2;
        }

    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    const int64_t start = NowMs();
    for (auto& worker : workers)
        threads.emplace_back([&worker, &stop] { worker->Run(stop); });

    // Warm-up ends when every camera has been through one session, or at a
    // quarter of the run.
    double warmRss = 0, warmHeap = 0, warmPeak = 0, warmSeconds = 0;
    std::vector<bool> hung(workers.size(), false);
    auto watch = [&](int64_t now) {
        for (size_t i = 0; i < workers.size(); ++i) {
            const int64_t since = workers[i]->busySinceMs;
            if (hung[i] || since == 0 || now - since < 1000 * static_cast<int64_t>(config.hangSeconds))
                continue;
            hung[i] = true;
            soak::UnexpectedFailure failure;
            failure.camera = workers[i]->Name();
            failure.op = static_cast<soak::Op>(workers[i]->busyOp.load());
            failure.fault = static_cast<soak::Fault>(workers[i]->busyFault.load());
            failure.what = "no result after " + std::to_string(config.hangSeconds) + " s (thread left hanging)";
            stats.RecordUnexpected(failure);
            std::printf("[%5.0f s] %s hangs in %s (fault %s)\n", (now - start) / 1000.0, failure.camera.c_str(),
                        soak::OpName(failure.op), soak::FaultName(failure.fault));
        }
    };
    int64_t nextReport = start + 30000;
    for (int64_t now = NowMs(); now - start < static_cast<int64_t>(config.seconds * 1000); now = NowMs()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        if (warmSeconds == 0) {
            // A camera that keeps failing must not keep the figure from being taken.
            bool warm = true;
            for (auto& worker : workers)
                warm = warm && (worker->sessions > 0 || worker->finished);
            warm = warm || now - start >= static_cast<int64_t>(config.seconds * 250);
            if (warm) {
                warmRss = ResidentMiB();
                warmHeap = HeapInUseMiB();
                warmPeak = StatusMiB("VmPeak");
                warmSeconds = (now - start) / 1000.0;
            }
        }
        watch(now);
        if (now >= nextReport) {
            nextReport += 30000;
            std::printf("[%5.0f s] %d unexpected so far, VmRSS %.1f MiB, heap in use %.1f MiB\n",
                        (now - start) / 1000.0, stats.UnexpectedCount(), ResidentMiB(), HeapInUseMiB());
            std::fflush(stdout);
        }
    }
    stop = true;
    // Operations under way finish; a chain that never ends is a hang.
    for (bool all = false; !all;) {
        all = true;
        const int64_t now = NowMs();
        watch(now);
        for (size_t i = 0; i < workers.size(); ++i)
            all = all && (workers[i]->finished || hung[i]);
        if (!all)
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    const double endSeconds = (NowMs() - start) / 1000.0;
    const double endRss = ResidentMiB();
    const double endHeap = HeapInUseMiB();
    bool anyHung = false;
    for (size_t i = 0; i < workers.size(); ++i) {
        if (hung[i])
            anyHung = true;
        else
            threads[i].join();
    }

    stats.Print(40);
    const double growth = endRss - warmRss;
    std::printf("\nrun: %.1f s (warm-up %.1f s)\n", endSeconds, warmSeconds);
    std::printf("memory (VmRSS): %.1f MiB after warm-up, %.1f MiB at the end, growth %+.1f MiB (limit %d MiB); "
                "peak %.1f MiB\n",
                warmRss, endRss, growth, config.maxGrowthMiB, StatusMiB("VmHWM"));
    std::printf("heap in use: %.1f MiB after warm-up, %.1f MiB at the end, growth %+.1f MiB\n", warmHeap, endHeap,
                endHeap - warmHeap);
    const double peakGrowth = StatusMiB("VmPeak") - warmPeak;
    std::printf("address space peak (VmPeak): %.1f MiB after warm-up, growth %+.1f MiB (limit %d MiB)\n", warmPeak,
                peakGrowth, maxPeakGrowthMiB);
    const bool memoryOk = warmRss > 0 && growth <= config.maxGrowthMiB && peakGrowth <= maxPeakGrowthMiB;
    const int unexpected = stats.UnexpectedCount();
    std::printf("result: %s", unexpected == 0 && memoryOk ? "PASS" : "FAIL");
    if (unexpected)
        std::printf(" - %d unexpected failures", unexpected);
    if (!memoryOk)
        std::printf(" - %s", warmRss > 0 ? "memory grew over its limit" : "run too short for a warm-up figure");
    std::printf("\n");
    if (unexpected == 0 && memoryOk && !config.keepLog) {
        std::remove((config.dir + "/qkdll.log").c_str());
        std::remove((config.dir + "/qkdll_api.log").c_str());
        ::rmdir(config.dir.c_str());
    } else {
        std::printf("engine log kept in %s (the soak's own lines start with \"soak \")\n", config.dir.c_str());
    }
    std::fflush(stdout);
    if (anyHung)
        _exit(1); // a hanging thread can't be joined
    workers.clear();
    usb.reset();
    return unexpected == 0 && memoryOk ? 0 : 1;
}
