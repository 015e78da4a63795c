// SPDX-License-Identifier: MIT
// The generator that turns model data files into records: what it accepts,
// what it rejects before a bad record reaches the engine, and its rules.
#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "models/gen/ModelData.h"
#include "tests/common/ModelRecord.h"

namespace {

using modelgen::FocusOutline;
using modelgen::ModelData;
using modelgen::ParseModel;
using modelgen::SynthesiseFocusTable;
using qktest::ValuePairs;

const std::string head = "name X1\nmaxZoom 3\n";

TEST(ModelParse, ReadsARecord)
{
    const std::string text = head +
                             "constraints JpegQuality CustomColor  # comment\n"
                             "\n"
                             "property RedEyeMode 220 SubPropery2 217 5\n"
                             "    0=1 1=0\n"
                             "property ImageSize 222\n"
                             "    0=0:4000x3000\n"
                             "    4=4:640x480\n"
                             "property FlashPower -1 FlashPower 121 141\n"
                             "\t0=0 1=1 2=2 3=3\n";
    ModelData m;
    std::string error;
    ASSERT_TRUE(ParseModel(text, &m, &error)) << error;
    EXPECT_EQ(m.name, L"X1");
    EXPECT_EQ(m.maxZoom, 3);
    EXPECT_EQ(m.constraints, (std::vector<PropConstraint>{Constraint_JpegQuality, Constraint_CustomColor}));
    ASSERT_EQ(m.properties.size(), 3u);

    // Property, case, write kind and sub ids, then the values.
    const auto shown = [&](size_t i) {
        const ProperyConfig& p = m.properties[i].config;
        return std::to_string(static_cast<int>(m.properties[i].property)) + " " + std::to_string(p.cameraId) + " " +
               std::to_string(p.writeKind) + " " + std::to_string(p.subId1) + " " + std::to_string(p.subId2) + ": " +
               ValuePairs(p);
    };
    EXPECT_EQ(shown(0), "6 220 " + std::to_string(WriteKind_SubPropery2) + " 217 5: 0=1 1=0");
    EXPECT_EQ(shown(1), "1 222 " + std::to_string(WriteKind_Plain) + " -1 -1: 0=0 4=4");
    EXPECT_EQ(shown(2), "23 -1 " + std::to_string(WriteKind_FlashPower) + " 121 141: 0=0 1=1 2=2 3=3");
    const ProperyValConfig& small = m.properties[1].config.values.at(1);
    EXPECT_TRUE(small.hasExtendedInfo);
    EXPECT_EQ(small.extendedInfo.width, 640);
    EXPECT_EQ(small.extendedInfo.height, 480);
    EXPECT_FALSE(m.hasFocus);
}

TEST(ModelParse, RejectsBadData)
{
    struct Bad {
        std::string text;
        const char* why;
    };
    const Bad bad[] = {
        {"maxZoom 3\nproperty FlashMode 1\n    0=0\n", "no name"},
        {"name X\nproperty FlashMode 1\n    0=0\n", "no maxZoom"},
        {head + "    0=0\n", "line 3: indented line outside"},
        {head + "property Flash 1\n    0=0\n", "line 3: unknown property Flash"},
        {head + "property FlashMode 1\n    0=0\nproperty FlashMode 2\n    0=0\n",
         "line 5: property FlashMode given twice"},
        {head + "property FlashMode 1\n", "line 3: no values"},
        {head + "property FlashMode 1\n    0=0 1=0\n", "line 3: raw value 0 given twice"},
        {head + "property FlashMode 1\n    0=0 0=1\n", "line 3: value 0 given twice"},
        {head + "property FlashMode 1\n    3=3\n", "value 3 is not in the catalogue"},
        {head + "property Contrast 1\n    200=0\n", "value 200 is not in the catalogue"},
        {head + "property FlashMode 1\n    0=x\n", "line 4: bad value 0=x"},
        {head + "property FlashMode 1\n    0 1\n", "line 4: expected SDK=RAW"},
        {head + "property FlashMode 1\n    0=4294967296\n", "bad value"},
        {head + "property ImageSize 1\n    0=0\n", "every Image Size value"},
        {head + "property ImageSize 1\n    0=0:640\n", "bad size"},
        {head + "property FlashMode 1\n    0=0:640x480\n", "every Image Size value"},
        {head + "property FlashPower -1 FlashPower 1 2\n    1=2\n", "raw must equal value"},
        {head + "property BatteryLevel -1\n    4=5\n", "raw must equal value"},
        {head + "property RedEyeMode 220 SubPropery\n    0=1\n", "SubPropery takes 1 sub ids"},
        {head + "property RedEyeMode 220 SubPropery 1 2\n    0=1\n", "SubPropery takes 1 sub ids"},
        {head + "property RedEyeMode 220 Sub 1\n    0=1\n", "unknown write kind Sub"},
        {head + "property FlashMode 143 5\n    0=0\n", "unknown write kind 5"},
        {head + "constraints Iso\n", "unknown constraint Iso"},
        {head + "zoom 3\n", "unknown keyword zoom"},
        {head + "property Tv 1\n    walk from=150000 to=7 raw=0 step=32\n", "from/to not found"},
        {head + "property Tv 1\n    walk from=1 to=150000 raw=0 step=32\n", "from/to not found"},
        {head + "property Tv 1\n    walk from=150000 to=10000 raw=0\n", "walk needs"},
        {head + "property Tv 1\n    walk from=150000 to=10000 raw=0 step=32 omit=2\n",
         "omitted value not within"},
        {head + "property Tv 1\n    walk from=150000 to=10000 raw=0 step=32 jump=2\n",
         "walk has no key jump"},
        {head + "focus rows=3 entries=9\n", "focus table needs maxZoom + 1 rows"},
        {head + "focus rows=4\n", "focus takes rows=N entries=N"},
        {head + "focus rows=4 entries=9\n    knot 2 3 1 9\n    knot 1 3 1 9\n", "ascending row order"},
        {head + "focus rows=4 entries=9\n    head 0 1 2\n    head 0 1 2\n", "head of row 0 given twice"},
    };
    for (const Bad& b : bad) {
        ModelData m;
        std::string error;
        EXPECT_FALSE(ParseModel(b.text, &m, &error)) << b.text;
        EXPECT_NE(error.find(b.why), std::string::npos) << "got: " << error << "\nfor:\n" << b.text;
    }
}

TEST(ModelParse, WalkWrapsAndOmits)
{
    ModelData m;
    std::string error;
    ASSERT_TRUE(ParseModel(head + "property Tv 268\n"
                                  "    walk from=150000 to=8000 raw=65152 step=32 wrap=65536 omit=40000\n"
                                  "property ExposureComp 107\n"
                                  "    walk from=500 to=0 raw=-128 step=32\n",
                           &m, &error))
        << error;
    ASSERT_EQ(m.properties.size(), 2u);
    // No gap in the raw values where 40000 was left out; wrapped at the end.
    EXPECT_EQ(ValuePairs(m.properties[0].config),
              "150000=65152 130000=65184 100000=65216 80000=65248 60000=65280 50000=65312 32000=65344 "
              "25000=65376 20000=65408 16000=65440 13000=65472 10000=65504 8000=0");
    EXPECT_EQ(ValuePairs(m.properties[1].config), "500=-128 501=-96 502=-64 0=-32");
}

FocusOutline outline(int rows, long entries)
{
    FocusOutline s;
    s.rows = rows;
    s.entries = entries;
    return s;
}

TEST(FocusSynthesis, KnotsHoldAndTotalIsExact)
{
    FocusOutline s = outline(11, 400);
    s.knots = {{0, 30, 10, 1000}, {5, 20, 40, 5000}, {10, 60, 30, 90000}};
    std::vector<std::vector<int32_t>> table;
    std::string error;
    ASSERT_TRUE(SynthesiseFocusTable(s, &table, &error)) << error;
    ASSERT_EQ(table.size(), 11u);
    size_t entries = 0;
    for (const auto& row : table) {
        entries += row.size();
        EXPECT_GE(row.size(), 20u);
        EXPECT_LE(row.size(), 60u);
    }
    EXPECT_EQ(entries, 400u);
    for (const modelgen::FocusKnot& k : s.knots) {
        const std::vector<int32_t>& row = table[k.row];
        EXPECT_EQ(static_cast<int>(row.size()), k.length);
        EXPECT_EQ(row.front(), k.first);
        EXPECT_EQ(row.back(), k.last);
        EXPECT_EQ(row[1], k.first + 1);
    }
    // The last entry grows geometrically between knots: two fifths of the
    // way from 1000 to 5000 is near 1904, not 2600.
    EXPECT_NEAR(table[2].back(), 1000 * std::pow(5.0, 0.4), 1);
}

TEST(FocusSynthesis, PinnedRowsKeepTheirEnds)
{
    FocusOutline s = outline(2, 60);
    s.knots = {{0, 30, 10, 1000}, {1, 30, 50, 8000}};
    s.pins = {{1, {50, 53, 56}, {3000, 5000, 8000}}};
    std::vector<std::vector<int32_t>> table;
    std::string error;
    ASSERT_TRUE(SynthesiseFocusTable(s, &table, &error)) << error;
    const std::vector<int32_t>& row = table[1];
    ASSERT_EQ(row.size(), 30u);
    EXPECT_EQ(std::vector<int32_t>(row.begin(), row.begin() + 3), (std::vector<int32_t>{50, 53, 56}));
    EXPECT_EQ(std::vector<int32_t>(row.end() - 3, row.end()), (std::vector<int32_t>{3000, 5000, 8000}));
    EXPECT_GE(row[3] - row[2], 2);  // the head's step carries on
}

TEST(FocusSynthesis, RejectsWhatCannotHold)
{
    struct Bad {
        FocusOutline given;
        const char* why;
    };
    FocusOutline noEnd = outline(3, 30);
    noEnd.knots = {{0, 10, 1, 100}, {1, 10, 1, 100}};
    FocusOutline tooMany = outline(3, 100);
    tooMany.knots = {{0, 10, 1, 1000}, {2, 20, 1, 1000}};
    FocusOutline noRoom = outline(2, 40);
    noRoom.knots = {{0, 20, 1, 10}, {1, 20, 1, 1000}};
    FocusOutline badPin = outline(2, 40);
    badPin.knots = {{0, 20, 1, 1000}, {1, 20, 1, 1000}};
    badPin.pins = {{1, {2, 3}, {900, 1000}}};
    FocusOutline pinOffKnot = outline(3, 60);
    pinOffKnot.knots = {{0, 20, 1, 1000}, {2, 20, 1, 1000}};
    pinOffKnot.pins = {{1, {1, 2}, {900, 1000}}};
    FocusOutline narrowing = outline(2, 40);
    narrowing.knots = {{0, 20, 1, 1000}, {1, 20, 1, 100000}};
    narrowing.pins = {{1, {1, 2}, {99990, 100000}}};
    const Bad bad[] = {
        {noEnd, "knots must include the first and the last row"},
        {tooMany, "row 1 would get"},
        {noRoom, "row 0: no room"},
        {badPin, "agree with the row's knot"},
        {pinOffKnot, "must be a knot"},
        {narrowing, "gaps would narrow"},
    };
    for (const Bad& b : bad) {
        std::vector<std::vector<int32_t>> table;
        std::string error;
        EXPECT_FALSE(SynthesiseFocusTable(b.given, &table, &error)) << b.why;
        EXPECT_NE(error.find(b.why), std::string::npos) << "got: " << error;
    }
}

} // namespace
