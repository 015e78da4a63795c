// SPDX-License-Identifier: MIT
#pragma once
/// @file
/// A buffer and its length.

/// A buffer and its length in bytes. It never owns the buffer: whoever
/// allocated it frees it.
struct DataLen {
    void* data = nullptr;  ///< the bytes, or null
    unsigned int len = 0;  ///< how many

    DataLen() = default;
    /// Points at `l` bytes at `d`.
    DataLen(void* d, unsigned int l) : data(d), len(l) {}
};
