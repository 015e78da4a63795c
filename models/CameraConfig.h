// SPDX-License-Identifier: MIT
#pragma once
/// @file
/// One camera model's record: how the model names the engine's properties and
/// values, how each property is written, which cross-property rules hold, and
/// the lens figures. Records are generated from the data files in models/.
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "PropertyDB.h"

/// How a property is read from and written to the camera.
enum ProperyWriteKind : int32_t {
    WriteKind_Plain = 0,        ///< one case
    WriteKind_SubPropery = 1,   ///< the same raw value to cameraId, then subId1
    WriteKind_SubPropery2 = 2,  ///< ... to cameraId, subId1, subId2
    WriteKind_FlashPower = 3,   ///< two cases: subId1 adjust mode, subId2 manual output
    WriteKind_CaptureMode = 4,  ///< a capture-mode command, not a case write
    WriteKind_ManualFocus = 5,  ///< the manual-focus command; never read
};

/// Cross-property rules; the code only asks whether a model has one.
enum PropConstraint : int32_t {
    Constraint_JpegQuality = 0,  ///< no Superfine at Large
    Constraint_Av = 1,           ///< Av only in Manual and AV
    Constraint_Tv = 2,           ///< Tv only in Manual and TV
    Constraint_CustomColor = 3,  ///< Contrast..SkinTone only under Custom Color
};

/// What a value says beyond its name: an image size's pixels.
struct QKProp_ValExtendedInfo {
    int32_t width = 0;  ///< pixels
    int32_t height = 0; ///< pixels
};

/// One value of a property on a model: the engine's number and the camera's.
struct ProperyValConfig {
    int32_t sdkValue = 0;     ///< in the property's QKProp_* enumeration
    int32_t cameraValue = 0;  ///< compared with the camera's word as is, no sign games
    bool hasExtendedInfo = false;        ///< whether extendedInfo means anything
    QKProp_ValExtendedInfo extendedInfo; ///< the image size's pixels
};

/// One property on a model: where the camera keeps it, its values, how it
/// is written; subId1 and subId2 are -1 where the write kind doesn't use them.
struct ProperyConfig {
    int32_t cameraId = -1;  ///< the camera's property case, -1 for none
    std::vector<ProperyValConfig> values;  ///< in the model's own order, handed to callers
    ProperyWriteKind writeKind = WriteKind_Plain; ///< how it is written
    int32_t subId1 = -1;  ///< second case written, per the write kind
    int32_t subId2 = -1;  ///< third case written, per the write kind
};

/// One camera model's record; DevicePTP keeps its own copy of its camera's.
struct CameraConfig {
    std::wstring name;  ///< recognised inside the USB product string
    std::map<QKProp, ProperyConfig> properties; ///< the model's properties
    std::set<PropConstraint> constraints;       ///< the rules that hold on it
    int32_t maxZoom = 0;                        ///< the widest zoom is 0, this the longest
    /// One strictly ascending row of focus positions per zoom position, or empty.
    std::vector<std::vector<int32_t>> focusTable;
};
