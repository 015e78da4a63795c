// SPDX-License-Identifier: MIT
// What camera files cost the engine itself, with the bus taken out: the
// camera is an in-memory transport that serves its containers straight from
// memory.
//
// - A 256 MiB card file downloaded into a file on tmpfs, beside plain memcpy
//   plus write of the same bytes in the same chunk sizes (target: the engine
//   at 90% or more of that).
// - A catalogue rebuild of 5120 objects (target: under 50 ms).
// - The resident-size growth of a 64 MiB download (target: under 4 MiB).
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "DevicePTP/DevicePTP.h"
#include "log/Log.h"
#include "sim/MemoryCamera.h"

namespace {

using Clock = std::chrono::steady_clock;

const std::string& OutputDir()
{
    static const std::string dir = [] {
        char tmpl[] = "/dev/shm/qkcam-bench-XXXXXX";
        if (const char* made = mkdtemp(tmpl))
            return std::string(made);
        char fallback[] = "/tmp/qkcam-bench-XXXXXX";
        const char* made = mkdtemp(fallback);
        return std::string(made ? made : "/tmp");
    }();
    return dir;
}

std::shared_ptr<const std::vector<uint8_t>> FileBytes(size_t size)
{
    auto bytes = std::make_shared<std::vector<uint8_t>>(size);
    for (size_t i = 0; i < size; ++i)
        (*bytes)[i] = static_cast<uint8_t>(i * 7 + (i >> 11));
    return bytes;
}

// The sizes in which the engine hands a data phase on: 1 MiB + 500 first
// (what came with the header's packet), then 1 MiB, then the rest.
std::vector<size_t> ChunkSizes(size_t total)
{
    std::vector<size_t> sizes;
    size_t remaining = total;
    bool first = true;
    while (remaining > 0) {
        size_t size = std::min<size_t>(remaining, 0x100000);
        if (first && size + 500 <= remaining)
            size += 500;
        first = false;
        sizes.push_back(size);
        remaining -= size;
    }
    return sizes;
}

struct Camera {
    std::shared_ptr<qksim::MemoryCamera> memory = std::make_shared<qksim::MemoryCamera>();
    std::shared_ptr<DevicePTP> device;
    Camera()
    {
        device = DevicePTP::build(memory, qksim::MemoryCamera::Path());
        if (device->Init() != QK_OK)
            std::abort();
    }
};

double EngineDownload(Camera& camera, uint32_t handle, const std::string& path)
{
    const Clock::time_point start = Clock::now();
    if (camera.device->PTPDownloadFile(static_cast<int>(handle), path) != QK_OK)
        std::abort();
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// The same bytes through memcpy and write, chunk by chunk, into a buffer
// freshly taken for each chunk as the engine does.
double PlainDownload(const std::vector<uint8_t>& bytes, const std::string& path)
{
    const Clock::time_point start = Clock::now();
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0)
        std::abort();
    size_t at = 0;
    for (size_t size : ChunkSizes(bytes.size())) {
        unsigned char* chunk = new unsigned char[size];
        std::memcpy(chunk, bytes.data() + at, size);
        if (::write(fd, chunk, size) != static_cast<ssize_t>(size))
            std::abort();
        delete[] chunk;
        at += size;
    }
    ::close(fd);
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// kB figures of /proc/self/status.
long StatusKb(const char* field)
{
    std::ifstream status("/proc/self/status");
    std::string line;
    const size_t length = std::strlen(field);
    while (std::getline(status, line))
        if (line.compare(0, length, field) == 0)
            return std::atol(line.c_str() + length);
    return -1;
}

// Sets the peak resident size back to the current one.
bool ResetPeak()
{
    std::ofstream clear("/proc/self/clear_refs");
    clear << "5";
    clear.flush();
    return static_cast<bool>(clear);
}

void BM_Download64MiB_PeakResidentGrowth(benchmark::State& state)
{
    Camera camera;
    const size_t size = 64u << 20;
    const uint32_t handle = camera.memory->AddFile("MVI_0064.MOV", FileBytes(size));
    const std::string path = OutputDir() + "/peak.mov";
    // The first download of the process (this runs first), then later ones.
    bool reset = ResetPeak();
    long before = StatusKb("VmHWM:");
    EngineDownload(camera, handle, path);
    const long first = StatusKb("VmHWM:") - before;
    long growth = 0;
    for (auto _ : state) {
        reset = ResetPeak() && reset;
        before = StatusKb("VmHWM:");
        EngineDownload(camera, handle, path);
        growth = std::max(growth, StatusKb("VmHWM:") - before);
    }
    state.counters["first_peak_growth_KiB"] = reset ? static_cast<double>(first) : -1.0;
    state.counters["peak_growth_KiB"] = reset ? static_cast<double>(growth) : -1.0;
    std::remove(path.c_str());
}
BENCHMARK(BM_Download64MiB_PeakResidentGrowth)->Unit(benchmark::kMillisecond)->Iterations(5);

constexpr size_t bigFile = 256u << 20;

void BM_Download256MiB_Engine(benchmark::State& state)
{
    Camera camera;
    auto bytes = FileBytes(bigFile);
    const uint32_t handle = camera.memory->AddFile("MVI_0256.MOV", bytes);
    const std::string path = OutputDir() + "/engine.mov";
    for (auto _ : state)
        state.SetIterationTime(EngineDownload(camera, handle, path));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bigFile));
    std::remove(path.c_str());
}
BENCHMARK(BM_Download256MiB_Engine)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(8);

void BM_Download256MiB_MemcpyWrite(benchmark::State& state)
{
    auto bytes = FileBytes(bigFile);
    const std::string path = OutputDir() + "/plain.mov";
    for (auto _ : state)
        state.SetIterationTime(PlainDownload(*bytes, path));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bigFile));
    std::remove(path.c_str());
}
BENCHMARK(BM_Download256MiB_MemcpyWrite)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(8);

// Both in one loop, so that the ratio sees the same machine state.
void BM_Download256MiB_EngineVsPlain(benchmark::State& state)
{
    Camera camera;
    auto bytes = FileBytes(bigFile);
    const uint32_t handle = camera.memory->AddFile("MVI_0256.MOV", bytes);
    const std::string enginePath = OutputDir() + "/engine.mov";
    const std::string plainPath = OutputDir() + "/plain.mov";
    double engine = 0, plain = 0;
    bool engineFirst = true;
    for (auto _ : state) {
        // Whichever runs second finds the machine warmer: take turns.
        if (!engineFirst)
            plain += PlainDownload(*bytes, plainPath);
        const double once = EngineDownload(camera, handle, enginePath);
        engine += once;
        if (engineFirst)
            plain += PlainDownload(*bytes, plainPath);
        engineFirst = !engineFirst;
        state.SetIterationTime(once);
    }
    state.counters["engine_MiBps"] = static_cast<double>(state.iterations() * bigFile) / (1 << 20) / engine;
    state.counters["plain_MiBps"] = static_cast<double>(state.iterations() * bigFile) / (1 << 20) / plain;
    state.counters["engine_share"] = plain / engine;
    std::remove(enginePath.c_str());
    std::remove(plainPath.c_str());
}
BENCHMARK(BM_Download256MiB_EngineVsPlain)->UseManualTime()->Iterations(8);

void BM_CatalogueRebuild5120(benchmark::State& state)
{
    Camera camera;
    auto small = std::make_shared<const std::vector<uint8_t>>(1000, uint8_t{1});
    char name[32];
    for (int i = 0; i < 5120; ++i) {
        std::snprintf(name, sizeof(name), "IMG_%04d.JPG", i);
        camera.memory->AddFile(name, small);
    }
    for (auto _ : state)
        if (camera.device->PTPUpdateObjectsInfo() != QK_OK)
            std::abort();
}
BENCHMARK(BM_CatalogueRebuild5120)->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv)
{
    LoggerSpecialInit(false, OutputDir() + "/qkdll.log", OutputDir() + "/qkdll_api.log");
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::remove((OutputDir() + "/qkdll.log").c_str());
    std::remove((OutputDir() + "/qkdll_api.log").c_str());
    ::rmdir(OutputDir().c_str());
    return 0;
}
