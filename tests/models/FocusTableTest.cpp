// The focus tables are rebuilt from a few known figures of the cameras'
// tables; these are the figures, and the shape that the focus code relies on.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cwchar>
#include <string>
#include <vector>

#include "models/CameraDB.h"

namespace {

const CameraConfig& model(const std::wstring& name)
{
    for (const CameraConfig& c : cameraDB) {
        if (c.name == name)
            return c;
    }
    static const CameraConfig none;
    ADD_FAILURE() << "no record";
    return none;
}

struct Figures {
    const wchar_t* model;
    size_t rows;
    size_t entries;
    size_t shortest, longest;
    int minFirst, maxFirst;
    int minLast, maxLast;
};

const Figures figures[] = {
    {L"SX150", 126, 24993, 39, 492, 69, 1081, 3722, 487805},
    {L"SX160", 126, 78814, 149, 2086, 68, 971, 6437, 1694915},
    {L"SX170", 127, 79415, 150, 1938, 68, 970, 6437, 1818182},
};

struct Telling {
    const wchar_t* model;
    size_t row;
    size_t entries;
    std::vector<int> first;
    std::vector<int> last;
};

const Telling telling[] = {
    {L"SX150", 0, 147, {69, 70, 71, 72, 73}, {1081, 1248, 1489, 1855, 2450, 3722}},
    {L"SX150", 125, 492, {1081, 1082, 1083, 1084, 1085}, {97371, 116009, 143266, 187266, 270270, 487805}},
    {L"SX160", 0, 204, {68, 69, 70, 71, 72}, {1935, 2269, 2800, 3350, 4168, 6437}},
    {L"SX160", 60, 188, {969, 974, 979, 985, 990}, {27894, 32960, 40290, 51813, 72516, 120919}},
    {L"SX170", 126, 1889, {682, 683, 684, 685, 686}, {421941, 500000, 609756, 787402, 1098901, 1818182}},
};

TEST(FocusTable, OnlyThreeModelsHaveOne)
{
    for (const CameraConfig& c : cameraDB) {
        bool has = c.name == L"SX150" || c.name == L"SX160" || c.name == L"SX170";
        EXPECT_EQ(c.focusTable.empty(), !has) << std::string(c.name.begin(), c.name.end());
        if (has) {
            EXPECT_EQ(c.focusTable.size(), static_cast<size_t>(c.maxZoom) + 1);
        }
    }
}

TEST(FocusTable, KnownFigures)
{
    for (const Figures& f : figures) {
        SCOPED_TRACE(std::string(f.model, f.model + wcslen(f.model)));
        const auto& table = model(f.model).focusTable;
        ASSERT_EQ(table.size(), f.rows);
        size_t entries = 0, shortest = SIZE_MAX, longest = 0;
        int minFirst = INT32_MAX, maxFirst = 0, minLast = INT32_MAX, maxLast = 0;
        for (const auto& row : table) {
            ASSERT_FALSE(row.empty());
            entries += row.size();
            shortest = std::min(shortest, row.size());
            longest = std::max(longest, row.size());
            minFirst = std::min(minFirst, row.front());
            maxFirst = std::max(maxFirst, row.front());
            minLast = std::min(minLast, row.back());
            maxLast = std::max(maxLast, row.back());
        }
        EXPECT_EQ(entries, f.entries);
        EXPECT_EQ(shortest, f.shortest);
        EXPECT_EQ(longest, f.longest);
        EXPECT_EQ(minFirst, f.minFirst);
        EXPECT_EQ(maxFirst, f.maxFirst);
        EXPECT_EQ(minLast, f.minLast);
        EXPECT_EQ(maxLast, f.maxLast);
    }
}

TEST(FocusTable, TellingRows)
{
    for (const Telling& t : telling) {
        SCOPED_TRACE(std::string(t.model, t.model + wcslen(t.model)) + " row " + std::to_string(t.row));
        const auto& table = model(t.model).focusTable;
        ASSERT_LT(t.row, table.size());
        const std::vector<int32_t>& row = table[t.row];
        ASSERT_EQ(row.size(), t.entries);
        EXPECT_EQ(std::vector<int>(row.begin(), row.begin() + t.first.size()), t.first);
        EXPECT_EQ(std::vector<int>(row.end() - t.last.size(), row.end()), t.last);
    }
}

// Strictly ascending and positive, as the focus search assumes; fine steps
// first, gaps that open up toward the far end, and the far end reaching
// further as the lens zooms in.
TEST(FocusTable, ShapeOfEveryRow)
{
    for (const Figures& f : figures) {
        const auto& table = model(f.model).focusTable;
        for (size_t z = 0; z < table.size(); ++z) {
            SCOPED_TRACE(std::string(f.model, f.model + wcslen(f.model)) + " row " + std::to_string(z));
            const std::vector<int32_t>& row = table[z];
            ASSERT_GE(row.size(), 6u);
            EXPECT_GT(row.front(), 0);
            for (size_t i = 1; i < 5; ++i)
                EXPECT_LE(row[i] - row[i - 1], 6) << "entry " << i;
            for (size_t i = 1; i < row.size(); ++i) {
                ASSERT_GT(row[i], row[i - 1]) << "entry " << i;
                if (i >= 2) {
                    // Rounding may take one off a gap, never more.
                    ASSERT_GE(row[i] - row[i - 1], row[i - 1] - row[i - 2] - 1) << "entry " << i;
                }
            }
            EXPECT_GT(row[row.size() - 1] - row[row.size() - 2], 4 * (row[1] - row[0]));
            if (z > 0) {
                EXPECT_GE(row.back(), table[z - 1].back());
            }
        }
    }
}

} // namespace
