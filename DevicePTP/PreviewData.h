// SPDX-License-Identifier: MIT
#pragma once
/// @file
/// The live preview state of one camera: two picture buffers, which of them
/// is lent to the host and which is newest, and the frame settings last read.

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "../usb/DataLen.h"

class PreviewDecoder;

/// The camera module's preview settings record, byte for byte: 22
/// little-endian words. Two records are the same when all 88 bytes agree.
struct VideoSettings {
    uint32_t word0 = 0;     ///< kept as the camera sent it
    uint32_t width = 0;     ///< frame width in pixels
    uint32_t height = 0;    ///< frame height in lines; 180 means: use height180
    uint32_t word3 = 0;     ///< kept as the camera sent it
    uint32_t word4 = 0;     ///< kept as the camera sent it
    uint32_t height180 = 0; ///< the real height when height is 180
    uint32_t rest[16] = {}; ///< kept as the camera sent them
};
static_assert(sizeof(VideoSettings) == 88, "the record is 88 bytes on the wire");

/// Part of each DevicePTP; a host never touches it directly, but it is in
/// the class's layout.
struct PreviewData {
    /// Both buffers empty, a decoder ready.
    PreviewData();
    /// Frees the decoder; DevicePTP frees the pictures.
    ~PreviewData();
    PreviewData(const PreviewData&) = delete;
    PreviewData& operator=(const PreviewData&) = delete;

    /// Guards everything below and is held over a whole load.
    std::mutex previewMutex;
    /// The two pictures; each owns its memory (new[]).
    std::vector<DataLen> frames = std::vector<DataLen>(2);
    int heldFrame = -1;  ///< lent to the host, -1 when none is
    int readyFrame = -1; ///< newest finished picture, -1 before the first
    VideoSettings videoSettings; ///< as last read
    int64_t settingsTime = 0; ///< when they were read: ms since the system clock's epoch
    /// Conversion tables, kept while the frame size stays; null when there
    /// was no memory for them, and then no frame is decoded.
    std::unique_ptr<PreviewDecoder> decoder;
};
