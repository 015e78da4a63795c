// SPDX-License-Identifier: MIT
#pragma once
// What the soak counts: operations by kind and how each ended, faults by
// kind and what they did, and the unexpected failures themselves.

#include <array>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace soak {

enum class Op { Session, Reinit, Property, Zoom, Preview, ShootNormal, ShootDirect, Download, Remove, Replug, Count };
enum class Fault { None, Stall, TimeOut, GeneralError, Malformed, HugeLength, Unplug, Count };

// How one operation ended.
enum class Outcome {
    Ok,         // no fault, right result
    Recovered,  // a fault was injected and the operation still came out right
    Expected,   // a fault was injected and the operation failed
    Unexpected, // failed without a fault, or wrong data came back, or it hung
    Count
};

const char* OpName(Op op);
const char* FaultName(Fault fault);

struct UnexpectedFailure {
    std::string camera;     // serial and model
    Op op = Op::Count;
    Fault fault = Fault::None;
    bool faultMidway = false;
    // The last fault on this camera before, within a few operations: a
    // failure right after one may be its consequence.
    Op lastFaultOp = Op::Count;
    Fault lastFault = Fault::None;
    int lastFaultAgo = 0; // operations between it and this one
    std::string what;
};

class Stats {
public:
    void Record(Op op, Fault fault, Outcome outcome);
    void RecordUnexpected(UnexpectedFailure failure);
    // Events outside the operation table, counted by name.
    void Count(const std::string& event);

    int UnexpectedCount() const;
    // The tables and the first unexpected failures, to stdout.
    void Print(size_t detailLimit) const;

private:
    mutable std::mutex mutex;
    std::array<std::array<int64_t, static_cast<size_t>(Outcome::Count)>, static_cast<size_t>(Op::Count)> ops{};
    // Per fault kind: operations that failed, and that came out right.
    std::array<std::array<int64_t, 2>, static_cast<size_t>(Fault::Count)> faults{};
    std::vector<UnexpectedFailure> unexpected;
    int unexpectedTotal = 0;
    std::vector<std::pair<std::string, int64_t>> events;
};

} // namespace soak
