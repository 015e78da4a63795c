// SPDX-License-Identifier: MIT
// Live preview decoding, the engine's one hot loop: a whole camera frame to a
// finished BMP file, beside libyuv's 4:2:2 to RGB24 conversion of a picture of
// the same output size (a best-in-class converter) and a memcpy of the output
// bytes (the floor). Frames are the camera sizes 720x240 and 704x480.
//
// Also counts heap allocations during the timed loop: a stream of frames of
// one size must cost none once the buffers exist.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>
#include <random>
#include <vector>

#include "DevicePTP/PreviewDecode.h"

#ifdef QK_BENCH_LIBYUV
#include <libyuv.h>
#endif

namespace {
std::atomic<long> allocations{0};
}

// The replacements pair malloc with free themselves.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif

void* operator new(std::size_t size)
{
    ++allocations;
    if (void* p = std::malloc(size ? size : 1))
        return p;
    throw std::bad_alloc();
}
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    ++allocations;
    return std::malloc(size ? size : 1);
}
void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept { return operator new(size, tag); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }

namespace {

std::vector<uint8_t> RandomBytes(size_t size)
{
    std::mt19937 random(42);
    std::vector<uint8_t> bytes(size);
    for (uint8_t& b : bytes)
        b = static_cast<uint8_t>(random());
    return bytes;
}

// Arguments: frame width, height, and the kernel (-1: the best one).
void BM_PreviewDecode(benchmark::State& state)
{
    const auto width = static_cast<unsigned int>(state.range(0));
    const auto height = static_cast<unsigned int>(state.range(1));
    PreviewDecoder decoder;
    if (state.range(2) >= 0)
        decoder.UseKernel(static_cast<PreviewDecoder::Kernel>(state.range(2)));
    PreviewLayout layout;
    if (!PreviewDecoder::Layout(width, height, &layout)) {
        state.SkipWithError("size refused");
        return;
    }
    std::vector<uint8_t> frame = RandomBytes(layout.frameBytes);
    const DataLen raw(frame.data(), layout.frameBytes);
    DataLen target;
    // The first frame makes the buffer and the tables, as the first load does.
    decoder.DecodePixels(raw, width, height, &target);
    const long before = allocations;
    for (auto _ : state) {
        decoder.DecodePixels(raw, width, height, &target);
        PreviewDecoder::WriteBmpHeaders(decoder.Current(), static_cast<unsigned char*>(target.data));
        benchmark::DoNotOptimize(target.data);
        benchmark::ClobberMemory();
    }
    state.counters["allocs_per_frame"] =
        static_cast<double>(allocations - before) / static_cast<double>(state.iterations());
    // 0 portable, 1 NEON, 2 AVX2, 3 AVX-512.
    state.counters["kernel"] = static_cast<double>(decoder.ActiveKernel());
    state.SetItemsProcessed(state.iterations() * layout.outWidth * layout.height);
    state.SetBytesProcessed(state.iterations() * layout.fileBytes);
    delete[] static_cast<unsigned char*>(target.data);
}

#ifdef QK_BENCH_LIBYUV
// 4:2:2 planes of the decode's output size, converted to RGB24.
void BM_LibyuvI422ToRGB24(benchmark::State& state)
{
    PreviewLayout layout;
    PreviewDecoder::Layout(static_cast<unsigned int>(state.range(0)), static_cast<unsigned int>(state.range(1)),
                           &layout);
    const int width = static_cast<int>(layout.outWidth);
    const int height = static_cast<int>(layout.height);
    const int chromaWidth = (width + 1) / 2;
    std::vector<uint8_t> y = RandomBytes(static_cast<size_t>(width) * height);
    std::vector<uint8_t> u = RandomBytes(static_cast<size_t>(chromaWidth) * height);
    std::vector<uint8_t> v = RandomBytes(static_cast<size_t>(chromaWidth) * height);
    std::vector<uint8_t> rgb(layout.fileBytes);
    for (auto _ : state) {
        libyuv::I422ToRGB24(y.data(), width, u.data(), chromaWidth, v.data(), chromaWidth,
                            rgb.data() + bmpHeaderBytes, static_cast<int>(layout.rowBytes), width, height);
        benchmark::DoNotOptimize(rgb.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * width * height);
    state.SetBytesProcessed(state.iterations() * layout.fileBytes);
}
#endif

// Copying the finished file's bytes: no conversion can be faster.
void BM_MemcpyOutput(benchmark::State& state)
{
    PreviewLayout layout;
    PreviewDecoder::Layout(static_cast<unsigned int>(state.range(0)), static_cast<unsigned int>(state.range(1)),
                           &layout);
    std::vector<uint8_t> from = RandomBytes(layout.fileBytes);
    std::vector<uint8_t> to(layout.fileBytes);
    for (auto _ : state) {
        std::memcpy(to.data(), from.data(), from.size());
        benchmark::DoNotOptimize(to.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * layout.outWidth * layout.height);
    state.SetBytesProcessed(state.iterations() * layout.fileBytes);
}

// On a shared machine the least time of the repetitions is the one least
// disturbed by others: run with --benchmark_repetitions=N.
double Least(const std::vector<double>& v) { return *std::min_element(v.begin(), v.end()); }

void Register(const char* name, void (*function)(benchmark::State&), int kernel)
{
    for (const auto& size : {std::pair<int, int>{720, 240}, {704, 480}}) {
        auto* b = benchmark::RegisterBenchmark(name, function);
        if (kernel == -2)
            b->Args({size.first, size.second});
        else
            b->Args({size.first, size.second, kernel});
        b->ComputeStatistics("min", Least);
    }
}

} // namespace

// Frames of 720x240 and 704x480 make pictures of 320x240 and 640x480: the
// decode with its best kernel, libyuv and memcpy at those output sizes, then
// the decode with each kernel the machine has (-1 best, 0 portable).
int main(int argc, char** argv)
{
    Register("BM_PreviewDecode", BM_PreviewDecode, -1);
#ifdef QK_BENCH_LIBYUV
    Register("BM_LibyuvI422ToRGB24", BM_LibyuvI422ToRGB24, -2);
#endif
    Register("BM_MemcpyOutput", BM_MemcpyOutput, -2);
    Register("BM_PreviewDecodeKernel", BM_PreviewDecode, static_cast<int>(PreviewDecoder::Kernel::None));
    for (PreviewDecoder::Kernel kernel : PreviewDecoder::AvailableKernels())
        Register("BM_PreviewDecodeKernel", BM_PreviewDecode, static_cast<int>(kernel));
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
