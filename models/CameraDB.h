// SPDX-License-Identifier: MIT
#pragma once
/// @file
/// The table of the camera models the engine knows.
#include <string>
#include <vector>

#include "CameraConfig.h"

/// Builds the model table: the generated records in recognition order.
std::vector<CameraConfig> initCameraDB();
/// The model table; built before main, read-only afterwards, so any thread may read it.
extern std::vector<CameraConfig> cameraDB;

/// Copies into `*out` the first record, in table order, whose name occurs
/// inside the USB product string, and returns true; on a miss returns false
/// and `*out` stays as it was. Any thread.
bool findCameraConfig(CameraConfig* out, std::wstring deviceName);
