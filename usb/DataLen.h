#pragma once

// A buffer and its length in bytes. It never owns the buffer: whoever
// allocated it frees it.
struct DataLen {
    void* data = nullptr;
    unsigned int len = 0;

    DataLen() = default;
    DataLen(void* d, unsigned int l) : data(d), len(l) {}
};
