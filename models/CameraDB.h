#pragma once
#include <string>
#include <vector>

#include "CameraConfig.h"

// Calls the generated builders in recognition order.
std::vector<CameraConfig> initCameraDB();
// Built before main, read-only afterwards.
extern std::vector<CameraConfig> cameraDB;

// First record, in table order, whose name occurs inside the product string.
// On a miss *out stays as it was.
bool findCameraConfig(CameraConfig* out, std::wstring deviceName);
