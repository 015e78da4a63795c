// SPDX-License-Identifier: MIT
#pragma once
/// @file
/// The engine's own vocabulary of camera settings. The numbers are stable and
/// the same for every model; a model record translates them into the camera's
/// property cases and raw values. The lookups and tables are constant: any
/// thread may use them, and nothing they hand out is freed.
#include <cstddef>
#include <map>
#include <string>
#include <utility>

#include "../DevicePTP/QKResult.h"

/// The camera settings; 12 is a hole: no member, no name, no values,
/// offered by no model.
enum class QKProp : int {
    ShootingMode = 0,
    ImageSize = 1,
    JpegQuality = 2,
    MeteringMode = 3,
    WBmode = 4,
    FlashMode = 5,
    RedEyeMode = 6,
    ISOSpeed = 7,
    Av = 8,
    Tv = 9,
    ExposureComp = 10,
    FlashComp = 11,
    BatteryLevel = 13,
    FocusingZone = 14,
    MyColors = 15,
    Contrast = 16,
    Sharpness = 17,
    Saturation = 18,
    Red = 19,
    Green = 20,
    Blue = 21,
    SkinTone = 22,
    FlashPower = 23,
    ManualFocusMode = 24,
};

/// The values of QKProp::ShootingMode.
enum class QKProp_ShootingMode : int {
    Auto = 0, Program = 1, Manual = 2, AV = 3, TV = 4, Easy = 5, Movie = 6, Discreet = 7,
    LiveView = 8, Portrait = 9, FaceSelfTimer = 10, LowLight = 11, FishEyeEffect = 12,
    MiniatureEffect = 13, ToyCameraEffect = 14, Monochrome = 15, SuperVivid = 16,
    PosterEffect = 17, Snow = 18, Fireworks = 19, LongShutter = 20, iFrameMovie = 21,
    DigitalIS = 22, Landscape = 23, SmartShutter = 24, Beach = 25, Foliage = 26,
    KidsAndPets = 27, ColorAccent = 28, ColorSwap = 29, Sports = 30, MovieDigest = 31,
    HighSpeedBurstHQ = 32, HandheldNightScene = 33, StitchAssist = 34, HighSpeedBurst = 35,
    BlurReduction = 36, MovieMiniatureEffect = 37, MovieColorAccent = 38, MovieColorSwap = 39,
    Sunset = 40, NightSnapshot = 41, Indoor = 42, SuperSlowMotionMovie = 43, SmoothSkin = 44,
    Underwater = 45, HighDynamicRange = 46, Nostalgic = 47, SoftFocus = 48, HybridAuto = 49,
    CreativeShot = 50, Video2 = 51,
};

/// The values of QKProp::ImageSize.
enum class QKProp_ImageSize : int { Large = 0, Medium1 = 1, Medium2 = 2, Medium3 = 3, Small = 4, Medium = 5 };

/// The values of QKProp::JpegQuality.
enum class QKProp_JpegQuality : int { Superfine = 0, Fine = 1, Normal = 2, Normal2 = 3 };

/// The values of QKProp::MeteringMode.
enum class QKProp_MeteringMode : int { Evaluative = 0, Spot = 1, Center = 2 };

/// The values of QKProp::WBmode.
enum class QKProp_WBmode : int {
    Auto = 0, DayLight = 1, Cloudy = 2, Tungsten = 3, Fluorescent = 4, FluorescentH = 5,
    Custom = 6, Flash = 7, Underwater = 8, Custom1 = 9, Custom2 = 10,
};

/// The values of QKProp::FlashMode.
enum class QKProp_FlashMode : int { Auto = 0, On = 1, Off = 2 };

/// The values of QKProp::RedEyeMode.
enum class QKProp_RedEyeMode : int { On = 0, Off = 1 };

// The value is the ISO number itself.
/// The values of QKProp::ISOSpeed.
enum class QKProp_ISOSpeed : int {
    Auto = 0, Iso80 = 80, Iso100 = 100, Iso125 = 125, Iso160 = 160, Iso200 = 200, Iso250 = 250,
    Iso320 = 320, Iso400 = 400, Iso500 = 500, Iso640 = 640, Iso800 = 800, Iso1000 = 1000,
    Iso1250 = 1250, Iso1600 = 1600, Iso2000 = 2000, Iso2500 = 2500, Iso3200 = 3200,
    Iso4000 = 4000, Iso5000 = 5000, Iso6400 = 6400, Iso8000 = 8000, Iso10000 = 10000,
    Iso12800 = 12800,
};

// Ten times the f-number.
/// The values of QKProp::Av.
enum class QKProp_Av : int {
    F1_8 = 18, F2_0 = 20, F2_2 = 22, F2_5 = 25, F2_7 = 27, F2_8 = 28, F3_2 = 32, F3_4 = 34,
    F3_5 = 35, F4_0 = 40, F4_5 = 45, F5_0 = 50, F5_6 = 56, F6_3 = 63, F7_1 = 71, F8_0 = 80,
};

// Roughly the exposure time in ten-thousandths of a second, but fixed numbers:
// the short end is squeezed (1/3200 is 2, 1/4000 is 1).
/// The values of QKProp::Tv.
enum class QKProp_Tv : int {
    Sec15 = 150000, Sec13 = 130000, Sec10 = 100000, Sec8 = 80000, Sec6 = 60000, Sec5 = 50000,
    Sec4 = 40000, Sec3_2 = 32000, Sec2_5 = 25000, Sec2 = 20000, Sec1_6 = 16000, Sec1_3 = 13000,
    Sec1 = 10000, Sec0_8 = 8000, Sec0_6 = 6000, Sec0_5 = 5000, Sec0_4 = 4000, Sec0_3 = 3000,
    Frac1_4 = 2500, Frac1_5 = 2000, Frac1_6 = 1666, Frac1_8 = 1250, Frac1_10 = 1000,
    Frac1_13 = 769, Frac1_15 = 666, Frac1_20 = 500, Frac1_25 = 400, Frac1_30 = 333,
    Frac1_40 = 250, Frac1_50 = 200, Frac1_60 = 166, Frac1_80 = 125, Frac1_100 = 100,
    Frac1_125 = 80, Frac1_160 = 62, Frac1_200 = 50, Frac1_250 = 40, Frac1_320 = 31,
    Frac1_400 = 25, Frac1_500 = 20, Frac1_640 = 15, Frac1_800 = 12, Frac1_1000 = 10,
    Frac1_1250 = 8, Frac1_1600 = 6, Frac1_2000 = 5, Frac1_2500 = 4, Frac1_3200 = 2,
    Frac1_4000 = 1,
};

// (stops + 2) * 100 within +-2; the outer thirds were added later and got
// numbers of their own from 500 up.
/// The values of QKProp::ExposureComp.
enum class QKProp_ExposureComp : int {
    Minus3 = 500, Minus2_66 = 501, Minus2_33 = 502, Minus2 = 0, Minus1_66 = 34, Minus1_33 = 67,
    Minus1 = 100, Minus0_66 = 134, Minus0_33 = 167, Zero = 200, Plus0_33 = 233, Plus0_66 = 266,
    Plus1 = 300, Plus1_33 = 333, Plus1_66 = 366, Plus2 = 400, Plus2_33 = 503, Plus2_66 = 504,
    Plus3 = 505,
};

/// The values of QKProp::FlashComp.
enum class QKProp_FlashComp : int {
    Minus2 = 0, Minus1_66 = 34, Minus1_33 = 67, Minus1 = 100, Minus0_66 = 134, Minus0_33 = 167,
    Zero = 200, Plus0_33 = 233, Plus0_66 = 266, Plus1 = 300, Plus1_33 = 333, Plus1_66 = 366,
    Plus2 = 400,
};

// Bars counted from the lowest; DC means a mains supply.
/// The values of QKProp::BatteryLevel.
enum class QKProp_BatteryLevel : int { Level1 = 0, Level2 = 1, Level3 = 2, Level4 = 3, DC = 4 };

/// The values of QKProp::FocusingZone.
enum class QKProp_FocusingZone : int {
    Auto = 0, Normal = 1, Macro = 2, SuperMacro = 3, Infinity = 4, ManualFocus = 5,
};

/// The values of QKProp::MyColors.
enum class QKProp_MyColors : int {
    Off = 0, Vivid = 1, Neutral = 2, Sepia = 3, BW = 4, PositiveFilm = 5, LighterSkinTone = 6,
    DarkerSkinTone = 7, VividBlue = 8, VividGreen = 9, VividRed = 10, CustomColor = 11,
    ColorSwapMode = 12, ColorAccentMode = 13,
};

// The Custom Color adjustments: five steps, 2 is neutral.
/// The values of QKProp::Contrast.
enum class QKProp_Contrast : int { Minus2 = 0, Minus1 = 1, Zero = 2, Plus1 = 3, Plus2 = 4 };
/// The values of QKProp::Sharpness.
enum class QKProp_Sharpness : int { Minus2 = 0, Minus1 = 1, Zero = 2, Plus1 = 3, Plus2 = 4 };
/// The values of QKProp::Saturation.
enum class QKProp_Saturation : int { Minus2 = 0, Minus1 = 1, Zero = 2, Plus1 = 3, Plus2 = 4 };
/// The values of QKProp::Red.
enum class QKProp_Red : int { Minus2 = 0, Minus1 = 1, Zero = 2, Plus1 = 3, Plus2 = 4 };
/// The values of QKProp::Green.
enum class QKProp_Green : int { Minus2 = 0, Minus1 = 1, Zero = 2, Plus1 = 3, Plus2 = 4 };
/// The values of QKProp::Blue.
enum class QKProp_Blue : int { Minus2 = 0, Minus1 = 1, Zero = 2, Plus1 = 3, Plus2 = 4 };
/// The values of QKProp::SkinTone.
enum class QKProp_SkinTone : int { Minus2 = 0, Minus1 = 1, Zero = 2, Plus1 = 3, Plus2 = 4 };

/// The values of QKProp::FlashPower.
enum class QKProp_FlashPower : int { Auto = 0, Low = 1, Medium = 2, High = 3 };

/// The values of QKProp::ManualFocusMode.
enum class QKProp_ManualFocusMode : int { On = 0, Off = 1 };

/// One row of the value catalogue. The catalogue keeps each property's values
/// in their display order, which the rule-built model tables walk (Tv from the
/// longest time down, compensation from the lowest step up).
struct QKPropValueEntry {
    QKProp property;  ///< whose value
    int value;        ///< the engine's number for it
    const char* name; ///< its display name
};

/// Every value of every property in display order: constant data, usable
/// while other statics are still being built.
extern const QKPropValueEntry g_PropValueCatalogue[];
/// Rows in g_PropValueCatalogue.
extern const size_t g_PropValueCatalogueSize;

/// Display name of each property.
extern const std::map<QKProp, const char*> g_PropNames;
/// Display name of each value, by property and number.
extern const std::map<std::pair<QKProp, int>, const char*> g_PropValNames;
/// Number of each value, by property and display name.
extern const std::map<std::pair<QKProp, std::string>, int> g_PropNamesVal;
/// Whether a host may write each property.
extern const std::map<QKProp, bool> g_PropReadWrite;

/// The display name of a property: 0 and `*name` (a static string) on a
/// hit; 1 on a miss, `*name` untouched.
int GetPropertyName(int property, const char** name);
/// The display name of a property's value: 0 and `*name` (a static string)
/// on a hit; 1 on a miss, `*name` untouched.
int GetPropertyValName(int property, int value, const char** name);
/// The number of a property's value from its display name: QK_OK and
/// `*value` on a hit; QK_UNSUPPORTED_VALUE on a miss, `*value` untouched.
/// Names compare byte by byte: "auto" is not "Auto".
QKResult GetProperyNameVal(int property, std::string name, int* value);
/// Whether a host may write the property: 0 and `*readWrite` on a hit; 1
/// on a miss, `*readWrite` untouched.
int IsPropRW(QKProp property, bool* readWrite);
