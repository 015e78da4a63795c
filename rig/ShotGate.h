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
};
