// SPDX-License-Identifier: MIT
// What the knowledge base costs: building the model table before main, and
// the copy of a record that each camera object takes at Init. Heap use is
// counted by replacing the global allocation functions of this program, in
// usable bytes of the allocator, so slack per block is included.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>
#include <malloc.h>
#include <new>

#include "models/CameraDB.h"

namespace {

std::atomic<size_t> liveBytes{0};
std::atomic<size_t> peakBytes{0};
std::atomic<size_t> allocations{0};

void countAlloc(size_t n)
{
    size_t live = liveBytes.fetch_add(n) + n;
    size_t peak = peakBytes.load();
    while (live > peak && !peakBytes.compare_exchange_weak(peak, live)) {
    }
    allocations.fetch_add(1);
}

struct HeapWindow {
    size_t liveBefore;
    size_t allocsBefore;
    HeapWindow() : liveBefore(liveBytes.load()), allocsBefore(allocations.load())
    {
        peakBytes.store(liveBefore);
    }
    double live() const { return static_cast<double>(liveBytes.load() - liveBefore); }
    double peak() const { return static_cast<double>(peakBytes.load() - liveBefore); }
    double allocs() const { return static_cast<double>(allocations.load() - allocsBefore); }
};

const CameraConfig& sx170()
{
    for (const CameraConfig& c : cameraDB) {
        if (c.name == L"SX170")
            return c;
    }
    std::abort();
}

void BM_InitCameraDB(benchmark::State& state)
{
    double live = 0, peak = 0, allocs = 0;
    for (auto _ : state) {
        HeapWindow window;
        std::vector<CameraConfig> db = initCameraDB();
        benchmark::DoNotOptimize(db.data());
        live = window.live();
        peak = window.peak();
        allocs = window.allocs();
    }
    state.counters["heap_kept_KiB"] = live / 1024;
    state.counters["heap_peak_KiB"] = peak / 1024;
    state.counters["allocations"] = allocs;
}
BENCHMARK(BM_InitCameraDB)->Unit(benchmark::kMillisecond);

// Init's way: the search over the table, then an assignment into the object's
// own record.
void BM_FindAndCopySX170(benchmark::State& state)
{
    double live = 0;
    for (auto _ : state) {
        CameraConfig own;
        HeapWindow window;
        bool found = findCameraConfig(&own, L"Digital Camera SX170 IS");
        benchmark::DoNotOptimize(found);
        benchmark::DoNotOptimize(own.focusTable.data());
        live = window.live();
    }
    state.counters["heap_kept_KiB"] = live / 1024;
}
BENCHMARK(BM_FindAndCopySX170)->Unit(benchmark::kMicrosecond);

void BM_CopySX170(benchmark::State& state)
{
    const CameraConfig& record = sx170();
    for (auto _ : state) {
        CameraConfig copy = record;
        benchmark::DoNotOptimize(copy.focusTable.data());
    }
}
BENCHMARK(BM_CopySX170)->Unit(benchmark::kMicrosecond);

} // namespace

void* operator new(size_t n)
{
    void* p = std::malloc(n ? n : 1);
    if (!p)
        std::abort();
    countAlloc(malloc_usable_size(p));
    return p;
}

// GCC takes the free() below for a mismatch with new, not seeing that this
// function is the replacement that pairs with the malloc() above.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif
void operator delete(void* p) noexcept
{
    if (!p)
        return;
    liveBytes.fetch_sub(malloc_usable_size(p));
    std::free(p);
}
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

void operator delete(void* p, size_t) noexcept
{
    operator delete(p);
}

BENCHMARK_MAIN();
