// SPDX-License-Identifier: MIT
#pragma once
/// @file
/// Chains of timed steps for slow camera work.

#include <cstdint>
#include <functional>

#include "../DevicePTP/QKResult.h"

/// A chain of timed steps for slow camera work (zoom, shots). An operation
/// builds one and returns it; nothing reaches the camera until the holder
/// passes it to ContProc::run on a thread of its choice.
class ContProc {
public:
    /// A step. To end the chain: leave *more false and write *result. To run
    /// again or hand on: write *wait (ms), set *more, and optionally assign
    /// the next step to self->step (after which the running step must not
    /// touch its own captures).
    using Step = std::function<void(ContProc* self, int64_t* wait, QKResult* result, bool* more)>;

    /// A step that ends a chain with QK_OK.
    static const Step sentinel;

    /// A chain without a step; run fails it with a log line.
    ContProc() = default;
    /// A chain that starts with `first`.
    explicit ContProc(Step first) : step(std::move(first)) {}

    /// Takes over `proc` (made with new), runs its steps on the calling
    /// thread, sleeping their waits, until the chain ends; frees it and
    /// returns the chain's result. A null chain fails with a log line. Any
    /// thread; run one chain of a camera at a time (zoom and shot chains
    /// share the camera's event flags), chains of different cameras at once.
    static QKResult run(ContProc* proc);
    /// The same, asking `stop` between steps and during their waits (at
    /// least every 50 ms): once it says yes the chain is freed where it
    /// stands, logged, and the result is QK_ERROR. A camera's commands are
    /// whole transactions, so the camera stays in step for the next one.
    static QKResult run(ContProc* proc, const std::function<bool()>& stop);

    /// The step that runs next.
    Step step;
};
