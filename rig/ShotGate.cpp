// SPDX-License-Identifier: MIT
#include "rig/ShotGate.h"

#include <time.h>

#include <cerrno>
#include <thread>

namespace {

// Woken threads need a moment to be scheduled: the instant lies this far
// after the last arrival, and each thread spins through the end of the
// wait, which the scheduler's wake-up jitter would otherwise spread.
constexpr auto releaseLead = std::chrono::milliseconds(2);
constexpr auto spinPart = std::chrono::microseconds(400);

void WaitUntil(std::chrono::steady_clock::time_point instant)
{
    std::this_thread::sleep_until(instant - spinPart);
    while (std::chrono::steady_clock::now() < instant) {
    }
}

} // namespace

void ShotGate::CountOne(std::unique_lock<std::mutex>& lock)
{
    (void)lock;
    if (waiting > 0 && --waiting == 0) {
        open = true;
        release = std::chrono::steady_clock::now() + releaseLead;
        allThere.notify_all();
    }
}

// Sleeps on the wall clock itself, so that a clock stepped meanwhile (NTP)
// still fires at the instant asked for; the last stretch is spun.
static void WaitUntilWallClock(std::chrono::system_clock::time_point instant)
{
    using namespace std::chrono;
    const auto asTimespec = [](system_clock::time_point point) {
        const auto ns = duration_cast<nanoseconds>(point.time_since_epoch()).count();
        return timespec{static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)};
    };
    const timespec early = asTimespec(instant - spinPart);
    while (clock_nanosleep(CLOCK_REALTIME, TIMER_ABSTIME, &early, nullptr) == EINTR) {
    }
    while (system_clock::now() < instant) {
    }
}

void ShotGate::Arrive()
{
    std::unique_lock<std::mutex> lock(mutex);
    CountOne(lock);
    allThere.wait(lock, [this] { return open; });
    const auto instant = release;
    lock.unlock();
    if (wallClock)
        WaitUntilWallClock(fireAt);
    else
        WaitUntil(instant);
}

void ShotGate::Withdraw()
{
    std::unique_lock<std::mutex> lock(mutex);
    CountOne(lock);
}

std::chrono::steady_clock::time_point ShotGate::ReleaseTime()
{
    std::lock_guard<std::mutex> lock(mutex);
    return release;
}
