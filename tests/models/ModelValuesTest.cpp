// The value tables of the records: the invariants every record keeps, the
// tables that are the same wherever they occur, and the rule-built tables.
#include <gtest/gtest.h>

#include <cwchar>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "models/CameraDB.h"

namespace {

std::string nameOf(const CameraConfig& c)
{
    return std::string(c.name.begin(), c.name.end());
}

const CameraConfig& model(const wchar_t* name)
{
    for (const CameraConfig& c : cameraDB) {
        if (c.name == name)
            return c;
    }
    static const CameraConfig none;
    ADD_FAILURE() << "no record";
    return none;
}

// A table as "sdk=raw sdk=raw ...".
std::string pairs(const ProperyConfig& p)
{
    std::ostringstream out;
    for (const ProperyValConfig& v : p.values)
        out << (out.tellp() > 0 ? " " : "") << v.sdkValue << '=' << v.cameraValue;
    return out.str();
}

const ProperyValConfig* find(const ProperyConfig& p, int sdk)
{
    for (const ProperyValConfig& v : p.values) {
        if (v.sdkValue == sdk)
            return &v;
    }
    return nullptr;
}

TEST(ModelInvariants, ValuesAreOneToOneAndKnown)
{
    for (const CameraConfig& c : cameraDB) {
        for (const auto& entry : c.properties) {
            SCOPED_TRACE(nameOf(c) + " property " + std::to_string(static_cast<int>(entry.first)));
            std::set<int32_t> sdk, raw;
            for (const ProperyValConfig& v : entry.second.values) {
                EXPECT_TRUE(sdk.insert(v.sdkValue).second) << "sdk " << v.sdkValue;
                EXPECT_TRUE(raw.insert(v.cameraValue).second) << "raw " << v.cameraValue;
                const char* name = nullptr;
                EXPECT_EQ(GetPropertyValName(static_cast<int>(entry.first), v.sdkValue, &name), 0)
                    << "sdk " << v.sdkValue << " is no value of the property";
            }
            EXPECT_FALSE(entry.second.values.empty());
            EXPECT_LE(entry.second.values.size(), 49u);
        }
    }
}

TEST(ModelInvariants, OnlyImageSizeCarriesSizes)
{
    for (const CameraConfig& c : cameraDB) {
        SCOPED_TRACE(nameOf(c));
        ASSERT_EQ(c.properties.count(QKProp::ImageSize), 1u);
        for (const auto& entry : c.properties) {
            bool imageSize = entry.first == QKProp::ImageSize;
            for (const ProperyValConfig& v : entry.second.values) {
                EXPECT_EQ(v.hasExtendedInfo, imageSize) << static_cast<int>(entry.first);
                if (imageSize) {
                    EXPECT_GT(v.extendedInfo.width, v.extendedInfo.height);
                    EXPECT_GE(v.extendedInfo.height, 480);
                }
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

TEST(ModelInvariants, ListOnlyTablesAndTablesAlikeEverywhere)
{
    struct Same {
        QKProp property;
        const char* table;
    };
    const Same same[] = {
        {QKProp::FlashPower, "0=0 1=1 2=2 3=3"},
        {QKProp::BatteryLevel, "0=0 1=1 2=2 3=3 4=4"},
        {QKProp::ManualFocusMode, "0=0 1=1"},
        {QKProp::MeteringMode, "0=0 1=1 2=2"},
        {QKProp::FlashMode, "0=0 1=1 2=2"},
        {QKProp::RedEyeMode, "0=1 1=0"},  // "On" is raw 1
        {QKProp::Contrast, "0=254 1=255 2=0 3=1 4=2"},
        {QKProp::Sharpness, "0=254 1=255 2=0 3=1 4=2"},
        {QKProp::Saturation, "0=254 1=255 2=0 3=1 4=2"},
        {QKProp::Red, "0=254 1=255 2=0 3=1 4=2"},
        {QKProp::Green, "0=254 1=255 2=0 3=1 4=2"},
        {QKProp::Blue, "0=254 1=255 2=0 3=1 4=2"},
        {QKProp::SkinTone, "0=254 1=255 2=0 3=1 4=2"},
    };
    for (const CameraConfig& c : cameraDB) {
        for (const Same& s : same) {
            auto it = c.properties.find(s.property);
            if (it != c.properties.end()) {
                EXPECT_EQ(pairs(it->second), s.table) << nameOf(c) << " " << static_cast<int>(s.property);
            }
        }
        for (QKProp p : {QKProp::FlashPower, QKProp::ManualFocusMode}) {
            auto it = c.properties.find(p);
            if (it != c.properties.end()) {
                EXPECT_EQ(it->second.cameraId, -1) << nameOf(c);
            }
        }
        if (c.properties.count(QKProp::BatteryLevel)) {
            EXPECT_EQ(c.properties.at(QKProp::BatteryLevel).cameraId, -1) << nameOf(c);
        }
    }
}

// The record given in full as the example of the form.
TEST(ModelRecords, A1400InFull)
{
    const CameraConfig& c = cameraDB.front();
    ASSERT_EQ(c.name, L"A1400");
    EXPECT_EQ(c.maxZoom, 63);
    EXPECT_EQ(c.constraints, std::set<PropConstraint>{Constraint_JpegQuality});
    EXPECT_TRUE(c.focusTable.empty());

    struct Prop {
        QKProp property;
        int cameraId;
        ProperyWriteKind kind;
        int sub1, sub2;
        const char* values;
    };
    const Prop props[] = {
        {QKProp::ShootingMode, 49, WriteKind_CaptureMode, -1, -1,
         "0=32768 1=32772 8=33338 22=33340 9=32787 10=33326 11=32807 12=33329 13=33330 "
         "14=33333 15=33336 16=33324 17=33325 18=32795 19=32797 20=32774"},
        {QKProp::ImageSize, 221, WriteKind_Plain, -1, -1, "0=0 1=1 2=2 4=4 5=7"},
        {QKProp::JpegQuality, 167, WriteKind_Plain, -1, -1, "0=0 1=1 2=2 3=10"},
        {QKProp::MeteringMode, 157, WriteKind_Plain, -1, -1, "0=0 1=1 2=2"},
        {QKProp::WBmode, 271, WriteKind_Plain, -1, -1, "0=0 1=1 2=2 3=3 4=4 5=5 6=7"},
        {QKProp::FlashMode, 143, WriteKind_Plain, -1, -1, "0=0 1=1 2=2"},
        {QKProp::RedEyeMode, 219, WriteKind_SubPropery, 216, -1, "0=1 1=0"},
        {QKProp::ISOSpeed, 149, WriteKind_Plain, -1, -1, "0=0 100=100 200=200 400=400 800=800 1600=1600"},
        {QKProp::BatteryLevel, -1, WriteKind_Plain, -1, -1, "0=0 1=1 2=2 3=3 4=4"},
        {QKProp::FocusingZone, 6, WriteKind_Plain, -1, -1, "0=0 2=1 4=3"},
        {QKProp::FlashPower, -1, WriteKind_FlashPower, 121, 141, "0=0 1=1 2=2 3=3"},
    };
    ASSERT_EQ(c.properties.size(), std::size(props));
    auto it = c.properties.begin();
    for (const Prop& p : props) {
        SCOPED_TRACE(static_cast<int>(p.property));
        ASSERT_EQ(it->first, p.property);
        EXPECT_EQ(it->second.cameraId, p.cameraId);
        EXPECT_EQ(it->second.writeKind, p.kind);
        EXPECT_EQ(it->second.subId1, p.sub1);
        EXPECT_EQ(it->second.subId2, p.sub2);
        EXPECT_EQ(pairs(it->second), p.values);
        ++it;
    }
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
    const ProperyConfig& ixus = model(L"IXUS160").properties.at(QKProp::ImageSize);
    EXPECT_EQ(pairs(ixus), "0=0 1=2 2=3 4=5");
    EXPECT_EQ(ixus.values[1].extendedInfo.width, 3648);
    EXPECT_EQ(ixus.values[1].extendedInfo.height, 2736);
    EXPECT_EQ(model(L"SX510").properties.at(QKProp::ImageSize).values.back().extendedInfo.width, 1984);
    // The callers' order is the model's, not numeric.
    const ProperyConfig& modes = model(L"SX520").properties.at(QKProp::ShootingMode);
    ASSERT_GE(modes.values.size(), 4u);
    EXPECT_EQ(modes.values[0].sdkValue, 2);
    EXPECT_EQ(modes.values[1].sdkValue, 3);
    EXPECT_EQ(modes.values[2].sdkValue, 4);
    EXPECT_EQ(modes.values[3].sdkValue, 1);
    EXPECT_EQ(pairs(model(L"G15").properties.at(QKProp::WBmode)),
              "0=0 1=1 2=2 3=3 4=4 5=5 9=8 10=9 7=6 8=10");
    EXPECT_EQ(pairs(model(L"SX160").properties.at(QKProp::MyColors)),
              "0=0 1=1 2=2 3=4 4=3 5=5 6=6 7=7 8=10 9=9 10=8 11=11 12=14 13=13");
    EXPECT_EQ(pairs(model(L"A800").properties.at(QKProp::ISOSpeed)), "0=0");
    EXPECT_EQ(pairs(model(L"SX400IS").properties.at(QKProp::JpegQuality)), "0=0 1=1");
    EXPECT_EQ(model(L"G15").properties.at(QKProp::ISOSpeed).values.size(), 24u);
    EXPECT_EQ(pairs(model(L"G15").properties.at(QKProp::Av)).substr(0, 13), "18=171 20=192");
    // No model knows a raw shooting mode of 8.
    for (const CameraConfig& c : cameraDB) {
        for (const ProperyValConfig& v : c.properties.at(QKProp::ShootingMode).values)
            EXPECT_NE(v.cameraValue, 8) << nameOf(c);
    }
}

// Tv: from 150000 in catalogue order; raw +32 a step.
struct TvExpect {
    const wchar_t* model;
    int firstRaw;
    int lastValue;
    int lastRaw;
    size_t entries;
    bool has40000;
};

const TvExpect tvExpect[] = {
    {L"G15", 65152, 1, 1152, 49, true},      {L"SX130", -352, 4, 1088, 46, false},
    {L"SX150", -352, 4, 1088, 46, false},    {L"SX160", -352, 2, 1120, 47, false},
    {L"SX170", 65152, 2, 1120, 48, true},    {L"SX500", 65152, 2, 1120, 48, true},
    {L"SX40HS", -384, 4, 1056, 46, false},   {L"SX510", 65152, 6, 1024, 45, true},
    {L"SX520", 65152, 5, 1056, 46, true},
};

TEST(ModelRules, TvTables)
{
    std::vector<int> order;
    for (size_t i = 0; i < g_PropValueCatalogueSize; ++i) {
        if (g_PropValueCatalogue[i].property == QKProp::Tv)
            order.push_back(g_PropValueCatalogue[i].value);
    }
    size_t withTv = 0;
    for (const CameraConfig& c : cameraDB)
        withTv += c.properties.count(QKProp::Tv);
    EXPECT_EQ(withTv, std::size(tvExpect));

    for (const TvExpect& e : tvExpect) {
        SCOPED_TRACE(std::string(e.model, e.model + wcslen(e.model)));
        const ProperyConfig& tv = model(e.model).properties.at(QKProp::Tv);
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

// Compensation: raw 0 at "0", +32 a third of a stop, in one of two forms.
TEST(ModelRules, CompensationTables)
{
    const std::vector<int> third = {0, 34, 67, 100, 134, 167, 200, 233, 266, 300, 333, 366, 400};
    const std::vector<int> full = {500, 501, 502, 0, 34, 67, 100, 134, 167, 200,
                                   233, 266, 300, 333, 366, 400, 503, 504, 505};
    struct Expect {
        QKProp property;
        const char* models;
        bool signedForm;
    };
    const Expect expect[] = {
        {QKProp::ExposureComp,
         "A495 A800 IXUS145 IXUS160 IXUS170 SX150 SX160 SX170 SX40HS SX400IS SX410IS SX500 SX510 SX520",
         false},
        {QKProp::ExposureComp, "SX130", true},
        {QKProp::FlashComp,
         "A2200 A4000 A810 G15 IXUS145 IXUS160 IXUS170 SX160 SX170 SX40HS SX410IS SX500 SX510 SX520",
         false},
        {QKProp::FlashComp, "SX130 SX150", true},
    };
    size_t checked = 0;
    for (const Expect& e : expect) {
        std::istringstream in(e.models);
        for (std::string m; in >> m; ++checked) {
            SCOPED_TRACE(m + " " + std::to_string(static_cast<int>(e.property)));
            const CameraConfig& c = model(std::wstring(m.begin(), m.end()).c_str());
            const ProperyConfig& p = c.properties.at(e.property);
            ASSERT_EQ(p.values.size(), third.size());
            for (size_t i = 0; i < third.size(); ++i) {
                int steps = static_cast<int>(i) - 6;
                EXPECT_EQ(p.values[i].sdkValue, third[i]);
                int raw = steps < 0 && !e.signedForm ? 65536 + 32 * steps : 32 * steps;
                EXPECT_EQ(p.values[i].cameraValue, raw);
            }
        }
    }
    const ProperyConfig& g15 = model(L"G15").properties.at(QKProp::ExposureComp);
    ASSERT_EQ(g15.values.size(), full.size());
    for (size_t i = 0; i < full.size(); ++i) {
        int steps = static_cast<int>(i) - 9;
        EXPECT_EQ(g15.values[i].sdkValue, full[i]);
        EXPECT_EQ(g15.values[i].cameraValue, steps < 0 ? 65536 + 32 * steps : 32 * steps);
    }
    size_t all = 0;
    for (const CameraConfig& c : cameraDB)
        all += c.properties.count(QKProp::ExposureComp) + c.properties.count(QKProp::FlashComp);
    EXPECT_EQ(all, checked + 1);

    // One step, two raw forms, even within one record.
    EXPECT_EQ(find(model(L"SX130").properties.at(QKProp::ExposureComp), 0)->cameraValue, -192);
    EXPECT_EQ(find(model(L"SX150").properties.at(QKProp::ExposureComp), 0)->cameraValue, 65344);
    EXPECT_EQ(find(model(L"SX150").properties.at(QKProp::FlashComp), 0)->cameraValue, -192);
}

} // namespace
