// SPDX-License-Identifier: MIT
#include "bench/SoakStats.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <tuple>

namespace soak {

namespace {

constexpr size_t keptFailures = 500;

size_t At(Op op) { return static_cast<size_t>(op); }
size_t At(Fault fault) { return static_cast<size_t>(fault); }

std::string Describe(const UnexpectedFailure& f)
{
    std::string text = f.camera + " " + OpName(f.op) + ", fault: " + FaultName(f.fault);
    if (f.fault != Fault::None)
        text += f.faultMidway ? " (midway)" : " (at its start)";
    if (f.lastFault != Fault::None)
        text += std::string(", after ") + FaultName(f.lastFault) + " on " + OpName(f.lastFaultOp) + " " +
                std::to_string(f.lastFaultAgo + 1) + " op(s) before";
    return text + ": " + f.what;
}

} // namespace

const char* OpName(Op op)
{
    static const char* const names[] = {"session", "reinit", "property", "zoom",   "preview",
                                        "shoot-normal", "shoot-direct", "download", "remove", "replug"};
    return op < Op::Count ? names[At(op)] : "-";
}

const char* FaultName(Fault fault)
{
    static const char* const names[] = {"none", "stall", "time-out", "general-error", "malformed",
                                        "huge-length", "unplug"};
    return fault < Fault::Count ? names[At(fault)] : "?";
}

void Stats::Record(Op op, Fault fault, Outcome outcome)
{
    std::lock_guard<std::mutex> lock(mutex);
    ++ops[At(op)][static_cast<size_t>(outcome)];
    if (fault != Fault::None)
        ++faults[At(fault)][outcome == Outcome::Recovered ? 1 : 0];
}

void Stats::RecordUnexpected(UnexpectedFailure failure)
{
    std::lock_guard<std::mutex> lock(mutex);
    ++unexpectedTotal;
    if (unexpected.size() < keptFailures)
        unexpected.push_back(std::move(failure));
}

void Stats::Count(const std::string& event)
{
    std::lock_guard<std::mutex> lock(mutex);
    for (auto& entry : events)
        if (entry.first == event) {
            ++entry.second;
            return;
        }
    events.emplace_back(event, 1);
}

int Stats::UnexpectedCount() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return unexpectedTotal;
}

void Stats::Print(size_t detailLimit) const
{
    std::lock_guard<std::mutex> lock(mutex);
    std::printf("\n%-14s %9s %9s %10s %9s %11s\n", "operation", "done", "ok", "recovered", "expected",
                "unexpected");
    std::array<int64_t, static_cast<size_t>(Outcome::Count)> total{};
    for (size_t op = 0; op < At(Op::Count); ++op) {
        const auto& row = ops[op];
        int64_t done = 0;
        for (size_t o = 0; o < row.size(); ++o) {
            done += row[o];
            total[o] += row[o];
        }
        std::printf("%-14s %9lld %9lld %10lld %9lld %11lld\n", OpName(static_cast<Op>(op)),
                    static_cast<long long>(done), static_cast<long long>(row[0]),
                    static_cast<long long>(row[1]), static_cast<long long>(row[2]),
                    static_cast<long long>(row[3]));
    }
    std::printf("%-14s %9lld %9lld %10lld %9lld %11lld\n", "all",
                static_cast<long long>(total[0] + total[1] + total[2] + total[3]),
                static_cast<long long>(total[0]), static_cast<long long>(total[1]),
                static_cast<long long>(total[2]), static_cast<long long>(total[3]));

    std::printf("\n%-14s %9s %10s %12s\n", "fault", "injected", "op failed", "op came out");
    for (size_t f = 1; f < At(Fault::Count); ++f)
        std::printf("%-14s %9lld %10lld %12lld\n", FaultName(static_cast<Fault>(f)),
                    static_cast<long long>(faults[f][0] + faults[f][1]), static_cast<long long>(faults[f][0]),
                    static_cast<long long>(faults[f][1]));
    for (const auto& entry : events)
        std::printf("%s: %lld\n", entry.first.c_str(), static_cast<long long>(entry.second));

    if (unexpectedTotal == 0)
        return;
    // Grouped by operation, fault and the last fault shortly before, which
    // tells an engine fault from the fault's own consequence.
    std::map<std::tuple<Op, Fault, Fault>, std::pair<int, const UnexpectedFailure*>> groups;
    for (const UnexpectedFailure& f : unexpected) {
        auto& group = groups[std::make_tuple(f.op, f.fault, f.lastFault)];
        if (group.first++ == 0)
            group.second = &f;
    }
    std::printf("\nunexpected failures: %d; by operation / fault / last fault shortly before (of the first %zu):\n",
                unexpectedTotal, unexpected.size());
    for (const auto& group : groups)
        std::printf("  %5d x %s / %s / after %s, e.g. %s\n", group.second.first, OpName(std::get<0>(group.first)),
                    FaultName(std::get<1>(group.first)), FaultName(std::get<2>(group.first)),
                    group.second.second->what.c_str());
    std::printf("first %zu:\n", std::min(detailLimit, unexpected.size()));
    for (size_t i = 0; i < unexpected.size() && i < detailLimit; ++i)
        std::printf("  %s\n", Describe(unexpected[i]).c_str());
}

} // namespace soak
