// SPDX-License-Identifier: MIT
// The twenty records against an independent copy of their key figures, focus
// tables included: a typo in a data file shows up here.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/common/ModelRecord.h"

namespace {

// Red Eye Mode's and Exposure Compensation's "kind subId1 [subId2]" where
// present; Flash Power's two sub ids; case numbers by property number 0..24
// without 12, '.' where the model lacks the property.
struct Row {
    const wchar_t* name;
    int maxZoom;
    const char* constraints;  // PropConstraint numbers
    size_t focusRows, values;
    const char* redEye;
    const char* exposureComp;
    int flashAdjust, flashOutput;
    const char* cases;
};

const Row rows[] = {
    {L"A1400", 63, "0", 0, 58, "1 216", "", 121, 141,
     "49 221 167 157 271 143 219 149 . . . . -1 6 . . . . . . . . -1 ."},
    {L"A2200", 6, "0 3", 0, 100, "1 217", "", 121, 141,
     "49 222 57 157 272 143 220 149 . . . 127 -1 6 188 59 229 55 . . . . -1 ."},
    {L"A4000", 126, "0", 0, 72, "1 217", "", 121, 141,
     "49 222 57 157 272 143 220 149 . . . 127 -1 6 . . . . . . . . -1 ."},
    {L"A495", 6, "0", 0, 72, "1 215", "1 209", 121, 141,
     "49 220 57 155 270 143 218 149 . . 107 . -1 6 . . . . . . . . -1 ."},
    {L"A800", 6, "0", 0, 62, "1 217", "1 211", 121, 141,
     "49 222 57 157 272 143 220 149 . . 107 . -1 6 . . . . . . . . -1 ."},
    {L"A810", 63, "0", 0, 74, "2 217 5", "", 121, 141,
     "49 222 57 157 272 143 220 149 . . . 127 -1 6 . . . . . . . . -1 ."},
    {L"G15", 120, "0 1 2 3", 0, 231, "1 217", "1 211", 121, 141,
     "49 222 57 157 272 143 220 149 26 268 107 127 -1 6 188 59 229 55 179 178 177 180 -1 ."},
    {L"IXUS145", 100, "0", 0, 82, "1 216", "1 210", 121, 141,
     "49 221 57 157 271 143 219 149 . . 107 127 -1 6 . . . . . . . . -1 ."},
    {L"IXUS160", 100, "0", 0, 82, "1 216", "1 210", 121, 141,
     "49 221 57 157 271 143 219 149 . . 107 127 -1 6 . . . . . . . . -1 ."},
    {L"IXUS170", 100, "0", 0, 81, "1 216", "1 210", 121, 141,
     "49 221 57 157 271 143 219 149 . . 107 127 -1 6 . . . . . . . . -1 ."},
    {L"SX130", 125, "0 1 2", 0, 145, "1 217", "0", 121, 141,
     "49 222 57 157 272 143 220 149 26 268 211 127 -1 6 . . . . . . . . -1 ."},
    {L"SX150", 125, "0 1 2 3", 126, 197, "1 217", "1 211", 121, 141,
     "49 222 57 157 272 143 220 149 26 268 107 127 -1 6 188 59 229 55 179 178 177 180 -1 -1"},
    {L"SX160", 125, "0 1 2 3", 126, 192, "1 217", "1 211", 121, 141,
     "49 222 57 157 272 143 220 149 26 268 107 127 -1 6 188 59 229 55 179 178 177 180 -1 -1"},
    {L"SX170", 126, "0 1 2 3", 127, 191, "1 216", "1 210", 121, 141,
     "49 221 57 157 271 143 219 149 26 267 107 127 -1 6 187 59 228 55 178 177 176 179 -1 -1"},
    {L"SX40HS", 200, "0 1 2", 0, 152, "1 217", "1 211", 121, 141,
     "49 222 57 157 272 121 220 149 26 268 107 127 -1 6 . . . . . . . . -1 ."},
    {L"SX400IS", 126, "0", 0, 67, "1 216", "1 210", 121, 141,
     "49 221 57 157 271 143 219 149 . . 107 . -1 6 . . . . . . . . -1 ."},
    {L"SX410IS", 121, "0 3", 0, 123, "0", "1 210", 121, 141,
     "49 221 57 157 271 143 216 149 . . 107 127 . 6 187 59 228 55 178 177 176 179 -1 ."},
    {L"SX500", 125, "0 1 2 3", 0, 188, "1 217", "1 211", 121, 141,
     "49 222 57 157 272 143 220 149 26 268 107 127 -1 6 188 59 229 55 179 178 177 180 -1 ."},
    {L"SX510", 126, "0 1 2 3", 0, 191, "1 216", "1 210", 121, 141,
     "49 221 57 157 271 143 219 149 26 267 107 127 -1 6 187 59 228 55 178 177 176 179 -1 ."},
    {L"SX520", 194, "0 1 2 3", 0, 189, "1 222", "1 110", 124, 144,
     "50 224 59 160 276 146 219 152 26 271 213 130 -1 6 190 61 231 57 181 180 179 182 -1 ."},
};

const int propNumbers[] = {0,  1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11,
                           13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24};

std::vector<std::string> words(const char* s)
{
    std::istringstream in(s);
    std::vector<std::string> out;
    for (std::string w; in >> w;)
        out.push_back(w);
    return out;
}

// "kind subId1 subId2" as the record holds it.
std::string kindOf(const ProperyConfig& p)
{
    std::string s = std::to_string(p.writeKind);
    if (p.writeKind == WriteKind_SubPropery || p.writeKind == WriteKind_SubPropery2)
        s += " " + std::to_string(p.subId1);
    if (p.writeKind == WriteKind_SubPropery2)
        s += " " + std::to_string(p.subId2);
    return s;
}

// Every record in recognition order; exactly the listed properties, so none
// numbered 12 and none beyond, with their case numbers and write kinds.
TEST(ModelTables, EveryRecordAgainstItsRow)
{
    ASSERT_EQ(cameraDB.size(), std::size(rows));
    for (size_t i = 0; i < cameraDB.size(); ++i) {
        const Row& e = rows[i];
        const CameraConfig& c = cameraDB[i];
        SCOPED_TRACE(qktest::ModelName(c));
        EXPECT_EQ(c.name, e.name);
        EXPECT_EQ(c.maxZoom, e.maxZoom);
        std::set<PropConstraint> constraints;
        for (const std::string& n : words(e.constraints))
            constraints.insert(static_cast<PropConstraint>(std::stoi(n)));
        EXPECT_EQ(c.constraints, constraints);
        EXPECT_EQ(c.focusTable.size(), e.focusRows);
        size_t values = 0, present = 0;
        for (const auto& p : c.properties)
            values += p.second.values.size();
        EXPECT_EQ(values, e.values);

        std::vector<std::string> cells = words(e.cases);
        ASSERT_EQ(cells.size(), std::size(propNumbers));
        for (size_t k = 0; k < cells.size(); ++k) {
            SCOPED_TRACE("property " + std::to_string(propNumbers[k]));
            auto it = c.properties.find(static_cast<QKProp>(propNumbers[k]));
            if (cells[k] == ".") {
                EXPECT_EQ(it, c.properties.end());
                continue;
            }
            ++present;
            ASSERT_NE(it, c.properties.end());
            const ProperyConfig& p = it->second;
            EXPECT_EQ(p.cameraId, std::stoi(cells[k]));
            switch (it->first) {
            case QKProp::ShootingMode: EXPECT_EQ(p.writeKind, WriteKind_CaptureMode); break;
            case QKProp::ManualFocusMode: EXPECT_EQ(p.writeKind, WriteKind_ManualFocus); break;
            case QKProp::RedEyeMode: EXPECT_EQ(kindOf(p), e.redEye); break;
            case QKProp::ExposureComp: EXPECT_EQ(kindOf(p), e.exposureComp); break;
            case QKProp::FlashPower:
                EXPECT_EQ(p.writeKind, WriteKind_FlashPower);
                EXPECT_EQ(p.subId1, e.flashAdjust);
                EXPECT_EQ(p.subId2, e.flashOutput);
                break;
            default: EXPECT_EQ(p.writeKind, WriteKind_Plain); break;
            }
            // Ids that a kind doesn't use stay at -1, so nobody writes case 0
            // by mistake.
            bool usesSub2 = p.writeKind == WriteKind_SubPropery2 || p.writeKind == WriteKind_FlashPower;
            if (!usesSub2 && p.writeKind != WriteKind_SubPropery) {
                EXPECT_EQ(p.subId1, -1);
            }
            if (!usesSub2) {
                EXPECT_EQ(p.subId2, -1);
            }
        }
        EXPECT_EQ(c.properties.size(), present);
    }
}

TEST(FindCameraConfig, MissLeavesTheOutputAlone)
{
    CameraConfig found;
    found.name = L"before";
    found.maxZoom = 7;
    EXPECT_FALSE(findCameraConfig(&found, L"Digital Camera SX40"));    // no "HS"
    EXPECT_FALSE(findCameraConfig(&found, L"Digital Camera sx160"));   // case matters
    EXPECT_FALSE(findCameraConfig(&found, L""));
    EXPECT_EQ(found.name, L"before");
    EXPECT_EQ(found.maxZoom, 7);
    EXPECT_TRUE(found.properties.empty());
}

// Recognition takes the first contained name, so no name may occur in the
// product string of a model listed after it (SX40HS after SX400IS, say).
TEST(FindCameraConfig, EveryModelIsRecognisedAsItself)
{
    for (const CameraConfig& c : cameraDB) {
        CameraConfig found;
        for (const std::wstring& product : {c.name, L"Digital Camera " + c.name, c.name + L" IS"}) {
            ASSERT_TRUE(findCameraConfig(&found, product));
            EXPECT_EQ(found.name, c.name);
            EXPECT_EQ(found.maxZoom, c.maxZoom);
            EXPECT_EQ(found.properties.size(), c.properties.size());
        }
    }
}

// The focus tables are rebuilt from a few known figures of the cameras'
// tables; these are the figures, and the shape that the focus code relies on.
// Which models have one, and how many rows, is in the table of records above.
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
