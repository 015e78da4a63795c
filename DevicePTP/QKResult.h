// SPDX-License-Identifier: MIT
#pragma once
/// @file
/// The result of every camera operation.

/// Result of every camera operation; callers test for non-zero.
enum QKResult {
    QK_OK = 0,                 ///< done
    QK_ERROR = 1,              ///< the camera or the transport failed; the log says where
    QK_NOT_READY = 4,          ///< the camera is not in a state to do it (not in record mode, busy)
    QK_UNKNOWN_PROPERTY = 6,   ///< the model has no such property
    QK_UNSUPPORTED_VALUE = 7,  ///< the value is not one the property can take now
    QK_LOW_BATTERY = 8,        ///< refused to spare a low battery
    QK_OLD_MODULE = 13,        ///< the camera's module is older than the version required
};
