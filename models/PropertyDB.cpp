// SPDX-License-Identifier: MIT
#include "models/PropertyDB.h"

#include <iterator>

namespace {

// Ties each value enumeration to its property, so that a catalogue row cannot
// pair a value with the wrong property.
constexpr QKProp propOf(QKProp_ShootingMode) { return QKProp::ShootingMode; }
constexpr QKProp propOf(QKProp_ImageSize) { return QKProp::ImageSize; }
constexpr QKProp propOf(QKProp_JpegQuality) { return QKProp::JpegQuality; }
constexpr QKProp propOf(QKProp_MeteringMode) { return QKProp::MeteringMode; }
constexpr QKProp propOf(QKProp_WBmode) { return QKProp::WBmode; }
constexpr QKProp propOf(QKProp_FlashMode) { return QKProp::FlashMode; }
constexpr QKProp propOf(QKProp_RedEyeMode) { return QKProp::RedEyeMode; }
constexpr QKProp propOf(QKProp_ISOSpeed) { return QKProp::ISOSpeed; }
constexpr QKProp propOf(QKProp_Av) { return QKProp::Av; }
constexpr QKProp propOf(QKProp_Tv) { return QKProp::Tv; }
constexpr QKProp propOf(QKProp_ExposureComp) { return QKProp::ExposureComp; }
constexpr QKProp propOf(QKProp_FlashComp) { return QKProp::FlashComp; }
constexpr QKProp propOf(QKProp_BatteryLevel) { return QKProp::BatteryLevel; }
constexpr QKProp propOf(QKProp_FocusingZone) { return QKProp::FocusingZone; }
constexpr QKProp propOf(QKProp_MyColors) { return QKProp::MyColors; }
constexpr QKProp propOf(QKProp_Contrast) { return QKProp::Contrast; }
constexpr QKProp propOf(QKProp_Sharpness) { return QKProp::Sharpness; }
constexpr QKProp propOf(QKProp_Saturation) { return QKProp::Saturation; }
constexpr QKProp propOf(QKProp_Red) { return QKProp::Red; }
constexpr QKProp propOf(QKProp_Green) { return QKProp::Green; }
constexpr QKProp propOf(QKProp_Blue) { return QKProp::Blue; }
constexpr QKProp propOf(QKProp_SkinTone) { return QKProp::SkinTone; }
constexpr QKProp propOf(QKProp_FlashPower) { return QKProp::FlashPower; }
constexpr QKProp propOf(QKProp_ManualFocusMode) { return QKProp::ManualFocusMode; }

template <typename E>
constexpr QKPropValueEntry V(E value, const char* name)
{
    return {propOf(value), static_cast<int>(value), name};
}

struct PropEntry {
    QKProp property;
    const char* name;
    bool writable;
};

constexpr PropEntry propCatalogue[] = {
    {QKProp::ShootingMode, "Shooting Mode", true},
    {QKProp::ImageSize, "Image Size", true},
    {QKProp::JpegQuality, "JPEG Quality", true},
    {QKProp::MeteringMode, "Metering Mode", true},
    {QKProp::WBmode, "WB Mode", true},
    {QKProp::FlashMode, "Flash Mode", true},
    {QKProp::RedEyeMode, "Red Eye Mode", true},
    {QKProp::ISOSpeed, "ISO Speed", true},
    {QKProp::Av, "Av", true},
    {QKProp::Tv, "Tv", true},
    {QKProp::ExposureComp, "Exposure Compensation", true},
    {QKProp::FlashComp, "Flash Compensation", true},
    // Measured from the voltage: there is nothing to set.
    {QKProp::BatteryLevel, "Battery Level", false},
    {QKProp::FocusingZone, "Focusing Zone", true},
    {QKProp::MyColors, "My Colors", true},
    {QKProp::Contrast, "Contrast", true},
    {QKProp::Sharpness, "Sharpness", true},
    {QKProp::Saturation, "Saturation", true},
    {QKProp::Red, "Red", true},
    {QKProp::Green, "Green", true},
    {QKProp::Blue, "Blue", true},
    {QKProp::SkinTone, "Skin Tone", true},
    {QKProp::FlashPower, "Flash Power", true},
    {QKProp::ManualFocusMode, "Manual Focus Mode", true},
};

using SM = QKProp_ShootingMode;
using IS = QKProp_ImageSize;
using JQ = QKProp_JpegQuality;
using MM = QKProp_MeteringMode;
using WB = QKProp_WBmode;
using FM = QKProp_FlashMode;
using RE = QKProp_RedEyeMode;
using ISO = QKProp_ISOSpeed;
using AV = QKProp_Av;
using TV = QKProp_Tv;
using EC = QKProp_ExposureComp;
using FC = QKProp_FlashComp;
using BL = QKProp_BatteryLevel;
using FZ = QKProp_FocusingZone;
using MC = QKProp_MyColors;
using FP = QKProp_FlashPower;
using MF = QKProp_ManualFocusMode;

} // namespace

constexpr QKPropValueEntry g_PropValueCatalogue[] = {
    V(SM::Auto, "Auto"), V(SM::Program, "Program"), V(SM::Manual, "Manual"), V(SM::AV, "AV"),
    V(SM::TV, "TV"), V(SM::Easy, "Easy"), V(SM::Movie, "Movie"), V(SM::Discreet, "Discreet"),
    V(SM::LiveView, "LiveView"), V(SM::Portrait, "Portrait"),
    V(SM::FaceSelfTimer, "FaceSelfTimer"), V(SM::LowLight, "LowLight"),
    V(SM::FishEyeEffect, "FishEyeEffect"), V(SM::MiniatureEffect, "MiniatureEffect"),
    V(SM::ToyCameraEffect, "ToyCameraEffect"), V(SM::Monochrome, "Monochrome"),
    V(SM::SuperVivid, "SuperVivid"), V(SM::PosterEffect, "PosterEffect"), V(SM::Snow, "Snow"),
    V(SM::Fireworks, "Fireworks"), V(SM::LongShutter, "LongShutter"),
    V(SM::iFrameMovie, "iFrameMovie"), V(SM::DigitalIS, "DigitalIS"),
    V(SM::Landscape, "Landscape"), V(SM::SmartShutter, "SmartShutter"), V(SM::Beach, "Beach"),
    V(SM::Foliage, "Foliage"), V(SM::KidsAndPets, "KidsAndPets"),
    V(SM::ColorAccent, "ColorAccent"), V(SM::ColorSwap, "ColorSwap"), V(SM::Sports, "Sports"),
    V(SM::MovieDigest, "MovieDigest"), V(SM::HighSpeedBurstHQ, "HighSpeedBurstHQ"),
    V(SM::HandheldNightScene, "HandheldNightScene"), V(SM::StitchAssist, "StitchAssist"),
    V(SM::HighSpeedBurst, "HighSpeedBurst"), V(SM::BlurReduction, "BlurReduction"),
    V(SM::MovieMiniatureEffect, "MovieMiniatureEffect"),
    V(SM::MovieColorAccent, "MovieColorAccent"), V(SM::MovieColorSwap, "MovieColorSwap"),
    V(SM::Sunset, "Sunset"), V(SM::NightSnapshot, "NightSnapshot"), V(SM::Indoor, "Indoor"),
    V(SM::SuperSlowMotionMovie, "SuperSlowMotionMovie"), V(SM::SmoothSkin, "SmoothSkin"),
    V(SM::Underwater, "Underwater"), V(SM::HighDynamicRange, "HighDynamicRange"),
    V(SM::Nostalgic, "Nostalgic"), V(SM::SoftFocus, "SoftFocus"),
    V(SM::HybridAuto, "HybridAuto"), V(SM::CreativeShot, "CreativeShot"),
    V(SM::Video2, "Video2"),

    V(IS::Large, "Large"), V(IS::Medium1, "Medium 1"), V(IS::Medium2, "Medium 2"),
    V(IS::Medium3, "Medium 3"), V(IS::Small, "Small"), V(IS::Medium, "Medium"),

    V(JQ::Superfine, "Superfine"), V(JQ::Fine, "Fine"), V(JQ::Normal, "Normal"),
    V(JQ::Normal2, "Normal 2"),

    V(MM::Evaluative, "Evaluative"), V(MM::Spot, "Spot"), V(MM::Center, "Center"),

    V(WB::Auto, "Auto"), V(WB::DayLight, "Day Light"), V(WB::Cloudy, "Cloudy"),
    V(WB::Tungsten, "Tungsten"), V(WB::Fluorescent, "Fluorescent"),
    V(WB::FluorescentH, "Fluorescent H"), V(WB::Custom, "Custom"), V(WB::Flash, "Flash"),
    V(WB::Underwater, "Underwater"), V(WB::Custom1, "Custom 1"), V(WB::Custom2, "Custom 2"),

    V(FM::Auto, "Auto"), V(FM::On, "On"), V(FM::Off, "Off"),

    V(RE::On, "On"), V(RE::Off, "Off"),

    V(ISO::Auto, "Auto"), V(ISO::Iso80, "ISO 80"), V(ISO::Iso100, "ISO 100"),
    V(ISO::Iso125, "ISO 125"), V(ISO::Iso160, "ISO 160"), V(ISO::Iso200, "ISO 200"),
    V(ISO::Iso250, "ISO 250"), V(ISO::Iso320, "ISO 320"), V(ISO::Iso400, "ISO 400"),
    V(ISO::Iso500, "ISO 500"), V(ISO::Iso640, "ISO 640"), V(ISO::Iso800, "ISO 800"),
    V(ISO::Iso1000, "ISO 1000"), V(ISO::Iso1250, "ISO 1250"), V(ISO::Iso1600, "ISO 1600"),
    V(ISO::Iso2000, "ISO 2000"), V(ISO::Iso2500, "ISO 2500"), V(ISO::Iso3200, "ISO 3200"),
    V(ISO::Iso4000, "ISO 4000"), V(ISO::Iso5000, "ISO 5000"), V(ISO::Iso6400, "ISO 6400"),
    V(ISO::Iso8000, "ISO 8000"), V(ISO::Iso10000, "ISO 10000"), V(ISO::Iso12800, "ISO 12800"),

    V(AV::F1_8, "1.8"), V(AV::F2_0, "2.0"), V(AV::F2_2, "2.2"), V(AV::F2_5, "2.5"),
    V(AV::F2_7, "2.7"), V(AV::F2_8, "2.8"), V(AV::F3_2, "3.2"), V(AV::F3_4, "3.4"),
    V(AV::F3_5, "3.5"), V(AV::F4_0, "4.0"), V(AV::F4_5, "4.5"), V(AV::F5_0, "5.0"),
    V(AV::F5_6, "5.6"), V(AV::F6_3, "6.3"), V(AV::F7_1, "7.1"), V(AV::F8_0, "8.0"),

    V(TV::Sec15, "15\""), V(TV::Sec13, "13\""), V(TV::Sec10, "10\""), V(TV::Sec8, "8\""),
    V(TV::Sec6, "6\""), V(TV::Sec5, "5\""), V(TV::Sec4, "4\""), V(TV::Sec3_2, "3\"2"),
    V(TV::Sec2_5, "2\"5"), V(TV::Sec2, "2\""), V(TV::Sec1_6, "1\"6"), V(TV::Sec1_3, "1\"3"),
    V(TV::Sec1, "1\""), V(TV::Sec0_8, "0\"8"), V(TV::Sec0_6, "0\"6"), V(TV::Sec0_5, "0\"5"),
    V(TV::Sec0_4, "0\"4"), V(TV::Sec0_3, "0\"3"), V(TV::Frac1_4, "1/4"), V(TV::Frac1_5, "1/5"),
    V(TV::Frac1_6, "1/6"), V(TV::Frac1_8, "1/8"), V(TV::Frac1_10, "1/10"),
    V(TV::Frac1_13, "1/13"), V(TV::Frac1_15, "1/15"), V(TV::Frac1_20, "1/20"),
    V(TV::Frac1_25, "1/25"), V(TV::Frac1_30, "1/30"), V(TV::Frac1_40, "1/40"),
    V(TV::Frac1_50, "1/50"), V(TV::Frac1_60, "1/60"), V(TV::Frac1_80, "1/80"),
    V(TV::Frac1_100, "1/100"), V(TV::Frac1_125, "1/125"), V(TV::Frac1_160, "1/160"),
    V(TV::Frac1_200, "1/200"), V(TV::Frac1_250, "1/250"), V(TV::Frac1_320, "1/320"),
    V(TV::Frac1_400, "1/400"), V(TV::Frac1_500, "1/500"), V(TV::Frac1_640, "1/640"),
    V(TV::Frac1_800, "1/800"), V(TV::Frac1_1000, "1/1000"), V(TV::Frac1_1250, "1/1250"),
    V(TV::Frac1_1600, "1/1600"), V(TV::Frac1_2000, "1/2000"), V(TV::Frac1_2500, "1/2500"),
    V(TV::Frac1_3200, "1/3200"), V(TV::Frac1_4000, "1/4000"),

    V(EC::Minus3, "-3"), V(EC::Minus2_66, "-2.66"), V(EC::Minus2_33, "-2.33"),
    V(EC::Minus2, "-2"), V(EC::Minus1_66, "-1.66"), V(EC::Minus1_33, "-1.33"),
    V(EC::Minus1, "-1"), V(EC::Minus0_66, "-0.66"), V(EC::Minus0_33, "-0.33"),
    V(EC::Zero, "0"), V(EC::Plus0_33, "+0.33"), V(EC::Plus0_66, "+0.66"), V(EC::Plus1, "+1"),
    V(EC::Plus1_33, "+1.33"), V(EC::Plus1_66, "+1.66"), V(EC::Plus2, "+2"),
    V(EC::Plus2_33, "+2.33"), V(EC::Plus2_66, "+2.66"), V(EC::Plus3, "+3"),

    V(FC::Minus2, "-2"), V(FC::Minus1_66, "-1.66"), V(FC::Minus1_33, "-1.33"),
    V(FC::Minus1, "-1"), V(FC::Minus0_66, "-0.66"), V(FC::Minus0_33, "-0.33"),
    V(FC::Zero, "0"), V(FC::Plus0_33, "+0.33"), V(FC::Plus0_66, "+0.66"), V(FC::Plus1, "+1"),
    V(FC::Plus1_33, "+1.33"), V(FC::Plus1_66, "+1.66"), V(FC::Plus2, "+2"),

    V(BL::Level1, "1"), V(BL::Level2, "2"), V(BL::Level3, "3"), V(BL::Level4, "4"),
    V(BL::DC, "DC"),

    V(FZ::Auto, "Auto"), V(FZ::Normal, "Normal"), V(FZ::Macro, "Macro"),
    V(FZ::SuperMacro, "Super Macro"), V(FZ::Infinity, "Infinity"),
    V(FZ::ManualFocus, "Manual Focus"),

    V(MC::Off, "Off"), V(MC::Vivid, "Vivid"), V(MC::Neutral, "Neutral"), V(MC::Sepia, "Sepia"),
    V(MC::BW, "BW"), V(MC::PositiveFilm, "Positive Film"),
    V(MC::LighterSkinTone, "Lighter Skin Tone"), V(MC::DarkerSkinTone, "Darker Skin Tone"),
    V(MC::VividBlue, "Vivid Blue"), V(MC::VividGreen, "Vivid Green"),
    V(MC::VividRed, "Vivid Red"), V(MC::CustomColor, "Custom Color"),
    V(MC::ColorSwapMode, "ColorSwap Mode"), V(MC::ColorAccentMode, "ColorAccent Mode"),

    V(QKProp_Contrast::Minus2, "-2"), V(QKProp_Contrast::Minus1, "-1"),
    V(QKProp_Contrast::Zero, "0"), V(QKProp_Contrast::Plus1, "1"),
    V(QKProp_Contrast::Plus2, "2"),
    V(QKProp_Sharpness::Minus2, "-2"), V(QKProp_Sharpness::Minus1, "-1"),
    V(QKProp_Sharpness::Zero, "0"), V(QKProp_Sharpness::Plus1, "1"),
    V(QKProp_Sharpness::Plus2, "2"),
    V(QKProp_Saturation::Minus2, "-2"), V(QKProp_Saturation::Minus1, "-1"),
    V(QKProp_Saturation::Zero, "0"), V(QKProp_Saturation::Plus1, "1"),
    V(QKProp_Saturation::Plus2, "2"),
    V(QKProp_Red::Minus2, "-2"), V(QKProp_Red::Minus1, "-1"), V(QKProp_Red::Zero, "0"),
    V(QKProp_Red::Plus1, "1"), V(QKProp_Red::Plus2, "2"),
    V(QKProp_Green::Minus2, "-2"), V(QKProp_Green::Minus1, "-1"), V(QKProp_Green::Zero, "0"),
    V(QKProp_Green::Plus1, "1"), V(QKProp_Green::Plus2, "2"),
    V(QKProp_Blue::Minus2, "-2"), V(QKProp_Blue::Minus1, "-1"), V(QKProp_Blue::Zero, "0"),
    V(QKProp_Blue::Plus1, "1"), V(QKProp_Blue::Plus2, "2"),
    V(QKProp_SkinTone::Minus2, "-2"), V(QKProp_SkinTone::Minus1, "-1"),
    V(QKProp_SkinTone::Zero, "0"), V(QKProp_SkinTone::Plus1, "1"),
    V(QKProp_SkinTone::Plus2, "2"),

    V(FP::Auto, "Auto"), V(FP::Low, "Low"), V(FP::Medium, "Medium"), V(FP::High, "High"),

    V(MF::On, "On"), V(MF::Off, "Off"),
};

const size_t g_PropValueCatalogueSize = std::size(g_PropValueCatalogue);

static std::map<QKProp, const char*> mkPropNames()
{
    std::map<QKProp, const char*> names;
    for (const PropEntry& p : propCatalogue)
        names[p.property] = p.name;
    return names;
}

static std::map<std::pair<QKProp, int>, const char*> mkPropValNames()
{
    std::map<std::pair<QKProp, int>, const char*> names;
    for (const QKPropValueEntry& v : g_PropValueCatalogue)
        names[{v.property, v.value}] = v.name;
    return names;
}

static std::map<std::pair<QKProp, std::string>, int> mkPropNamesVal()
{
    std::map<std::pair<QKProp, std::string>, int> values;
    for (const QKPropValueEntry& v : g_PropValueCatalogue)
        values[{v.property, v.name}] = v.value;
    return values;
}

static std::map<QKProp, bool> mkPropRW()
{
    std::map<QKProp, bool> rw;
    for (const PropEntry& p : propCatalogue)
        rw[p.property] = p.writable;
    return rw;
}

const std::map<QKProp, const char*> g_PropNames = mkPropNames();
const std::map<std::pair<QKProp, int>, const char*> g_PropValNames = mkPropValNames();
const std::map<std::pair<QKProp, std::string>, int> g_PropNamesVal = mkPropNamesVal();
const std::map<QKProp, bool> g_PropReadWrite = mkPropRW();

int GetPropertyName(int property, const char** name)
{
    auto it = g_PropNames.find(static_cast<QKProp>(property));
    if (it == g_PropNames.end())
        return 1;
    *name = it->second;
    return 0;
}

int GetPropertyValName(int property, int value, const char** name)
{
    auto it = g_PropValNames.find({static_cast<QKProp>(property), value});
    if (it == g_PropValNames.end())
        return 1;
    *name = it->second;
    return 0;
}

QKResult GetProperyNameVal(int property, std::string name, int* value)
{
    auto it = g_PropNamesVal.find({static_cast<QKProp>(property), std::move(name)});
    if (it == g_PropNamesVal.end())
        return QK_UNSUPPORTED_VALUE;
    *value = it->second;
    return QK_OK;
}

int IsPropRW(QKProp property, bool* readWrite)
{
    auto it = g_PropReadWrite.find(property);
    if (it == g_PropReadWrite.end())
        return 1;
    *readWrite = it->second;
    return 0;
}
