#pragma once

// Result of every camera operation; callers test for non-zero.
enum QKResult {
    QK_OK = 0,
    QK_ERROR = 1,
    QK_NOT_READY = 4,
    QK_UNKNOWN_PROPERTY = 6,
    QK_UNSUPPORTED_VALUE = 7,
    QK_LOW_BATTERY = 8,
    QK_OLD_MODULE = 13,
};
