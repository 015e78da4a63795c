// The lens from two threads: a zoom chain on one, queries, take-overs and
// focus shifts on another, as a host with a polling loop would do.

#include <atomic>
#include <thread>

#include "tests/lens/LensFixture.h"

namespace {

using namespace qktest;
using namespace std::chrono_literals;

TEST_F(LensTest, QueriesFromAnotherThreadWhileTheZoomChainRuns)
{
    Open("SX160");
    Lens().SetZoomTimePerPosition(8ms); // 100 positions: 800 ms
    ASSERT_EQ(device->PTPManualFocusSet(Row(0)[10], nullptr), QK_OK);

    std::atomic<bool> done{false};
    QKResult chainResult = QK_ERROR;
    std::thread chain([&] {
        chainResult = Zoom(100);
        done = true;
    });
    int rounds = 0;
    while (!done) {
        int zoom = -1, focus = -1;
        EXPECT_EQ(device->UpdateZoom(), QK_OK);
        EXPECT_EQ(device->GetZoom(&zoom), QK_OK);
        EXPECT_GE(zoom, 0);
        EXPECT_LE(zoom, 100);
        EXPECT_EQ(device->UpdateFocusPos(), QK_OK);
        EXPECT_EQ(device->GetFocus(&focus), QK_OK);
        EXPECT_EQ(device->FocusShift(rounds % 2 ? 1 : -1), QK_OK);
        // Copies the model record afresh while the chain reads it.
        EXPECT_EQ(device->Init(), QK_OK);
        ++rounds;
    }
    chain.join();
    ASSERT_EQ(chainResult, QK_OK);
    EXPECT_GE(rounds, 3);

    // The camera's positions while moving, then the chain's; each once.
    std::vector<int> hooks = device->ZoomHooks();
    ASSERT_GE(hooks.size(), 2u);
    EXPECT_LT(hooks.front(), 100);
    EXPECT_EQ(hooks.back(), 100);
    for (size_t i = 1; i < hooks.size(); ++i)
        EXPECT_LT(hooks[i - 1], hooks[i]) << "at " << i;
    EXPECT_EQ(ZoomNow(), 100);
}

TEST_F(LensTest, TwoThreadsTakingOverOneChangeAnnounceItOnce)
{
    Open("SX160");
    std::vector<int> expected;
    for (int position = 5; position <= 100; position += 5) {
        Settings().SetZoomPosition(position);
        std::thread other([&] { EXPECT_EQ(device->UpdateZoom(), QK_OK); });
        EXPECT_EQ(device->UpdateZoom(), QK_OK);
        other.join();
        expected.push_back(position);
    }
    EXPECT_EQ(device->ZoomHooks(), expected);
}

} // namespace
