// SPDX-License-Identifier: MIT
#pragma once
/// @file
/// One file of a camera.

/// One file of a camera. Non-negative ids are PTP object handles; negative
/// ids are direct-transfer files held in memory.
struct QKFileInfo {
    int id = 0;             ///< object handle, or a negative direct-transfer id
    wchar_t name[128] = {}; ///< zero-terminated, at most 127 characters
    int size = 0;           ///< bytes
};
