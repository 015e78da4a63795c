// SPDX-License-Identifier: MIT
// Manual focus against the virtual lens: moves, reading the position back,
// the focus shift with its widening retries, and the table look-up alone.

#include <climits>

#include "tests/lens/LensFixture.h"

namespace {

using namespace qktest;
using qksim::PtpCommand;

std::vector<std::vector<uint32_t>> Targets(std::initializer_list<int32_t> targets)
{
    std::vector<std::vector<uint32_t>> args;
    for (int32_t t : targets)
        args.push_back({static_cast<uint32_t>(t)});
    return args;
}

TEST_F(LensTest, FocusMoveTakesWhereTheCameraStopped)
{
    Open("SX160");
    const std::vector<int32_t>& row = Row(0);
    const size_t n = row.size();
    // A third of the way between two entries: the lens stops at the lower one.
    const int32_t asked = row[n - 2] + (row[n - 1] - row[n - 2]) / 3;
    LogMark mark;
    int reached = -99;
    ASSERT_EQ(device->PTPManualFocusSet(asked, &reached), QK_OK);
    EXPECT_EQ(reached, row[n - 2]);
    EXPECT_EQ(FocusNow(), row[n - 2]);
    EXPECT_EQ(ArgsOf(*camera, PTP_QKM_MoveFocusTo), Targets({asked}));
    EXPECT_EQ(mark.Count("PTP_QKM_MoveFocusTo res: 0 " + std::to_string(row[n - 2]), "DEB"), 1);
    EXPECT_EQ(mark.Count("focus changed: " + std::to_string(row[n - 2]), "INF"), 1);

    // No place for the result: the move is taken over and announced all the same.
    ASSERT_EQ(device->PTPManualFocusSet(row[3], nullptr), QK_OK);
    EXPECT_EQ(FocusNow(), row[3]);
    // Ending where the last announcement stood announces nothing.
    ASSERT_EQ(device->PTPManualFocusSet(row[3], &reached), QK_OK);
    // Past the last entry goes out as all ones.
    ASSERT_EQ(device->PTPManualFocusSet(-1, &reached), QK_OK);
    EXPECT_EQ(reached, -1);
    EXPECT_EQ(ArgsOf(*camera, PTP_QKM_MoveFocusTo).back(), std::vector<uint32_t>{0xFFFFFFFFu});
    EXPECT_EQ(device->FocusHooks(), (std::vector<int>{row[n - 2], row[3], -1}));

    // The first word follows the manual focus switch on this camera.
    ASSERT_EQ(device->PTPManualFocusEnable(true), QK_OK);
    mark = LogMark();
    ASSERT_EQ(device->PTPManualFocusSet(row[0], &reached), QK_OK);
    EXPECT_EQ(mark.Count("PTP_QKM_MoveFocusTo res: 1 " + std::to_string(row[0])), 1);
}

TEST_F(LensTest, ShortOrRefusedFocusReplyChangesNothing)
{
    Open("SX160");
    const int32_t start = Row(0)[5];
    ASSERT_EQ(device->PTPManualFocusSet(start, nullptr), QK_OK);
    device->ClearHooks();

    struct Case {
        const char* what;
        qksim::PtpReply reply;
        const char* line;
    } cases[] = {
        {"one word", WordsReply({0}), "PTP_QKM_MoveFocusTo: reply of 4 bytes, 2 words expected"},
        {"seven bytes", [] { auto r = WordsReply({0, 400}); r.data.pop_back(); return r; }(),
         "PTP_QKM_MoveFocusTo: reply of 7 bytes, 2 words expected"},
        {"no data", WordsReply({}), "PTP_QKM_MoveFocusTo: reply of 0 bytes, 2 words expected"},
        {"refused", Refused(), "GETDATA failed: wrong CONTAINER_DATA"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        AnswerVendor(PTP_QKM_MoveFocusTo, c.reply);
        LogMark mark;
        int reached = -99;
        EXPECT_EQ(device->PTPManualFocusSet(Row(0)[9], &reached), QK_ERROR);
        EXPECT_EQ(reached, -99);
        EXPECT_EQ(FocusNow(), start);
        EXPECT_EQ(mark.Count(c.line), 1);
        EXPECT_EQ(mark.Count("PTP_QKM_MoveFocusTo failed", "ERR"), 1);
    }
    EXPECT_TRUE(device->FocusHooks().empty());

    // Words beyond the two are the camera's business.
    AnswerVendor(PTP_QKM_MoveFocusTo, WordsReply({7, 555, 9}));
    int reached = -99;
    EXPECT_EQ(device->PTPManualFocusSet(555, &reached), QK_OK);
    EXPECT_EQ(reached, 555);
}

TEST_F(LensTest, FocusParamsAndUpdateFocusPos)
{
    Open("SX160");
    Lens().SetFocusPosition(777); // the ring turned by hand
    int first = -5, position = -5;
    ASSERT_EQ(device->PTPManualFocusGetParams(&first, &position), QK_OK);
    EXPECT_EQ(first, 0);
    EXPECT_EQ(position, 777);
    LogMark mark;
    EXPECT_EQ(device->UpdateFocusPos(), QK_OK);
    EXPECT_EQ(device->UpdateFocusPos(), QK_OK);
    EXPECT_EQ(mark.Count("focus changed from camera: 777", "INF"), 1);
    EXPECT_EQ(device->FocusHooks(), std::vector<int>{777});

    for (const qksim::PtpReply& bad : {Refused(), WordsReply({3})}) {
        AnswerVendor(PTP_QKM_GetFocusParams, bad);
        Lens().SetFocusPosition(900);
        LogMark failed;
        first = position = -5;
        EXPECT_EQ(device->PTPManualFocusGetParams(&first, &position), QK_ERROR);
        EXPECT_EQ(first, -5);
        EXPECT_EQ(position, -5);
        EXPECT_EQ(device->UpdateFocusPos(), QK_ERROR);
        EXPECT_EQ(failed.Count("PTP_QKM_GetFocusParams failed", "ERR"), 2);
        EXPECT_EQ(failed.Count("PTPManualFocusGetParams failed", "ERR"), 1);
        EXPECT_EQ(FocusNow(), 777);
    }
    EXPECT_EQ(device->FocusHooks(), std::vector<int>{777});
}

// FocusShift on an SX160 at zoom 0, the focus taken over from the camera.
class FocusShiftTest : public LensTest {
protected:
    void SetUp() override { Open("SX160"); }
    void Start(int32_t focus)
    {
        ASSERT_EQ(device->PTPManualFocusSet(focus, nullptr), QK_OK);
        camera->ClearRecords();
        device->ClearHooks();
    }
};

TEST_F(FocusShiftTest, MovingLensNeedsOneAttemptInTheRowOfTheZoom)
{
    const std::vector<int32_t> row = Row(0);
    Start(row[10]);
    // A refusing guard and a zero shift send nothing.
    device->guardResult = QK_NOT_READY;
    EXPECT_EQ(device->FocusShift(1), QK_NOT_READY);
    EXPECT_EQ(device->guardCalls, 1);
    device->guardResult = QK_OK;
    EXPECT_EQ(device->FocusShift(0), QK_OK);
    EXPECT_EQ(device->guardCalls, 1);
    EXPECT_TRUE(camera->ReceivedCommands().empty());

    LogMark mark;
    ASSERT_EQ(device->FocusShift(1), QK_OK);
    EXPECT_EQ(ArgsOf(*camera, PTP_QKM_MoveFocusTo), Targets({row[11]}));
    EXPECT_EQ(FocusNow(), row[11]);
    ASSERT_EQ(device->FocusShift(-3), QK_OK);
    EXPECT_EQ(ArgsOf(*camera, PTP_QKM_MoveFocusTo), Targets({row[11], row[8]}));
    EXPECT_EQ(device->FocusHooks(), (std::vector<int>{row[11], row[8]}));
    EXPECT_EQ(mark.Count("Focus shift"), 0);
    EXPECT_EQ(device->guardCalls, 3);

    Settings().SetZoomPosition(60);
    ASSERT_EQ(device->UpdateZoom(), QK_OK);
    const std::vector<int32_t> row60 = Row(60);
    ASSERT_NE(row60, row);
    Start(row60[20]);
    ASSERT_EQ(device->FocusShift(2), QK_OK);
    EXPECT_EQ(ArgsOf(*camera, PTP_QKM_MoveFocusTo), Targets({row60[22]}));
}

TEST_F(FocusShiftTest, StuckLensGetsNineWideningAttemptsUpToPastTheEnd)
{
    const std::vector<int32_t> row = Row(0);
    const int n = static_cast<int>(row.size());
    // Row indices; n is the place past the last entry.
    auto at = [&](int i) { return i == n ? -1 : row[static_cast<size_t>(i)]; };
    struct Case {
        int start, shift, first, step, attempts;
    } cases[] = {
        {10, 1, 11, 1, 9}, {10, -1, 9, -1, 9}, {n - 1, 1, n, 1, 1}, {n, -1, n - 1, -1, 9},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE("start " + std::to_string(c.start) + " shift " + std::to_string(c.shift));
        Lens().SetFocusStuck(false);
        Start(at(c.start));
        Lens().SetFocusStuck(true);
        LogMark mark;
        ASSERT_EQ(device->FocusShift(c.shift), QK_OK);
        std::vector<std::vector<uint32_t>> targets;
        for (int k = 0; k < c.attempts; ++k) {
            targets.push_back({static_cast<uint32_t>(at(c.first + k * c.step))});
            // Each attempt is measured from the start, where the lens stayed.
            const std::string line = "Focus shift, change shift: " + std::to_string(c.shift * (k + 2)) + " (" +
                                     std::to_string(at(c.first + k * c.step)) + " " + std::to_string(at(c.start)) +
                                     ")";
            EXPECT_EQ(mark.Count(line, "DEB"), c.attempts > 1 ? 1 : 0) << line;
        }
        EXPECT_EQ(ArgsOf(*camera, PTP_QKM_MoveFocusTo), targets);
        EXPECT_EQ(mark.Count("Focus shift, change shift:"), c.attempts > 1 ? 9 : 0);
        EXPECT_EQ(mark.Count("FocusShift: exit by retry counter", "DEB"), c.attempts > 1 ? 1 : 0);
        EXPECT_EQ(FocusNow(), at(c.start));
        EXPECT_TRUE(device->FocusHooks().empty());
    }

    // A lens that does go past the end, then back one place.
    Lens().SetFocusStuck(false);
    Start(row.back());
    ASSERT_EQ(device->FocusShift(1), QK_OK);
    EXPECT_EQ(FocusNow(), -1);
    ASSERT_EQ(device->FocusShift(-1), QK_OK);
    EXPECT_EQ(ArgsOf(*camera, PTP_QKM_MoveFocusTo), Targets({-1, row.back()}));
    EXPECT_EQ(FocusNow(), row.back());
}

TEST_F(FocusShiftTest, FailingMoveStopsAtOnce)
{
    const std::vector<int32_t> row = Row(0);
    Start(row[10]);
    // The first attempt leaves the lens where it was, the second is refused.
    int calls = 0;
    const int32_t stay = row[10];
    camera->SetVendorHandler(PTP_QKM_MoveFocusTo, [&calls, stay](const PtpCommand&) {
        return calls++ == 0 ? WordsReply({0, stay}) : Refused();
    });
    LogMark mark;
    EXPECT_EQ(device->FocusShift(1), QK_ERROR);
    EXPECT_EQ(ArgsOf(*camera, PTP_QKM_MoveFocusTo), Targets({row[11], row[12]}));
    EXPECT_EQ(mark.Count("PTP_QKM_MoveFocusTo failed", "ERR"), 1);
    EXPECT_EQ(mark.Count("PTPManualFocusSet failed", "ERR"), 1);
    EXPECT_EQ(FocusNow(), row[10]);
}

TEST_F(LensTest, ShiftWithoutATableCommandsZeroOnEachAttempt)
{
    Open("A1400");
    ASSERT_EQ(device->PTPManualFocusSet(500, nullptr), QK_OK);
    camera->ClearRecords();
    LogMark mark;
    ASSERT_EQ(device->FocusShift(1), QK_OK);
    EXPECT_EQ(ArgsOf(*camera, PTP_QKM_MoveFocusTo), Targets({0, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(mark.Count("FocusShift: exit by retry counter"), 1);
    // From 0 the target is the start: one attempt.
    camera->ClearRecords();
    ASSERT_EQ(device->FocusShift(-4), QK_OK);
    EXPECT_EQ(ArgsOf(*camera, PTP_QKM_MoveFocusTo), Targets({0}));
}

// Looking up a focus position a number of table places away: pure table
// work, so the records are set up by hand and no camera is needed.

std::shared_ptr<RecordingCamera> WithTable(std::vector<std::vector<int32_t>> table)
{
    auto device = std::make_shared<RecordingCamera>(nullptr, L"none");
    device->Record().focusTable = std::move(table);
    return device;
}

TEST(FocusTableShift, PlacesAwayInTheRowOfTheZoom)
{
    std::shared_ptr<RecordingCamera> model = WithTable({});
    ASSERT_TRUE(findCameraConfig(&model->Record(), L"SX150"));
    enum { Four, Rows, Wide, Edges, Model };
    const std::shared_ptr<RecordingCamera> devices[] = {
        WithTable({{100, 200, 400, 800}}),
        WithTable({{100, 200, 400, 800}, {10, 20}, {1000, 3000}}),
        WithTable({{INT_MIN + 1, 0, INT_MAX}}),
        WithTable({{INT_MIN + 1, INT_MAX}}), // distances that do not fit in an int
        model,
    };
    struct Case {
        int table, zoom, focus, shift, expected;
    } cases[] = {
        {Four, 0, 200, 1, 400}, {Four, 0, 250, 1, 400}, {Four, 0, 300, 1, 800}, {Four, 0, 50, 1, 200},
        {Four, 0, 50, -1, 100}, {Four, 0, 800, 1, -1}, {Four, 0, 900, 0, 800}, {Four, 0, 900, 1, -1},
        {Four, 0, -1, 1, -1}, {Four, 0, -1, -1, 800}, {Four, 0, -1, -2, 400}, {Four, 0, 200, -9, 100},
        // Around the table: the entries themselves, a tie below and one step short of it.
        {Four, 0, 100, 0, 100}, {Four, 0, 800, 0, 800}, {Four, 0, 149, 0, 100}, {Four, 0, 150, 0, 200},
        {Four, 0, -1, 0, -1}, {Four, 0, -1, -4, 100}, {Four, 0, -1, -9, 100}, {Four, 0, 200, 2, 800},
        {Four, 0, 200, 3, -1},
        // Arguments at the ends of int stay in the row.
        {Four, 0, 200, INT_MAX, -1}, {Four, 0, 200, INT_MIN, 100}, {Four, 0, -1, INT_MIN, 100},
        {Four, 0, INT_MIN, 0, 100}, {Four, 0, INT_MAX, 0, 800}, {Four, 0, -7, 1, 200},
        {Wide, 0, INT_MAX - 1, 0, INT_MAX}, {Wide, 0, -2, 0, 0}, {Edges, 0, 5, 0, INT_MAX},
        {Edges, 0, -5, 0, INT_MIN + 1},
        // A zoom beyond either end uses the first or the last row.
        {Rows, -5, 200, 1, 400}, {Rows, INT_MIN, 200, 0, 200}, {Rows, 1, 200, 0, 20}, {Rows, 7, 2000, 0, 3000},
        {Rows, INT_MAX, -1, -1, 3000},
        // The model's row 0 begins 69, 70, 71 and ends 1855, 2450, 3722.
        {Model, 0, 69, 1, 70}, {Model, 0, 69, -1, 69}, {Model, 0, 3722, -2, 1855}, {Model, 0, 3722, 1, -1},
        {Model, 0, -1, -3, 1855}, {Model, 0, 3000, 0, 2450}, {Model, 125, 0, 0, 1081},
    };
    for (const Case& c : cases)
        EXPECT_EQ(devices[c.table]->GetFocusWithShift(c.zoom, c.focus, c.shift), c.expected)
            << "table " << c.table << " zoom " << c.zoom << " focus " << c.focus << " shift " << c.shift;

    // Without a table every answer is 0.
    std::shared_ptr<RecordingCamera> none = WithTable({});
    for (int zoom : {0, 5, -1})
        for (int focus : {0, -1, 123})
            for (int shift : {-3, 0, 1})
                EXPECT_EQ(none->GetFocusWithShift(zoom, focus, shift), 0);
}

} // namespace
