// Chains of timed steps: ending, waiting, polling, handing on, the sentinel,
// and the object freed on every path (the sanitizer build checks leaks).

#include <gtest/gtest.h>

#include <chrono>
#include <memory>

#include "proc/ContProc.h"
#include "tests/common/TestLog.h"

namespace {

using Clock = std::chrono::steady_clock;

// Counts live objects of a capture, so a test sees the chain's state freed.
struct Tracked {
    explicit Tracked(int* live) : live(live) { ++*live; }
    Tracked(const Tracked& other) : live(other.live) { ++*live; }
    ~Tracked() { --*live; }
    int* live;
};

TEST(ContProcTest, FirstStepEndsAtOnce)
{
    int live = 0;
    int calls = 0;
    {
        Tracked token(&live);
        auto* proc = new ContProc([token, &calls](ContProc*, int64_t*, QKResult* result, bool* more) {
            ++calls;
            *result = QK_UNSUPPORTED_VALUE;
            *more = false;
        });
        auto start = Clock::now();
        EXPECT_EQ(ContProc::run(proc), QK_UNSUPPORTED_VALUE);
        EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(50));
    }
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(live, 0);
}

TEST(ContProcTest, PollRunsTheSameStepUntilItEnds)
{
    int passes = 0;
    auto* proc = new ContProc([&passes](ContProc*, int64_t* wait, QKResult* result, bool* more) {
        ++passes;
        *wait = 0;
        *more = passes < 1000; // zero waits: a thousand passes cost nothing
        *result = QK_OK;
    });
    auto start = Clock::now();
    EXPECT_EQ(ContProc::run(proc), QK_OK);
    EXPECT_EQ(passes, 1000);
    EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(500));
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
    ContProc::run(proc);
    ASSERT_EQ(times.size(), 3u);
    EXPECT_GE(times[1] - times[0], std::chrono::milliseconds(60));
    EXPECT_GE(times[2] - times[1], std::chrono::milliseconds(60));
}

TEST(ContProcTest, HandingOnPassesStateThroughCaptures)
{
    int live = 0;
    std::vector<int> seen;
    {
        Tracked token(&live);
        auto* proc = new ContProc([token, &seen](ContProc* self, int64_t* wait, QKResult*, bool* more) {
            int found = 41;
            auto& log = seen;
            log.push_back(1);
            *wait = 0;
            *more = true;
            // The next step gets copies; this closure dies with the assignment.
            self->step = [found, token, &log](ContProc*, int64_t*, QKResult* result, bool* more) {
                log.push_back(found + 1);
                *result = QK_LOW_BATTERY;
                *more = false;
            };
        });
        EXPECT_EQ(ContProc::run(proc), QK_LOW_BATTERY);
    }
    EXPECT_EQ(seen, (std::vector<int>{1, 42}));
    EXPECT_EQ(live, 0);
}

TEST(ContProcTest, SentinelOverridesAnEarlierResult)
{
    auto* proc = new ContProc([](ContProc* self, int64_t* wait, QKResult* result, bool* more) {
        *result = QK_ERROR;
        *wait = 10;
        *more = true;
        self->step = ContProc::sentinel;
    });
    EXPECT_EQ(ContProc::run(proc), QK_OK);

    QKResult result = QK_ERROR;
    bool more = true;
    int64_t wait = 5;
    ContProc::sentinel(nullptr, &wait, &result, &more);
    EXPECT_EQ(result, QK_OK);
    EXPECT_FALSE(more);
    EXPECT_EQ(wait, 5);
}

TEST(ContProcTest, ResultWrittenEarlierStandsUnlessRewritten)
{
    int passes = 0;
    auto* proc = new ContProc([&passes](ContProc*, int64_t* wait, QKResult* result, bool* more) {
        if (passes++ == 0)
            *result = QK_NOT_READY;
        *wait = 0;
        *more = passes < 3;
    });
    EXPECT_EQ(ContProc::run(proc), QK_NOT_READY);
}

TEST(ContProcTest, BrokenChainsFailInsteadOfCrashing)
{
    qktest::LogMark mark;
    EXPECT_EQ(ContProc::run(nullptr), QK_ERROR);
    EXPECT_EQ(ContProc::run(new ContProc()), QK_ERROR);
    // A step that ends without writing a result.
    EXPECT_EQ(ContProc::run(new ContProc([](ContProc*, int64_t*, QKResult*, bool*) {})), QK_ERROR);
    EXPECT_EQ(mark.Count("ContProc::run"), 2);
}

TEST(ContProcTest, StateIsFreedOnEveryWayOut)
{
    int live = 0;
    int passes = 0;
    {
        Tracked token(&live);
        // Polled three times, then ended by the sentinel after a pause.
        auto* polled = new ContProc([token, &passes](ContProc* self, int64_t* wait, QKResult*, bool* more) {
            *wait = 0;
            *more = true;
            if (++passes == 3)
                self->step = ContProc::sentinel;
        });
        EXPECT_EQ(ContProc::run(polled), QK_OK);
        // Handed on to a step that has no body.
        auto* emptied = new ContProc([token](ContProc* self, int64_t* wait, QKResult*, bool* more) {
            *wait = 0;
            *more = true;
            self->step = [token](ContProc* next, int64_t* wait, QKResult*, bool* more) {
                *wait = 0;
                *more = true;
                next->step = nullptr;
            };
        });
        EXPECT_EQ(ContProc::run(emptied), QK_ERROR);
        // Ended without a result.
        EXPECT_EQ(ContProc::run(new ContProc([token](ContProc*, int64_t*, QKResult*, bool*) {})), QK_ERROR);
        // Built and never run: the caller deletes it.
        delete new ContProc([token](ContProc*, int64_t*, QKResult*, bool*) {});
    }
    EXPECT_EQ(passes, 3);
    EXPECT_EQ(live, 0);
}

} // namespace
