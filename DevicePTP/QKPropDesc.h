#pragma once
#include "../models/CameraConfig.h"

// The values a property can take now, handed to a host and given back
// through FreePointer.
struct QKProp_Desc {
    int* values = nullptr;                     // in the model's table order
    QKProp_ValExtendedInfo* extended = nullptr; // parallel to values, or null
    int count = 0;
    int readOnly = 0;                          // 1 when the property can't be written
};
