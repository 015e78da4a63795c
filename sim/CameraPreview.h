// SPDX-License-Identifier: MIT
#pragma once
// The live preview of a virtual camera: the settings record the module
// reports, and the frame it gives at memory address 0, a test picture of
// colour bars over a grey ramp with a red square that moves on from frame to
// frame. The picture is encoded with the inverse of the host's colour
// conversion, so that decoded bars show their intended colours.
//
// Handlers on the bus thread and tests on their own threads share it, so its
// state is behind one lock.

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace qksim {

class CameraMemory;
class PtpResponder;

// The preview settings record: 22 little-endian words; word 1 is the width,
// word 2 the height, and a height of 180 means that word 5 holds the real one.
struct PreviewSettings {
    std::array<uint32_t, 22> words{};

    // A record for a frame of that size, as the cameras send it.
    static PreviewSettings Sized(uint32_t width, uint32_t height);
    // The form with 180 in the height word and the real height in word 5.
    static PreviewSettings Height180(uint32_t width, uint32_t height);
    uint32_t Width() const { return words[1]; }
    // The number of lines in the frame.
    uint32_t Height() const { return words[2] == 180 ? words[5] : words[2]; }
    std::vector<uint8_t> Bytes() const;
};

// "720x240", "360x240", "320x240", "704x480" or "720x180:240" (the height-180
// form); false for anything else of that shape that makes no frame.
bool ParsePreviewSettings(const std::string& text, PreviewSettings* settings);

struct Rgb {
    uint8_t red = 0;
    uint8_t green = 0;
    uint8_t blue = 0;
};

class CameraPreview {
public:
    // The largest frame the camera renders; larger reads get zeros.
    static constexpr uint32_t kMaxFrame = 8u << 20;

    CameraPreview(); // 720x240

    void SetSettings(const PreviewSettings& settings);
    PreviewSettings Settings() const;

    // The frame a read at address 0 returns, `length` bytes (cut or padded
    // with zeros when it is not the frame's size); each call is the next frame.
    std::vector<uint8_t> NextFrame(uint32_t length);
    uint32_t FramesServed() const;

    // Frame number `number` of a frame of this size, in the packed format:
    // groups of U, Y0, V, Y1, Y2, Y3.
    static std::vector<uint8_t> Render(uint32_t width, uint32_t height, uint32_t number);

    // What the picture shows, as a host decodes it.
    static const std::array<Rgb, 8>& BarColours(); // left to right
    static Rgb MarkerColour();
    // Rows [0, BarRows) hold the bars; the rest the ramp, with the marker.
    static uint32_t BarRows(uint32_t height) { return height * 2 / 3; }
    // The marker's first source column in frame `number`, and its size.
    static uint32_t MarkerColumn(uint32_t width, uint32_t height, uint32_t number);
    static uint32_t MarkerRows(uint32_t height);
    static uint32_t MarkerGroups(uint32_t width, uint32_t height);

private:
    mutable std::mutex mutex;
    PreviewSettings settings;
    uint32_t served = 0;
};

// PTP_BASEMOD_VideoConfig, and the memory read: the frame at address 0,
// `memory` everywhere else.
void InstallPreviewOperations(PtpResponder& responder, const std::shared_ptr<CameraPreview>& preview,
                              const std::shared_ptr<CameraMemory>& memory);

} // namespace qksim
