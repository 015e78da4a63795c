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

TEST(FocusTableShift, PlacesAwayInTheRowOfTheZoom)
{
    std::shared_ptr<LensCamera> model = WithTable({});
    for (const CameraConfig& record : cameraDB)
        if (record.name == L"SX150")
            model->Record() = record;
    ASSERT_EQ(model->Record().focusTable.size(), 126u);
    enum { Four, Rows, Wide, Edges, Model };
    const std::shared_ptr<LensCamera> devices[] = {
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
    std::shared_ptr<LensCamera> none = WithTable({});
    for (int zoom : {0, 5, -1})
        for (int focus : {0, -1, 123})
            for (int shift : {-3, 0, 1})
                EXPECT_EQ(none->GetFocusWithShift(zoom, focus, shift), 0);
}

} // namespace
