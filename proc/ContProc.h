#pragma once
// A chain of timed steps for slow camera work. An operation builds one and
// returns it; nothing happens until the holder passes it to ContProc::run on
// a thread of its choice.

#include <cstdint>
#include <functional>

#include "../DevicePTP/QKResult.h"

class ContProc {
public:
    // A step. To end the chain: leave *more false and write *result. To run
    // again or hand on: write *wait (ms), set *more, and optionally assign
    // the next step to self->step (after which the running step must not
    // touch its own captures).
    using Step = std::function<void(ContProc* self, int64_t* wait, QKResult* result, bool* more)>;

    // Ends a chain with QK_OK.
    static const Step sentinel;

    ContProc() = default;
    explicit ContProc(Step first) : step(std::move(first)) {}

    // Takes over `proc`, blocks until the chain ends, frees it and returns
    // the chain's result.
    static QKResult run(ContProc* proc);

    Step step;
};
