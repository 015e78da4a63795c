// SPDX-License-Identifier: MIT
// A 64 MiB download keeps the engine's memory flat. The virtual camera shares
// this process and holds the file several times over, so the heap of the
// downloading thread is counted instead, by replacing this program's
// allocation functions. (bench/ measures the resident size.)

#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <thread>

#include "tests/common/CardCameraTest.h"

namespace {

std::atomic<bool> counting{false};
std::thread::id countedThread;
std::atomic<long long> liveBytes{0};
std::atomic<long long> peakBytes{0};

bool Counted() { return counting.load(std::memory_order_relaxed) && std::this_thread::get_id() == countedThread; }

void* Allocate(size_t size)
{
    void* p = std::malloc(size ? size : 1);
    if (p && Counted()) {
        const long long live = liveBytes += static_cast<long long>(malloc_usable_size(p));
        long long peak = peakBytes.load();
        while (live > peak && !peakBytes.compare_exchange_weak(peak, live)) {
        }
    }
    return p;
}

void Release(void* p)
{
    if (p && Counted())
        liveBytes -= static_cast<long long>(malloc_usable_size(p));
    std::free(p);
}

} // namespace

void* operator new(size_t size)
{
    if (void* p = Allocate(size))
        return p;
    throw std::bad_alloc();
}
void* operator new[](size_t size) { return operator new(size); }
void* operator new(size_t size, const std::nothrow_t&) noexcept { return Allocate(size); }
void* operator new[](size_t size, const std::nothrow_t&) noexcept { return Allocate(size); }
void operator delete(void* p) noexcept { Release(p); }
void operator delete[](void* p) noexcept { Release(p); }
void operator delete(void* p, size_t) noexcept { Release(p); }
void operator delete[](void* p, size_t) noexcept { Release(p); }

namespace {

using DownloadMemory = qktest::CardCameraTest;

TEST_F(DownloadMemory, SixtyFourMebibytesGrowTheHeapByLessThanFourMebibytes)
{
    const size_t size = 64u << 20;
    const uint32_t handle = Card().AddFile("MVI_0064.MOV", qktest::Pattern(size, 64));
    const std::string path = Local("big.mov");

    countedThread = std::this_thread::get_id();
    liveBytes = 0;
    peakBytes = 0;
    counting = true;
    const QKResult result = device->PTPDownloadFile(static_cast<int>(handle), path);
    counting = false;
    ASSERT_EQ(result, QK_OK);

    EXPECT_LT(peakBytes.load(), 4LL << 20);
    // One chunk at a time is all it needs.
    EXPECT_GE(peakBytes.load(), 0x100000LL);
    EXPECT_EQ(ReadFile(path), Card().Content(handle));
}

} // namespace
