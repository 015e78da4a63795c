// SPDX-License-Identifier: MIT
#pragma once
// Shared by property loading, writing and queries: finding a value in a
// model's table, and the constraints between properties. A missing cache
// entry (nothing loaded yet) reads as 0 for a constraint and is never created:
// a query must not make a property look known.

#include <map>
#include <vector>

#include "models/CameraConfig.h"

// The first value of the table whose `field` (sdkValue or cameraValue) equals
// `value`, or null.
inline const ProperyValConfig* FindPropertyValue(const ProperyConfig& config,
                                                 int32_t ProperyValConfig::*field, int value)
{
    for (const ProperyValConfig& v : config.values)
        if (v.*field == value)
            return &v;
    return nullptr;
}

bool IsPropertyAvailableByConstraint(const std::map<QKProp, int>& values, const CameraConfig& config,
                                     QKProp property);
bool IsPropertyValueAvailableByConstraint(const std::map<QKProp, int>& values, const CameraConfig& config,
                                          QKProp property, int value);
// Carries out the one dependent change in `values` and lists what it changed.
std::vector<QKProp> SetPropertyData_ModifyProperies(std::map<QKProp, int>& values,
                                                    const CameraConfig& config, QKProp property,
                                                    int value);
