// SPDX-License-Identifier: MIT
#pragma once
/// @file
/// The values a property can take now.
#include "../models/CameraConfig.h"

/// The values a property can take now, handed out by
/// DevicePTP::GetPropertyDesc and given back through DevicePTP::FreePointer,
/// which frees the arrays too.
struct QKProp_Desc {
    int* values = nullptr;                     ///< in the model's table order
    QKProp_ValExtendedInfo* extended = nullptr; ///< parallel to values, or null
    int count = 0;                             ///< entries in values (and extended)
    int readOnly = 0;                          ///< 1 when the property can't be written
};
