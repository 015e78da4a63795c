// Manual focus against the virtual lens: moves, reading the position back,
// and the focus shift with its widening retries.

#include "tests/lens/LensFixture.h"

namespace {

using namespace qktest;
using qksim::PtpCommand;

constexpr uint32_t pastLastOnWire = 0xFFFFFFFF;

std::vector<std::vector<uint32_t>> Targets(std::initializer_list<int32_t> targets)
{
    std::vector<std::vector<uint32_t>> args;
    for (int32_t t : targets)
        args.push_back({static_cast<uint32_t>(t)});
    return args;
}

int Focus(LensCamera& device)
{
    int focus = -12345;
    EXPECT_EQ(device.GetFocus(&focus), QK_OK);
    return focus;
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
    EXPECT_EQ(Focus(*device), row[n - 2]);
    EXPECT_EQ(Lens().FocusPosition(), row[n - 2]);
    EXPECT_EQ(ArgsOf(*camera, PTP_QKM_MoveFocusTo), Targets({asked}));
    EXPECT_EQ(mark.Count("PTP_QKM_MoveFocusTo res: 0 " + std::to_string(row[n - 2]), "DEB"), 1);
    EXPECT_EQ(mark.Count("focus changed: " + std::to_string(row[n - 2]), "INF"), 1);

    // No place for the result: the move is taken over and announced all the same.
    ASSERT_EQ(device->PTPManualFocusSet(row[3], nullptr), QK_OK);
    EXPECT_EQ(Focus(*device), row[3]);
    // Ending where the last announcement stood announces nothing.
    ASSERT_EQ(device->PTPManualFocusSet(row[3], &reached), QK_OK);
    // Past the last entry goes out as all ones.
    ASSERT_EQ(device->PTPManualFocusSet(-1, &reached), QK_OK);
    EXPECT_EQ(reached, -1);
    EXPECT_EQ(ArgsOf(*camera, PTP_QKM_MoveFocusTo).back(), std::vector<uint32_t>{pastLastOnWire});
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
        qksim::PtpReply reply = c.reply;
        camera->SetVendorHandler(PTP_QKM_MoveFocusTo, [reply](const PtpCommand&) { return reply; });
        LogMark mark;
        int reached = -99;
        EXPECT_EQ(device->PTPManualFocusSet(Row(0)[9], &reached), QK_ERROR);
        EXPECT_EQ(reached, -99);
        EXPECT_EQ(Focus(*device), start);
        EXPECT_EQ(mark.Count(c.line), 1);
        EXPECT_EQ(mark.Count("PTP_QKM_MoveFocusTo failed", "ERR"), 1);
    }
    EXPECT_TRUE(device->FocusHooks().empty());

    // Words beyond the two are the camera's business.
    camera->SetVendorHandler(PTP_QKM_MoveFocusTo, [](const PtpCommand&) { return WordsReply({7, 555, 9}); });
    int reached = -99;
    EXPECT_EQ(device->PTPManualFocusSet(555, &reached), QK_OK);
    EXPECT_EQ(reached, 555);
}

TEST_F(LensTest, FocusParamsAndUpdateFocusPos)
{
    Open("SX160");
    int first = -5, position = -5;
    ASSERT_EQ(device->PTPManualFocusGetParams(&first, &position), QK_OK);
    EXPECT_EQ(first, 0);
    EXPECT_EQ(position, Lens().FocusPosition());

    Lens().SetFocusPosition(777); // the ring turned by hand
    LogMark mark;
    EXPECT_EQ(device->UpdateFocusPos(), QK_OK);
    EXPECT_EQ(device->UpdateFocusPos(), QK_OK);
    EXPECT_EQ(mark.Count("focus changed from camera: 777", "INF"), 1);
    EXPECT_EQ(mark.Count("focus changed: 777", "INF"), 1);
    EXPECT_EQ(device->FocusHooks(), std::vector<int>{777});
    EXPECT_EQ(Focus(*device), 777);

    for (const qksim::PtpReply& bad : {Refused(), WordsReply({3})}) {
        camera->SetVendorHandler(PTP_QKM_GetFocusParams, [bad](const PtpCommand&) { return bad; });
        Lens().SetFocusPosition(900);
        LogMark failed;
        first = position = -5;
        EXPECT_EQ(device->PTPManualFocusGetParams(&first, &position), QK_ERROR);
        EXPECT_EQ(first, -5);
        EXPECT_EQ(position, -5);
        EXPECT_EQ(device->UpdateFocusPos(), QK_ERROR);
        EXPECT_EQ(failed.Count("PTP_QKM_GetFocusParams failed", "ERR"), 2);
        EXPECT_EQ(failed.Count("PTPManualFocusGetParams failed", "ERR"), 1);
        EXPECT_EQ(Focus(*device), 777);
    }
    EXPECT_EQ(device->FocusHooks(), std::vector<int>{777});
}

TEST_F(LensTest, UpdateFocusPosWithoutManualFocusAsksNothing)
{
    {
        SCOPED_TRACE("A1400");
        Open("A1400");
        LogMark mark;
        EXPECT_EQ(device->UpdateFocusPos(), QK_UNKNOWN_PROPERTY);
        EXPECT_TRUE(camera->ReceivedCommands().empty());
        EXPECT_EQ(mark.Since(), "");
        TearDown();
    }
    {
        SCOPED_TRACE("SX160 whose camera offers no manual focus");
        Open("SX160");
        Settings().SetFlagWord(0x5);
        ASSERT_EQ(device->LoadCameraFlags(), QK_OK);
        camera->ClearRecords();
        EXPECT_EQ(device->UpdateFocusPos(), QK_UNKNOWN_PROPERTY);
        EXPECT_TRUE(camera->ReceivedCommands().empty());
    }
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

TEST_F(FocusShiftTest, MovingLensNeedsOneAttempt)
{
    const std::vector<int32_t> row = Row(0);
    Start(row[10]);
    LogMark mark;
    ASSERT_EQ(device->FocusShift(1), QK_OK);
    EXPECT_EQ(ArgsOf(*camera, PTP_QKM_MoveFocusTo), Targets({row[11]}));
    EXPECT_EQ(Focus(*device), row[11]);
    ASSERT_EQ(device->FocusShift(-3), QK_OK);
    EXPECT_EQ(ArgsOf(*camera, PTP_QKM_MoveFocusTo), Targets({row[11], row[8]}));
    EXPECT_EQ(device->FocusHooks(), (std::vector<int>{row[11], row[8]}));
    EXPECT_EQ(mark.Count("change shift"), 0);
    EXPECT_EQ(mark.Count("exit by retry counter"), 0);
    EXPECT_EQ(device->guardCalls, 2);
}

TEST_F(FocusShiftTest, StuckLensGetsNineWideningAttempts)
{
    const std::vector<int32_t> row = Row(0);
    Start(row[10]);
    Lens().SetFocusStuck(true);
    LogMark mark;
    ASSERT_EQ(device->FocusShift(1), QK_OK);
    EXPECT_EQ(ArgsOf(*camera, PTP_QKM_MoveFocusTo),
              Targets({row[11], row[12], row[13], row[14], row[15], row[16], row[17], row[18], row[19]}));
    for (int shift = 2; shift <= 10; ++shift) {
        const std::string line = "Focus shift, change shift: " + std::to_string(shift) + " (" +
                                 std::to_string(row[static_cast<size_t>(9 + shift)]) + " " +
                                 std::to_string(row[10]) + ")";
        EXPECT_EQ(mark.Count(line, "DEB"), 1) << line;
    }
    EXPECT_EQ(mark.Count("Focus shift, change shift:"), 9);
    EXPECT_EQ(mark.Count("FocusShift: exit by retry counter", "DEB"), 1);
    EXPECT_EQ(Focus(*device), row[10]);
    EXPECT_TRUE(device->FocusHooks().empty());

    // Downwards the same, each attempt measured from the start.
    camera->ClearRecords();
    ASSERT_EQ(device->FocusShift(-1), QK_OK);
    EXPECT_EQ(ArgsOf(*camera, PTP_QKM_MoveFocusTo),
              Targets({row[9], row[8], row[7], row[6], row[5], row[4], row[3], row[2], row[1]}));
}

TEST_F(FocusShiftTest, LastEntryCommandsPastTheEndAndStops)
{
    const std::vector<int32_t> row = Row(0);
    Start(row.back());
    Lens().SetFocusStuck(true); // whatever the camera says
    LogMark mark;
    ASSERT_EQ(device->FocusShift(1), QK_OK);
    EXPECT_EQ(ArgsOf(*camera, PTP_QKM_MoveFocusTo), std::vector<std::vector<uint32_t>>{{pastLastOnWire}});
    EXPECT_EQ(mark.Count("change shift"), 0);

    // A lens that does go there, then back one place.
    Lens().SetFocusStuck(false);
    camera->ClearRecords();
    ASSERT_EQ(device->FocusShift(1), QK_OK);
    EXPECT_EQ(Focus(*device), -1);
    ASSERT_EQ(device->FocusShift(-1), QK_OK);
    EXPECT_EQ(ArgsOf(*camera, PTP_QKM_MoveFocusTo), Targets({-1, row.back()}));
    EXPECT_EQ(Focus(*device), row.back());

    // Stuck past the end: each attempt reaches one place further back.
    ASSERT_EQ(device->PTPManualFocusSet(-1, nullptr), QK_OK);
    Lens().SetFocusStuck(true);
    camera->ClearRecords();
    ASSERT_EQ(device->FocusShift(-1), QK_OK);
    const size_t n = row.size();
    EXPECT_EQ(ArgsOf(*camera, PTP_QKM_MoveFocusTo),
              Targets({row[n - 1], row[n - 2], row[n - 3], row[n - 4], row[n - 5], row[n - 6], row[n - 7],
                       row[n - 8], row[n - 9]}));
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
    EXPECT_EQ(mark.Count("exit by retry counter"), 0);
    EXPECT_EQ(Focus(*device), row[10]);
}

TEST_F(FocusShiftTest, GuardAndZeroShiftSendNothing)
{
    Start(Row(0)[10]);
    device->guardResult = QK_NOT_READY;
    EXPECT_EQ(device->FocusShift(1), QK_NOT_READY);
    EXPECT_EQ(device->guardCalls, 1);
    device->guardResult = QK_OK;
    EXPECT_EQ(device->FocusShift(0), QK_OK);
    EXPECT_EQ(device->guardCalls, 1);
    EXPECT_TRUE(camera->ReceivedCommands().empty());
}

TEST_F(FocusShiftTest, ShiftUsesTheRowOfTheCurrentZoom)
{
    Settings().SetZoomPosition(60);
    ASSERT_EQ(device->UpdateZoom(), QK_OK);
    const std::vector<int32_t> row = Row(60);
    ASSERT_NE(row, Row(0));
    ASSERT_EQ(device->PTPManualFocusSet(row[20], nullptr), QK_OK);
    camera->ClearRecords();
    ASSERT_EQ(device->FocusShift(2), QK_OK);
    EXPECT_EQ(ArgsOf(*camera, PTP_QKM_MoveFocusTo), Targets({row[22]}));
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

} // namespace
