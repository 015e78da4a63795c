// SPDX-License-Identifier: MIT
#pragma once
// Holds every camera of a shot at its shoot command until all are there,
// then lets them go at one instant.

#include <chrono>
#include <condition_variable>
#include <mutex>

class ShotGate {
public:
    explicit ShotGate(size_t parties) : waiting(parties) {}
    // Released at a wall-clock instant (CLOCK_REALTIME), not as soon as all
    // are there: hosts whose clocks agree fire together.
    ShotGate(size_t parties, std::chrono::system_clock::time_point fireAt)
        : waiting(parties), wallClock(true), fireAt(fireAt)
    {
    }

    // A camera is at its command: blocks until every party has arrived or
    // withdrawn, then until the common release instant.
    void Arrive();
    // A camera that will not reach its command (its chain failed before).
    void Withdraw();
    // When the gate opened (steady clock); the default before it did.
    std::chrono::steady_clock::time_point ReleaseTime();

private:
    void CountOne(std::unique_lock<std::mutex>& lock);

    std::mutex mutex;
    std::condition_variable allThere;
    size_t waiting;
    bool open = false;
    std::chrono::steady_clock::time_point release{};
    bool wallClock = false;
    std::chrono::system_clock::time_point fireAt{};
};
