// SPDX-License-Identifier: MIT
// The value tables of the records: the invariants every record keeps, the
// tables that are the same wherever they occur, and the rule-built tables.
// Case numbers, write kinds and which model has what are in ModelTablesTest.
#include <gtest/gtest.h>

#include <cwchar>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/common/ModelRecord.h"

namespace {

using qktest::ModelName;
using qktest::ModelNamed;
using qktest::ValuePairs;

const ProperyValConfig* find(const ProperyConfig& p, int sdk)
{
    for (const ProperyValConfig& v : p.values) {
        if (v.sdkValue == sdk)
            return &v;
    }
    return nullptr;
}

const ProperyConfig& table(const wchar_t* model, QKProp property)
{
    return ModelNamed(model).properties.at(property);
}

// Values one to one and in the catalogue, sizes only on Image Size, and the
// tables that are the same wherever they occur.
TEST(ModelInvariants, EveryTable)
{
    const char* const steps = "0=254 1=255 2=0 3=1 4=2";
    const std::map<QKProp, const char*> same = {
        {QKProp::FlashPower, "0=0 1=1 2=2 3=3"}, {QKProp::BatteryLevel, "0=0 1=1 2=2 3=3 4=4"},
        {QKProp::ManualFocusMode, "0=0 1=1"},    {QKProp::MeteringMode, "0=0 1=1 2=2"},
        {QKProp::FlashMode, "0=0 1=1 2=2"},      {QKProp::RedEyeMode, "0=1 1=0"},  // "On" is raw 1
        {QKProp::Contrast, steps},   {QKProp::Sharpness, steps}, {QKProp::Saturation, steps},
        {QKProp::Red, steps},        {QKProp::Green, steps},     {QKProp::Blue, steps},
        {QKProp::SkinTone, steps},
    };
    for (const CameraConfig& c : cameraDB) {
        SCOPED_TRACE(ModelName(c));
        ASSERT_EQ(c.properties.count(QKProp::ImageSize), 1u);
        for (const auto& [property, table] : c.properties) {
            SCOPED_TRACE("property " + std::to_string(static_cast<int>(property)));
            const bool imageSize = property == QKProp::ImageSize;
            std::set<int32_t> sdk, raw;
            for (const ProperyValConfig& v : table.values) {
                EXPECT_TRUE(sdk.insert(v.sdkValue).second) << "sdk " << v.sdkValue;
                EXPECT_TRUE(raw.insert(v.cameraValue).second) << "raw " << v.cameraValue;
                const char* name = nullptr;
                EXPECT_EQ(GetPropertyValName(static_cast<int>(property), v.sdkValue, &name), 0)
                    << "sdk " << v.sdkValue << " is no value of the property";
                EXPECT_EQ(v.hasExtendedInfo, imageSize);
                if (imageSize) {
                    EXPECT_GT(v.extendedInfo.width, v.extendedInfo.height);
                    EXPECT_GE(v.extendedInfo.height, 480);
                }
            }
            EXPECT_FALSE(table.values.empty());
            EXPECT_LE(table.values.size(), 49u);
            auto alike = same.find(property);
            if (alike != same.end()) {
                EXPECT_EQ(ValuePairs(table), alike->second);
            }
        }
        // Sizes shrink from Large to Small.
        const ProperyConfig& sizes = c.properties.at(QKProp::ImageSize);
        ASSERT_NE(find(sizes, 0), nullptr);
        ASSERT_NE(find(sizes, 4), nullptr);
        EXPECT_EQ(find(sizes, 4)->extendedInfo.width, 640);
        EXPECT_GT(find(sizes, 0)->extendedInfo.width, find(sizes, 1)->extendedInfo.width);
    }
}

// The record given in full as the example of the form; its ids and kinds are
// in ModelTablesTest with the others'.
TEST(ModelRecords, A1400InFull)
{
    const CameraConfig& c = cameraDB.front();
    ASSERT_EQ(c.name, L"A1400");
    const std::pair<QKProp, const char*> props[] = {
        {QKProp::ShootingMode,
         "0=32768 1=32772 8=33338 22=33340 9=32787 10=33326 11=32807 12=33329 13=33330 "
         "14=33333 15=33336 16=33324 17=33325 18=32795 19=32797 20=32774"},
        {QKProp::ImageSize, "0=0 1=1 2=2 4=4 5=7"},
        {QKProp::JpegQuality, "0=0 1=1 2=2 3=10"},
        {QKProp::MeteringMode, "0=0 1=1 2=2"},
        {QKProp::WBmode, "0=0 1=1 2=2 3=3 4=4 5=5 6=7"},
        {QKProp::FlashMode, "0=0 1=1 2=2"},
        {QKProp::RedEyeMode, "0=1 1=0"},
        {QKProp::ISOSpeed, "0=0 100=100 200=200 400=400 800=800 1600=1600"},
        {QKProp::BatteryLevel, "0=0 1=1 2=2 3=3 4=4"},
        {QKProp::FocusingZone, "0=0 2=1 4=3"},
        {QKProp::FlashPower, "0=0 1=1 2=2 3=3"},
    };
    ASSERT_EQ(c.properties.size(), std::size(props));
    for (const auto& [property, values] : props)
        EXPECT_EQ(ValuePairs(c.properties.at(property)), values) << static_cast<int>(property);
    const int sizes[][2] = {{4608, 3456}, {3264, 2448}, {1600, 1200}, {640, 480}, {2304, 1728}};
    const std::vector<ProperyValConfig>& v = c.properties.at(QKProp::ImageSize).values;
    for (size_t i = 0; i < v.size(); ++i) {
        EXPECT_EQ(v[i].extendedInfo.width, sizes[i][0]);
        EXPECT_EQ(v[i].extendedInfo.height, sizes[i][1]);
    }
}

TEST(ModelRecords, OddMappingsSurvive)
{
    // Raw sizes that skip numbers, with their pixels.
    const ProperyConfig& ixus = table(L"IXUS160", QKProp::ImageSize);
    EXPECT_EQ(ValuePairs(ixus), "0=0 1=2 2=3 4=5");
    EXPECT_EQ(ixus.values[1].extendedInfo.width, 3648);
    EXPECT_EQ(ixus.values[1].extendedInfo.height, 2736);
    EXPECT_EQ(table(L"SX510", QKProp::ImageSize).values.back().extendedInfo.width, 1984);
    // The callers' order is the model's, not numeric.
    const std::vector<ProperyValConfig>& modes = table(L"SX520", QKProp::ShootingMode).values;
    ASSERT_GE(modes.size(), 4u);
    EXPECT_EQ((std::vector<int>{modes[0].sdkValue, modes[1].sdkValue, modes[2].sdkValue, modes[3].sdkValue}),
              (std::vector<int>{2, 3, 4, 1}));
    EXPECT_EQ(ValuePairs(table(L"G15", QKProp::WBmode)), "0=0 1=1 2=2 3=3 4=4 5=5 9=8 10=9 7=6 8=10");
    EXPECT_EQ(ValuePairs(table(L"SX160", QKProp::MyColors)),
              "0=0 1=1 2=2 3=4 4=3 5=5 6=6 7=7 8=10 9=9 10=8 11=11 12=14 13=13");
    EXPECT_EQ(ValuePairs(table(L"A800", QKProp::ISOSpeed)), "0=0");
    EXPECT_EQ(ValuePairs(table(L"SX400IS", QKProp::JpegQuality)), "0=0 1=1");
    EXPECT_EQ(table(L"G15", QKProp::ISOSpeed).values.size(), 24u);
    EXPECT_EQ(ValuePairs(table(L"G15", QKProp::Av)).substr(0, 13), "18=171 20=192");
    // No model knows a raw shooting mode of 8.
    for (const CameraConfig& c : cameraDB) {
        for (const ProperyValConfig& v : c.properties.at(QKProp::ShootingMode).values)
            EXPECT_NE(v.cameraValue, 8) << ModelName(c);
    }
}

// Tv: from 150000 in catalogue order; raw +32 a step. Which models have Tv at
// all is in ModelTablesTest.
TEST(ModelRules, TvTables)
{
    struct Expect {
        const wchar_t* model;
        int firstRaw, lastValue, lastRaw;
        size_t entries;
        bool has40000;
    };
    const Expect expect[] = {
        {L"G15", 65152, 1, 1152, 49, true},      {L"SX130", -352, 4, 1088, 46, false},
        {L"SX150", -352, 4, 1088, 46, false},    {L"SX160", -352, 2, 1120, 47, false},
        {L"SX170", 65152, 2, 1120, 48, true},    {L"SX500", 65152, 2, 1120, 48, true},
        {L"SX40HS", -384, 4, 1056, 46, false},   {L"SX510", 65152, 6, 1024, 45, true},
        {L"SX520", 65152, 5, 1056, 46, true},
    };
    std::vector<int> order;
    for (size_t i = 0; i < g_PropValueCatalogueSize; ++i) {
        if (g_PropValueCatalogue[i].property == QKProp::Tv)
            order.push_back(g_PropValueCatalogue[i].value);
    }
    for (const Expect& e : expect) {
        SCOPED_TRACE(std::string(e.model, e.model + wcslen(e.model)));
        const ProperyConfig& tv = table(e.model, QKProp::Tv);
        ASSERT_EQ(tv.values.size(), e.entries);
        EXPECT_EQ(tv.values.front().sdkValue, 150000);
        EXPECT_EQ(tv.values.front().cameraValue, e.firstRaw);
        EXPECT_EQ(tv.values.back().sdkValue, e.lastValue);
        EXPECT_EQ(tv.values.back().cameraValue, e.lastRaw);
        EXPECT_EQ(find(tv, 40000) != nullptr, e.has40000);
        // No gap in the walk but 40000, and the raw form keeps to 16 bits
        // unsigned or to signed as the first entry does.
        size_t k = 0;
        for (size_t i = 0; i < tv.values.size(); ++i, ++k) {
            if (!e.has40000 && order[k] == 40000)
                ++k;
            EXPECT_EQ(tv.values[i].sdkValue, order[k]);
            if (i > 0) {
                int step = tv.values[i].cameraValue - tv.values[i - 1].cameraValue;
                EXPECT_TRUE(step == 32 || (e.firstRaw > 0 && step == 32 - 65536)) << i;
            }
            EXPECT_GE(tv.values[i].cameraValue, e.firstRaw > 0 ? 0 : -65535);
            EXPECT_LT(tv.values[i].cameraValue, 65536);
        }
        EXPECT_EQ(find(tv, 10000)->cameraValue, e.model == std::wstring(L"SX40HS") ? -32 : 0);
    }
}

// Compensation: raw 0 at "0", +32 a third of a stop, in one of two forms, even
// within one record (SX150).
TEST(ModelRules, CompensationTables)
{
    const std::vector<int> third = {0, 34, 67, 100, 134, 167, 200, 233, 266, 300, 333, 366, 400};
    const std::vector<int> full = {500, 501, 502, 0, 34, 67, 100, 134, 167, 200,
                                   233, 266, 300, 333, 366, 400, 503, 504, 505};
    struct Expect {
        QKProp property;
        const char* models;
        bool signedForm;
        const std::vector<int>& values;
    };
    const Expect expect[] = {
        {QKProp::ExposureComp,
         "A495 A800 IXUS145 IXUS160 IXUS170 SX150 SX160 SX170 SX40HS SX400IS SX410IS SX500 SX510 SX520",
         false, third},
        {QKProp::ExposureComp, "SX130", true, third},
        {QKProp::ExposureComp, "G15", false, full},
        {QKProp::FlashComp,
         "A2200 A4000 A810 G15 IXUS145 IXUS160 IXUS170 SX160 SX170 SX40HS SX410IS SX500 SX510 SX520",
         false, third},
        {QKProp::FlashComp, "SX130 SX150", true, third},
    };
    for (const Expect& e : expect) {
        std::istringstream in(e.models);
        for (std::string m; in >> m;) {
            SCOPED_TRACE(m + " " + std::to_string(static_cast<int>(e.property)));
            const ProperyConfig& p = table(std::wstring(m.begin(), m.end()).c_str(), e.property);
            ASSERT_EQ(p.values.size(), e.values.size());
            for (size_t i = 0; i < e.values.size(); ++i) {
                int steps = static_cast<int>(i) - static_cast<int>(e.values.size() / 2);
                EXPECT_EQ(p.values[i].sdkValue, e.values[i]);
                EXPECT_EQ(p.values[i].cameraValue, steps < 0 && !e.signedForm ? 65536 + 32 * steps : 32 * steps);
            }
        }
    }
}

} // namespace
