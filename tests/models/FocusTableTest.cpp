// The focus tables are rebuilt from a few known figures of the cameras'
// tables; these are the figures, and the shape that the focus code relies on.
// Which models have one, and how many rows, is in ModelTablesTest.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "tests/common/ModelRecord.h"

namespace {

using qktest::ModelNamed;

// Strictly ascending and positive, as the focus search assumes; fine steps
// first, gaps that open up toward the far end, and the far end reaching
// further as the lens zooms in.
TEST(FocusTable, KnownFiguresAndShapeOfEveryRow)
{
    struct Figures {
        const wchar_t* model;
        size_t entries, shortest, longest;
        int minFirst, maxFirst, minLast, maxLast;
    };
    const Figures figures[] = {
        {L"SX150", 24993, 39, 492, 69, 1081, 3722, 487805},
        {L"SX160", 78814, 149, 2086, 68, 971, 6437, 1694915},
        {L"SX170", 79415, 150, 1938, 68, 970, 6437, 1818182},
    };
    for (const Figures& f : figures) {
        const auto& table = ModelNamed(f.model).focusTable;
        size_t entries = 0, shortest = SIZE_MAX, longest = 0;
        int minFirst = INT32_MAX, maxFirst = 0, minLast = INT32_MAX, maxLast = 0;
        for (size_t z = 0; z < table.size(); ++z) {
            SCOPED_TRACE(std::string(f.model, f.model + 5) + " row " + std::to_string(z));
            const std::vector<int32_t>& row = table[z];
            ASSERT_GE(row.size(), 6u);
            entries += row.size();
            shortest = std::min(shortest, row.size());
            longest = std::max(longest, row.size());
            minFirst = std::min(minFirst, row.front());
            maxFirst = std::max(maxFirst, row.front());
            minLast = std::min(minLast, row.back());
            maxLast = std::max(maxLast, row.back());

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
        SCOPED_TRACE(std::string(f.model, f.model + 5));
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
    struct Telling {
        const wchar_t* model;
        size_t row, entries;
        std::vector<int> first, last;
    };
    const Telling telling[] = {
        {L"SX150", 0, 147, {69, 70, 71, 72, 73}, {1081, 1248, 1489, 1855, 2450, 3722}},
        {L"SX150", 125, 492, {1081, 1082, 1083, 1084, 1085}, {97371, 116009, 143266, 187266, 270270, 487805}},
        {L"SX160", 0, 204, {68, 69, 70, 71, 72}, {1935, 2269, 2800, 3350, 4168, 6437}},
        {L"SX160", 60, 188, {969, 974, 979, 985, 990}, {27894, 32960, 40290, 51813, 72516, 120919}},
        {L"SX170", 126, 1889, {682, 683, 684, 685, 686}, {421941, 500000, 609756, 787402, 1098901, 1818182}},
    };
    for (const Telling& t : telling) {
        SCOPED_TRACE(std::string(t.model, t.model + 5) + " row " + std::to_string(t.row));
        const auto& table = ModelNamed(t.model).focusTable;
        ASSERT_LT(t.row, table.size());
        const std::vector<int32_t>& row = table[t.row];
        ASSERT_EQ(row.size(), t.entries);
        EXPECT_EQ(std::vector<int>(row.begin(), row.begin() + t.first.size()), t.first);
        EXPECT_EQ(std::vector<int>(row.end() - t.last.size(), row.end()), t.last);
    }
}

} // namespace
