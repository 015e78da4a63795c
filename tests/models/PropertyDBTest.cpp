#include <gtest/gtest.h>

#include <set>
#include <string>

#include "models/PropertyDB.h"

namespace {

// Property number, display name, count of values: the catalogue as it should be.
struct PropExpect {
    int number;
    const char* name;
    size_t values;
};

const PropExpect propExpect[] = {
    {0, "Shooting Mode", 52}, {1, "Image Size", 6},   {2, "JPEG Quality", 4},
    {3, "Metering Mode", 3},  {4, "WB Mode", 11},     {5, "Flash Mode", 3},
    {6, "Red Eye Mode", 2},   {7, "ISO Speed", 24},   {8, "Av", 16},
    {9, "Tv", 49},            {10, "Exposure Compensation", 19},
    {11, "Flash Compensation", 13},                   {13, "Battery Level", 5},
    {14, "Focusing Zone", 6}, {15, "My Colors", 14},  {16, "Contrast", 5},
    {17, "Sharpness", 5},     {18, "Saturation", 5},  {19, "Red", 5},
    {20, "Green", 5},         {21, "Blue", 5},        {22, "Skin Tone", 5},
    {23, "Flash Power", 4},   {24, "Manual Focus Mode", 2},
};

TEST(PropertyCatalogue, NamesCountsAndWritability)
{
    EXPECT_EQ(g_PropNames.size(), 24u);
    EXPECT_EQ(g_PropReadWrite.size(), 24u);
    EXPECT_EQ(g_PropValNames.size(), 268u);
    EXPECT_EQ(g_PropNamesVal.size(), 268u);
    EXPECT_EQ(g_PropValueCatalogueSize, 268u);

    for (const PropExpect& p : propExpect) {
        SCOPED_TRACE(p.name);
        const char* name = nullptr;
        ASSERT_EQ(GetPropertyName(p.number, &name), 0);
        EXPECT_STREQ(name, p.name);

        size_t values = 0;
        for (const auto& entry : g_PropValNames)
            values += entry.first.first == static_cast<QKProp>(p.number);
        EXPECT_EQ(values, p.values);

        bool rw = false;
        ASSERT_EQ(IsPropRW(static_cast<QKProp>(p.number), &rw), 0);
        EXPECT_EQ(rw, p.number != 13);
    }
}

TEST(PropertyCatalogue, NameAndValueTablesAreExactInverses)
{
    for (const auto& entry : g_PropValNames) {
        auto back = g_PropNamesVal.find({entry.first.first, entry.second});
        ASSERT_NE(back, g_PropNamesVal.end()) << entry.second;
        EXPECT_EQ(back->second, entry.first.second) << entry.second;
    }
    // Names are unique within a property, so no catalogue row got lost on
    // the way into either map.
    std::set<std::pair<QKProp, std::string>> seen;
    for (size_t i = 0; i < g_PropValueCatalogueSize; ++i) {
        const QKPropValueEntry& e = g_PropValueCatalogue[i];
        EXPECT_TRUE(seen.insert({e.property, e.name}).second) << e.name;
    }
}

TEST(PropertyCatalogue, ValuesCarryTheirNumbers)
{
    struct Case {
        QKProp property;
        int value;
        const char* name;
    };
    const Case cases[] = {
        {QKProp::ShootingMode, 0, "Auto"},          {QKProp::ShootingMode, 51, "Video2"},
        {QKProp::ShootingMode, 21, "iFrameMovie"},  {QKProp::ImageSize, 5, "Medium"},
        {QKProp::JpegQuality, 3, "Normal 2"},       {QKProp::WBmode, 5, "Fluorescent H"},
        {QKProp::ISOSpeed, 0, "Auto"},              {QKProp::ISOSpeed, 12800, "ISO 12800"},
        {QKProp::Av, 18, "1.8"},                    {QKProp::Av, 80, "8.0"},
        {QKProp::Tv, 150000, "15\""},               {QKProp::Tv, 32000, "3\"2"},
        {QKProp::Tv, 3000, "0\"3"},                 {QKProp::Tv, 2500, "1/4"},
        {QKProp::Tv, 2, "1/3200"},                  {QKProp::Tv, 1, "1/4000"},
        {QKProp::ExposureComp, 500, "-3"},          {QKProp::ExposureComp, 0, "-2"},
        {QKProp::ExposureComp, 200, "0"},           {QKProp::ExposureComp, 505, "+3"},
        {QKProp::FlashComp, 34, "-1.66"},           {QKProp::BatteryLevel, 4, "DC"},
        {QKProp::FocusingZone, 5, "Manual Focus"},  {QKProp::MyColors, 13, "ColorAccent Mode"},
        {QKProp::SkinTone, 0, "-2"},                {QKProp::FlashPower, 3, "High"},
        {QKProp::ManualFocusMode, 1, "Off"},        {QKProp::RedEyeMode, 0, "On"},
    };
    for (const Case& c : cases) {
        const char* name = nullptr;
        ASSERT_EQ(GetPropertyValName(static_cast<int>(c.property), c.value, &name), 0) << c.name;
        EXPECT_STREQ(name, c.name);
        int value = -1;
        ASSERT_EQ(GetProperyNameVal(static_cast<int>(c.property), c.name, &value), QK_OK);
        EXPECT_EQ(value, c.value) << c.name;
    }
}

// The walk order of the rule-built model tables comes from the catalogue.
TEST(PropertyCatalogue, ListedOrderOfStepProperties)
{
    std::vector<int> tv, ec;
    for (size_t i = 0; i < g_PropValueCatalogueSize; ++i) {
        const QKPropValueEntry& e = g_PropValueCatalogue[i];
        if (e.property == QKProp::Tv)
            tv.push_back(e.value);
        if (e.property == QKProp::ExposureComp)
            ec.push_back(e.value);
    }
    ASSERT_EQ(tv.size(), 49u);
    for (size_t i = 1; i < tv.size(); ++i)
        EXPECT_LT(tv[i], tv[i - 1]) << "longest time first";
    EXPECT_EQ(ec, (std::vector<int>{500, 501, 502, 0, 34, 67, 100, 134, 167, 200, 233, 266, 300,
                                    333, 366, 400, 503, 504, 505}));
}

TEST(PropertyLookups, TwelveMissesEverywhere)
{
    const char* name = "untouched";
    EXPECT_EQ(GetPropertyName(12, &name), 1);
    EXPECT_STREQ(name, "untouched");
    EXPECT_EQ(GetPropertyValName(12, 0, &name), 1);
    EXPECT_STREQ(name, "untouched");
    int value = -5;
    EXPECT_EQ(GetProperyNameVal(12, "Auto", &value), QK_UNSUPPORTED_VALUE);
    EXPECT_EQ(value, -5);
    bool rw = true;
    EXPECT_EQ(IsPropRW(static_cast<QKProp>(12), &rw), 1);
    EXPECT_TRUE(rw);
}

TEST(PropertyLookups, MissesLeaveOutputsAlone)
{
    const char* name = "untouched";
    EXPECT_EQ(GetPropertyName(25, &name), 1);
    EXPECT_EQ(GetPropertyName(-1, &name), 1);
    // 200 is a value of Exposure Compensation, not of Contrast.
    EXPECT_EQ(GetPropertyValName(static_cast<int>(QKProp::Contrast), 200, &name), 1);
    EXPECT_EQ(GetPropertyValName(static_cast<int>(QKProp::Tv), 40001, &name), 1);
    EXPECT_STREQ(name, "untouched");

    int value = -5;
    EXPECT_EQ(GetProperyNameVal(static_cast<int>(QKProp::FlashMode), "auto", &value),
              QK_UNSUPPORTED_VALUE);
    EXPECT_EQ(GetProperyNameVal(static_cast<int>(QKProp::FlashMode), "Auto ", &value),
              QK_UNSUPPORTED_VALUE);
    EXPECT_EQ(GetProperyNameVal(static_cast<int>(QKProp::FlashMode), "", &value),
              QK_UNSUPPORTED_VALUE);
    EXPECT_EQ(value, -5);

    bool rw = true;
    EXPECT_EQ(IsPropRW(static_cast<QKProp>(25), &rw), 1);
    EXPECT_TRUE(rw);
}

TEST(PropertyLookups, SignedStepNamesDependOnTheProperty)
{
    int value = -5;
    EXPECT_EQ(GetProperyNameVal(static_cast<int>(QKProp::ExposureComp), "+2", &value), QK_OK);
    EXPECT_EQ(value, 400);
    value = -5;
    EXPECT_EQ(GetProperyNameVal(static_cast<int>(QKProp::Contrast), "+2", &value),
              QK_UNSUPPORTED_VALUE);
    EXPECT_EQ(value, -5);
    EXPECT_EQ(GetProperyNameVal(static_cast<int>(QKProp::Contrast), "2", &value), QK_OK);
    EXPECT_EQ(value, 4);
    EXPECT_EQ(GetProperyNameVal(static_cast<int>(QKProp::ExposureComp), "0", &value), QK_OK);
    EXPECT_EQ(value, 200);
    EXPECT_EQ(GetProperyNameVal(static_cast<int>(QKProp::Contrast), "0", &value), QK_OK);
    EXPECT_EQ(value, 2);
    // "Auto" is a value of six properties, with different numbers.
    EXPECT_EQ(GetProperyNameVal(static_cast<int>(QKProp::WBmode), "Auto", &value), QK_OK);
    EXPECT_EQ(value, 0);
    EXPECT_EQ(GetProperyNameVal(static_cast<int>(QKProp::MyColors), "Auto", &value),
              QK_UNSUPPORTED_VALUE);
}

TEST(PropertyLookups, BatteryLevelIsReadOnly)
{
    bool rw = true;
    EXPECT_EQ(IsPropRW(QKProp::BatteryLevel, &rw), 0);
    EXPECT_FALSE(rw);
    rw = false;
    EXPECT_EQ(IsPropRW(QKProp::ManualFocusMode, &rw), 0);
    EXPECT_TRUE(rw);
}

} // namespace
