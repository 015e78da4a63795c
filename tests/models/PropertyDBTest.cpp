// SPDX-License-Identifier: MIT
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

// Both directions of each; "+2", "0" and "Auto" name different numbers in
// different properties.
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
        {QKProp::WBmode, 0, "Auto"},                {QKProp::ISOSpeed, 0, "Auto"},
        {QKProp::ISOSpeed, 12800, "ISO 12800"},     {QKProp::Av, 18, "1.8"},
        {QKProp::Av, 80, "8.0"},                    {QKProp::Tv, 150000, "15\""},
        {QKProp::Tv, 32000, "3\"2"},                {QKProp::Tv, 3000, "0\"3"},
        {QKProp::Tv, 2500, "1/4"},                  {QKProp::Tv, 2, "1/3200"},
        {QKProp::Tv, 1, "1/4000"},                  {QKProp::ExposureComp, 500, "-3"},
        {QKProp::ExposureComp, 0, "-2"},            {QKProp::ExposureComp, 200, "0"},
        {QKProp::ExposureComp, 400, "+2"},          {QKProp::ExposureComp, 505, "+3"},
        {QKProp::Contrast, 2, "0"},                 {QKProp::Contrast, 4, "2"},
        {QKProp::FlashComp, 34, "-1.66"},           {QKProp::BatteryLevel, 4, "DC"},
        {QKProp::FocusingZone, 5, "Manual Focus"},  {QKProp::MyColors, 13, "ColorAccent Mode"},
        {QKProp::SkinTone, 0, "-2"},                {QKProp::FlashPower, 3, "High"},
        {QKProp::ManualFocusMode, 1, "Off"},        {QKProp::RedEyeMode, 0, "On"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(static_cast<int>(c.property)) + " " + c.name);
        const char* name = nullptr;
        ASSERT_EQ(GetPropertyValName(static_cast<int>(c.property), c.value, &name), 0);
        EXPECT_STREQ(name, c.name);
        int value = -1;
        ASSERT_EQ(GetProperyNameVal(static_cast<int>(c.property), c.name, &value), QK_OK);
        EXPECT_EQ(value, c.value);
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

// 12 is a gap in the property numbers.
TEST(PropertyLookups, MissesLeaveOutputsAlone)
{
    const char* name = "untouched";
    for (int property : {12, 25, -1})
        EXPECT_EQ(GetPropertyName(property, &name), 1) << property;
    // 200 is a value of Exposure Compensation, not of Contrast.
    const std::pair<QKProp, int> values[] = {
        {static_cast<QKProp>(12), 0}, {QKProp::Contrast, 200}, {QKProp::Tv, 40001}};
    for (const auto& [property, value] : values)
        EXPECT_EQ(GetPropertyValName(static_cast<int>(property), value, &name), 1) << value;
    EXPECT_STREQ(name, "untouched");

    const std::pair<QKProp, const char*> names[] = {
        {static_cast<QKProp>(12), "Auto"}, {QKProp::FlashMode, "auto"}, {QKProp::FlashMode, "Auto "},
        {QKProp::FlashMode, ""},           {QKProp::Contrast, "+2"},    {QKProp::MyColors, "Auto"},
    };
    for (const auto& [property, text] : names) {
        int value = -5;
        EXPECT_EQ(GetProperyNameVal(static_cast<int>(property), text, &value), QK_UNSUPPORTED_VALUE) << text;
        EXPECT_EQ(value, -5) << text;
    }

    for (int property : {12, 25}) {
        bool rw = true;
        EXPECT_EQ(IsPropRW(static_cast<QKProp>(property), &rw), 1);
        EXPECT_TRUE(rw);
    }
}

} // namespace
