// Looking up a focus position a number of table places away: pure table
// work, so the records are set up by hand and no camera is needed.

#include <climits>

#include "tests/lens/LensFixture.h"

namespace {

using qktest::LensCamera;

std::shared_ptr<LensCamera> WithTable(std::vector<std::vector<int32_t>> table)
{
    auto device = std::make_shared<LensCamera>(nullptr, L"none");
    device->Record().focusTable = std::move(table);
    return device;
}

TEST(FocusTableShift, RowOfFourEntries)
{
    auto device = WithTable({{100, 200, 400, 800}});
    struct Case {
        int focus, shift, expected;
    } cases[] = {
        {200, 1, 400},  {250, 1, 400}, {300, 1, 800}, {50, 1, 200},  {50, -1, 100},   {800, 1, -1},
        {900, 0, 800},  {900, 1, -1},  {-1, 1, -1},   {-1, -1, 800}, {-1, -2, 400},   {200, -9, 100},
        // Around the table: the entries themselves, a tie below and one step short of it.
        {100, 0, 100},  {800, 0, 800}, {149, 0, 100}, {150, 0, 200}, {-1, 0, -1},     {-1, -4, 100},
        {-1, -9, 100},  {200, 2, 800}, {200, 3, -1},
    };
    for (const Case& c : cases)
        EXPECT_EQ(device->GetFocusWithShift(0, c.focus, c.shift), c.expected)
            << "focus " << c.focus << " shift " << c.shift;
}

TEST(FocusTableShift, ZoomBeyondEitherEndUsesTheFirstOrLastRow)
{
    auto device = WithTable({{100, 200, 400, 800}, {10, 20}, {1000, 3000}});
    EXPECT_EQ(device->GetFocusWithShift(-5, 200, 1), 400);
    EXPECT_EQ(device->GetFocusWithShift(INT_MIN, 200, 0), 200);
    EXPECT_EQ(device->GetFocusWithShift(1, 200, 0), 20);
    EXPECT_EQ(device->GetFocusWithShift(7, 2000, 0), 3000);
    EXPECT_EQ(device->GetFocusWithShift(INT_MAX, -1, -1), 3000);
}

TEST(FocusTableShift, EmptyTableGivesZero)
{
    auto device = WithTable({});
    for (int zoom : {0, 5, -1})
        for (int focus : {0, -1, 123})
            for (int shift : {-3, 0, 1})
                EXPECT_EQ(device->GetFocusWithShift(zoom, focus, shift), 0);
}

TEST(FocusTableShift, ExtremeArgumentsStayInTheRow)
{
    auto device = WithTable({{100, 200, 400, 800}});
    EXPECT_EQ(device->GetFocusWithShift(0, 200, INT_MAX), -1);
    EXPECT_EQ(device->GetFocusWithShift(0, 200, INT_MIN), 100);
    EXPECT_EQ(device->GetFocusWithShift(0, -1, INT_MIN), 100);
    EXPECT_EQ(device->GetFocusWithShift(0, INT_MIN, 0), 100);
    EXPECT_EQ(device->GetFocusWithShift(0, INT_MAX, 0), 800);
    EXPECT_EQ(device->GetFocusWithShift(0, -7, 1), 200);

    auto wide = WithTable({{INT_MIN + 1, 0, INT_MAX}});
    EXPECT_EQ(wide->GetFocusWithShift(0, INT_MAX - 1, 0), INT_MAX);
    EXPECT_EQ(wide->GetFocusWithShift(0, -2, 0), 0);
    // Distances that do not fit in an int.
    auto edges = WithTable({{INT_MIN + 1, INT_MAX}});
    EXPECT_EQ(edges->GetFocusWithShift(0, 5, 0), INT_MAX);
    EXPECT_EQ(edges->GetFocusWithShift(0, -5, 0), INT_MIN + 1);
}

TEST(FocusTableShift, ModelTableAtItsEnds)
{
    auto device = WithTable({});
    for (const CameraConfig& record : cameraDB)
        if (record.name == L"SX150")
            device->Record() = record;
    ASSERT_EQ(device->Record().focusTable.size(), 126u);
    // Row 0 begins 69, 70, 71 and ends 1855, 2450, 3722.
    EXPECT_EQ(device->GetFocusWithShift(0, 69, 1), 70);
    EXPECT_EQ(device->GetFocusWithShift(0, 69, -1), 69);
    EXPECT_EQ(device->GetFocusWithShift(0, 3722, -2), 1855);
    EXPECT_EQ(device->GetFocusWithShift(0, 3722, 1), -1);
    EXPECT_EQ(device->GetFocusWithShift(0, -1, -3), 1855);
    EXPECT_EQ(device->GetFocusWithShift(0, 3000, 0), 2450);
    EXPECT_EQ(device->GetFocusWithShift(125, 0, 0), 1081);
}

} // namespace
