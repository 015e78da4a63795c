// SPDX-License-Identifier: MIT
// A 256 MiB card file end to end: the engine's download through the real
// libusb and the virtual camera, beside a plain loop of libusb_bulk_transfer
// reads of the same file from the same camera. The ratio is what the engine
// adds on top of the bus.
#include <benchmark/benchmark.h>

#include <libusb.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "DevicePTP/DevicePTP.h"
#include "log/Log.h"
#include "sim/CameraCard.h"
#include "sim/VirtualBus.h"
#include "usb/UsbLib_libusb.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr size_t fileSize = 256u << 20;

struct Setup {
    std::shared_ptr<qksim::VirtualCamera> camera;
    uint32_t handle = 0;
    std::string dir;
};

Setup& Bench()
{
    static Setup setup = [] {
        Setup s;
        qksim::CameraSetup camera;
        camera.serial = "QKB0001";
        s.camera = qksim::VirtualBus::Instance().AddCamera(camera);
        std::vector<uint8_t> bytes(fileSize);
        for (size_t i = 0; i < bytes.size(); ++i)
            bytes[i] = static_cast<uint8_t>(i * 5 + (i >> 13));
        s.handle = s.camera->Card().AddFile("MVI_0256.MOV", std::move(bytes));
        char tmpl[] = "/dev/shm/qkcam-busbench-XXXXXX";
        const char* made = mkdtemp(tmpl);
        s.dir = made ? made : "/tmp";
        return s;
    }();
    return setup;
}

double engineSeconds = 0, plainSeconds = 0;
int64_t engineRuns = 0, plainRuns = 0;

void BM_BusDownload256MiB_Engine(benchmark::State& state)
{
    Setup& s = Bench();
    auto usb = UsbLib_libusb::build(UsbLib::EmptyNotify);
    auto device = DevicePTP::build(usb, s.camera->Path());
    if (device->Init() != QK_OK)
        std::abort();
    const std::string path = s.dir + "/engine.mov";
    for (auto _ : state) {
        const Clock::time_point start = Clock::now();
        if (device->PTPDownloadFile(static_cast<int>(s.handle), path) != QK_OK)
            std::abort();
        const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
        state.SetIterationTime(seconds);
        engineSeconds += seconds;
        ++engineRuns;
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * fileSize));
    std::remove(path.c_str());
}
BENCHMARK(BM_BusDownload256MiB_Engine)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3);

bool Bulk(libusb_device_handle* handle, unsigned char endpoint, unsigned char* data, int length, int* moved)
{
    return libusb_bulk_transfer(handle, endpoint, data, length, moved, 5000) == 0;
}

// GetObject by hand: the command, the data container read in 1 MiB
// transfers into one buffer that is written out, the response.
void BM_BusDownload256MiB_PlainLibusb(benchmark::State& state)
{
    Setup& s = Bench();
    libusb_context* context = nullptr;
    if (libusb_init(&context) != 0)
        std::abort();
    libusb_device** list = nullptr;
    const ssize_t count = libusb_get_device_list(context, &list);
    libusb_device_handle* handle = nullptr;
    for (ssize_t i = 0; i < count && !handle; ++i)
        if (libusb_get_bus_number(list[i]) == s.camera->BusNumber() &&
            libusb_get_device_address(list[i]) == s.camera->Address())
            if (libusb_open(list[i], &handle) != 0)
                handle = nullptr;
    libusb_free_device_list(list, 1);
    if (!handle || libusb_claim_interface(handle, 0) != 0)
        std::abort();

    const std::string path = s.dir + "/plain.mov";
    std::vector<unsigned char> buffer(0x100000);
    uint32_t transaction = 1000;
    for (auto _ : state) {
        const Clock::time_point start = Clock::now();
        FILE* out = std::fopen(path.c_str(), "wb");
        unsigned char command[16] = {16, 0, 0, 0, 1, 0, 0x09, 0x10};
        std::memcpy(command + 8, &transaction, 4);
        std::memcpy(command + 12, &s.handle, 4);
        ++transaction;
        int moved = 0;
        if (!out || !Bulk(handle, 0x02, command, sizeof(command), &moved))
            std::abort();
        uint64_t expected = 0, received = 0;
        bool header = true;
        do {
            if (!Bulk(handle, 0x81, buffer.data(), static_cast<int>(buffer.size()), &moved))
                std::abort();
            unsigned char* data = buffer.data();
            if (header) {
                uint32_t length = 0;
                std::memcpy(&length, data, 4);
                expected = length - 12;
                data += 12;
                moved -= 12;
                header = false;
            }
            std::fwrite(data, 1, static_cast<size_t>(moved), out);
            received += static_cast<uint64_t>(moved);
        } while (received < expected);
        if ((expected + 12) % 512 == 0)
            Bulk(handle, 0x81, buffer.data(), 512, &moved); // the zero-length packet
        if (!Bulk(handle, 0x81, buffer.data(), 512, &moved))
            std::abort();
        std::fclose(out);
        const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
        state.SetIterationTime(seconds);
        plainSeconds += seconds;
        ++plainRuns;
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * fileSize));
    libusb_release_interface(handle, 0);
    libusb_close(handle);
    libusb_exit(context);
    std::remove(path.c_str());
}
BENCHMARK(BM_BusDownload256MiB_PlainLibusb)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3);

} // namespace

int main(int argc, char** argv)
{
    if (!qksim::VirtualBus::EnsurePreload(argc, argv))
        return 2;
    const std::string dir = Bench().dir;
    LoggerSpecialInit(false, dir + "/qkdll.log", dir + "/qkdll_api.log");
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    if (engineRuns && plainRuns) {
        const double engine = engineSeconds / static_cast<double>(engineRuns);
        const double plain = plainSeconds / static_cast<double>(plainRuns);
        std::printf("end to end: engine %.1f MiB/s, plain libusb %.1f MiB/s, engine at %.1f%% of plain\n",
                    256.0 / engine, 256.0 / plain, 100.0 * plain / engine);
    }
    std::remove((dir + "/qkdll.log").c_str());
    std::remove((dir + "/qkdll_api.log").c_str());
    ::rmdir(dir.c_str());
    return 0;
}
