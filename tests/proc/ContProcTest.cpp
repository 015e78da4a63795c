// SPDX-License-Identifier: MIT
// Chains of timed steps: ending, polling, waiting, handing on, the sentinel,
// broken chains, and the state freed on every path (the sanitizer build also
// checks leaks).

#include <gtest/gtest.h>

#include <chrono>
#include <vector>

#include "proc/ContProc.h"
#include "tests/common/TestLog.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// Counts live copies of a capture, so a test sees a chain's state freed.
struct Tracked {
    explicit Tracked(int* live) : live(live) { ++*live; }
    Tracked(const Tracked& other) : live(other.live) { ++*live; }
    ~Tracked() { --*live; }
    int* live;
};

TEST(ContProcTest, ChainsEndWithTheirResultAndFreeTheirState)
{
    qktest::LogMark mark;
    int live = 0;
    int calls = 0;
    int passes = 0;
    int polls = 0;
    std::vector<int> seen;
    {
        Tracked token(&live);
        struct Chain {
            ContProc::Step first;
            QKResult result;
            milliseconds limit;
        };
        const Chain chains[] = {
            // Ended by its first step, at once.
            {[token, &calls](ContProc*, int64_t*, QKResult* result, bool* more) {
                 ++calls;
                 *result = QK_UNSUPPORTED_VALUE;
                 *more = false;
             },
             QK_UNSUPPORTED_VALUE, milliseconds(50)},
            // Polled a thousand times with zero waits; a result written once
            // stands unless rewritten.
            {[token, &passes](ContProc*, int64_t* wait, QKResult* result, bool* more) {
                 if (passes++ == 0)
                     *result = QK_NOT_READY;
                 *wait = 0;
                 *more = passes < 1000;
             },
             QK_NOT_READY, milliseconds(500)},
            // Handed on: the next step gets copies, as this closure dies with the assignment.
            {[token, &seen](ContProc* self, int64_t* wait, QKResult*, bool* more) {
                 int found = 41;
                 auto& log = seen;
                 log.push_back(1);
                 *wait = 0;
                 *more = true;
                 self->step = [found, token, &log](ContProc*, int64_t*, QKResult* result, bool* more) {
                     log.push_back(found + 1);
                     *result = QK_LOW_BATTERY;
                     *more = false;
                 };
             },
             QK_LOW_BATTERY, milliseconds(50)},
            // Polled, then ended by the sentinel, which overrides the result so far.
            {[token, &polls](ContProc* self, int64_t* wait, QKResult* result, bool* more) {
                 *result = QK_ERROR;
                 *wait = 0;
                 *more = true;
                 if (++polls == 3)
                     self->step = ContProc::sentinel;
             },
             QK_OK, milliseconds(50)},
            // Handed on to a step that has no body.
            {[token](ContProc* self, int64_t* wait, QKResult*, bool* more) {
                 *wait = 0;
                 *more = true;
                 self->step = [token](ContProc* next, int64_t* wait, QKResult*, bool* more) {
                     *wait = 0;
                     *more = true;
                     next->step = nullptr;
                 };
             },
             QK_ERROR, milliseconds(50)},
            // Ended without a result.
            {[token](ContProc*, int64_t*, QKResult*, bool*) {}, QK_ERROR, milliseconds(50)},
        };
        for (const Chain& chain : chains) {
            const auto start = Clock::now();
            EXPECT_EQ(ContProc::run(new ContProc(chain.first)), chain.result);
            EXPECT_LT(Clock::now() - start, chain.limit) << chain.result;
        }
        // Built and never run: the caller deletes it.
        delete new ContProc(chains[0].first);
    }
    EXPECT_EQ(live, 0);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(passes, 1000);
    EXPECT_EQ(seen, (std::vector<int>{1, 42}));
    EXPECT_EQ(polls, 3);
    // Broken chains fail instead of crashing, and say so.
    EXPECT_EQ(ContProc::run(nullptr), QK_ERROR);
    EXPECT_EQ(ContProc::run(new ContProc()), QK_ERROR);
    EXPECT_EQ(mark.Count("ContProc::run", "ERR"), 3);

    // The sentinel leaves the wait alone.
    QKResult result = QK_ERROR;
    bool more = true;
    int64_t wait = 5;
    ContProc::sentinel(nullptr, &wait, &result, &more);
    EXPECT_EQ(result, QK_OK);
    EXPECT_FALSE(more);
    EXPECT_EQ(wait, 5);
}

TEST(ContProcTest, WaitsAreSleptBetweenSteps)
{
    std::vector<Clock::time_point> times;
    auto* proc = new ContProc([&times](ContProc*, int64_t* wait, QKResult* result, bool* more) {
        times.push_back(Clock::now());
        *wait = 60;
        *more = times.size() < 3;
        *result = QK_OK;
    });
    EXPECT_EQ(ContProc::run(proc), QK_OK);
    ASSERT_EQ(times.size(), 3u);
    EXPECT_GE(times[1] - times[0], milliseconds(60));
    EXPECT_GE(times[2] - times[1], milliseconds(60));

    // A holder that stops the chain is asked during a long wait, not after it;
    // the chain's state is freed where it stands.
    qktest::LogMark mark;
    int live = 0;
    int asked = 0;
    int steps = 0;
    const auto start = Clock::now();
    {
        Tracked token(&live);
        proc = new ContProc([token, &steps](ContProc*, int64_t* wait, QKResult* result, bool* more) {
            ++steps;
            *wait = 10000;
            *more = true;
            *result = QK_OK;
        });
    }
    EXPECT_EQ(ContProc::run(proc, [&asked] { return ++asked == 4; }), QK_ERROR);
    EXPECT_LT(Clock::now() - start, milliseconds(1000));
    EXPECT_EQ(steps, 1);
    EXPECT_EQ(live, 0);
    EXPECT_EQ(mark.Count("ContProc::run: chain stopped by its holder", "ERR"), 1);
}

} // namespace
