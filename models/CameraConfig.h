#pragma once
// One camera model's record: how the model names the engine's properties and
// values, how each property is written, which cross-property rules hold, and
// the lens figures. Records are generated from the data files in models/.
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "PropertyDB.h"

// How a property is read from and written to the camera.
enum ProperyWriteKind : int32_t {
    WriteKind_Plain = 0,        // one case
    WriteKind_SubPropery = 1,   // the same raw value to cameraId, then subId1
    WriteKind_SubPropery2 = 2,  // ... to cameraId, subId1, subId2
    WriteKind_FlashPower = 3,   // two cases: subId1 adjust mode, subId2 manual output
    WriteKind_CaptureMode = 4,  // a capture-mode command, not a case write
    WriteKind_ManualFocus = 5,  // the manual-focus command; never read
};

// Cross-property rules; the code only asks whether a model has one.
enum PropConstraint : int32_t {
    Constraint_JpegQuality = 0,  // no Superfine at Large
    Constraint_Av = 1,           // Av only in Manual and AV
    Constraint_Tv = 2,           // Tv only in Manual and TV
    Constraint_CustomColor = 3,  // Contrast..SkinTone only under Custom Color
};

struct QKProp_ValExtendedInfo {
    int32_t width = 0;
    int32_t height = 0;
};

struct ProperyValConfig {
    int32_t sdkValue = 0;     // in the property's QKProp_* enumeration
    int32_t cameraValue = 0;  // compared with the camera's word as is, no sign games
    bool hasExtendedInfo = false;
    QKProp_ValExtendedInfo extendedInfo;
};

// subId1 and subId2 are -1 where the write kind doesn't use them.
struct ProperyConfig {
    int32_t cameraId = -1;
    std::vector<ProperyValConfig> values;  // in the model's own order, handed to callers
    ProperyWriteKind writeKind = WriteKind_Plain;
    int32_t subId1 = -1;
    int32_t subId2 = -1;
};

struct CameraConfig {
    std::wstring name;  // recognised inside the USB product string
    std::map<QKProp, ProperyConfig> properties;
    std::set<PropConstraint> constraints;
    int32_t maxZoom = 0;
    // One strictly ascending row of focus positions per zoom position, or empty.
    std::vector<std::vector<int32_t>> focusTable;
};
