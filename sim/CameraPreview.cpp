// SPDX-License-Identifier: MIT
#include "sim/CameraPreview.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "sim/CameraMemory.h"
#include "sim/PtpContainer.h"
#include "sim/PtpResponder.h"

namespace qksim {

namespace {

struct Yuv {
    uint8_t y = 0;
    int8_t u = 0;
    int8_t v = 0;
};

uint8_t Clip(int value) { return static_cast<uint8_t>(std::min(255, std::max(0, value))); }

// What a host makes of one pixel: full-range YCbCr in 12-bit fixed point.
Rgb Decode(int y, int u, int v)
{
    Rgb out;
    out.blue = Clip((y * 4096 + 7258 * u + 2048) >> 12);
    out.green = Clip((y * 4096 - 1411 * u - 2925 * v + 2048) >> 12);
    out.red = Clip((y * 4096 + 5743 * v + 2048) >> 12);
    return out;
}

int Error(const Rgb& a, const Rgb& b)
{
    return std::max({std::abs(a.red - b.red), std::abs(a.green - b.green), std::abs(a.blue - b.blue)});
}

// The pixel value that decodes nearest to `colour`: the textbook inverse,
// then a search around it, since rounding and clipping move the result.
Yuv Encode(const Rgb& colour)
{
    const double y = 0.299 * colour.red + 0.587 * colour.green + 0.114 * colour.blue;
    const int y0 = static_cast<int>(y + 0.5);
    const int u0 = static_cast<int>((colour.blue - y) / 1.772 + (colour.blue >= y ? 0.5 : -0.5));
    const int v0 = static_cast<int>((colour.red - y) / 1.402 + (colour.red >= y ? 0.5 : -0.5));
    Yuv best;
    int bestError = 1 << 20;
    for (int dy = -6; dy <= 6; ++dy)
        for (int du = -6; du <= 6; ++du)
            for (int dv = -6; dv <= 6; ++dv) {
                const int yy = std::min(255, std::max(0, y0 + dy));
                const int uu = std::min(127, std::max(-128, u0 + du));
                const int vv = std::min(127, std::max(-128, v0 + dv));
                const int error = Error(Decode(yy, uu, vv), colour);
                if (error < bestError) {
                    bestError = error;
                    best = Yuv{static_cast<uint8_t>(yy), static_cast<int8_t>(uu), static_cast<int8_t>(vv)};
                }
            }
    return best;
}

const std::array<Yuv, 8>& EncodedBars()
{
    static const std::array<Yuv, 8> bars = [] {
        std::array<Yuv, 8> out;
        for (size_t i = 0; i < out.size(); ++i)
            out[i] = Encode(CameraPreview::BarColours()[i]);
        return out;
    }();
    return bars;
}

const Yuv& EncodedMarker()
{
    static const Yuv marker = Encode(CameraPreview::MarkerColour());
    return marker;
}

} // namespace

PreviewSettings PreviewSettings::Sized(uint32_t width, uint32_t height)
{
    PreviewSettings s;
    s.words[0] = 2;                 // the display mode of the module
    s.words[1] = width;
    s.words[2] = height;
    s.words[3] = width * 6 / 4;     // bytes a line
    s.words[4] = 30;                // frames a second
    s.words[5] = height;
    return s;
}

PreviewSettings PreviewSettings::Height180(uint32_t width, uint32_t height)
{
    PreviewSettings s = Sized(width, height);
    s.words[2] = 180;
    return s;
}

std::vector<uint8_t> PreviewSettings::Bytes() const
{
    std::vector<uint8_t> out;
    for (uint32_t word : words)
        PutLe32(out, word);
    return out;
}

bool ParsePreviewSettings(const std::string& text, PreviewSettings* settings)
{
    unsigned int width = 0, height = 0, real = 0;
    char tail = 0;
    if (std::sscanf(text.c_str(), "%ux%u:%u%c", &width, &height, &real, &tail) == 3 && height == 180 &&
        real > 0 && real <= 2048 && width > 0 && width % 4 == 0 && width <= 4096) {
        *settings = PreviewSettings::Height180(width, real);
        return true;
    }
    if (std::sscanf(text.c_str(), "%ux%u%c", &width, &height, &tail) == 2 && width > 0 &&
        width % 4 == 0 && width <= 4096 && height > 0 && height <= 2048 && height != 180) {
        *settings = PreviewSettings::Sized(width, height);
        return true;
    }
    return false;
}

CameraPreview::CameraPreview() : settings(PreviewSettings::Sized(720, 240)) {}

void CameraPreview::SetSettings(const PreviewSettings& s)
{
    std::lock_guard<std::mutex> lock(mutex);
    settings = s;
}

PreviewSettings CameraPreview::Settings() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return settings;
}

uint32_t CameraPreview::FramesServed() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return served;
}

std::vector<uint8_t> CameraPreview::NextFrame(uint32_t length)
{
    uint32_t width, height, number;
    {
        std::lock_guard<std::mutex> lock(mutex);
        width = settings.Width();
        height = settings.Height();
        number = served++;
    }
    std::vector<uint8_t> frame;
    const uint64_t bytes = static_cast<uint64_t>(width) * height * 6 / 4;
    // A broken record makes no picture; the memory there reads as zeros.
    if (width % 4 == 0 && bytes > 0 && bytes <= kMaxFrame)
        frame = Render(width, height, number);
    frame.resize(length, 0);
    return frame;
}

const std::array<Rgb, 8>& CameraPreview::BarColours()
{
    static const std::array<Rgb, 8> bars = {{
        {255, 255, 255}, // white
        {255, 255, 0},   // yellow
        {0, 255, 255},   // cyan
        {0, 255, 0},     // green
        {255, 0, 255},   // magenta
        {255, 0, 0},     // red
        {0, 0, 255},     // blue
        {0, 0, 0},       // black
    }};
    return bars;
}

Rgb CameraPreview::MarkerColour() { return Rgb{230, 20, 20}; }

uint32_t CameraPreview::MarkerRows(uint32_t height) { return std::max(1u, (height - BarRows(height)) * 3 / 5); }

uint32_t CameraPreview::MarkerGroups(uint32_t width, uint32_t height)
{
    // Square on the picture, which is four thirds of the height wide.
    const double sourcePerPicture = width / (height * 4.0 / 3.0);
    return std::max(1u, static_cast<uint32_t>(MarkerRows(height) * sourcePerPicture / 4 + 0.5));
}

uint32_t CameraPreview::MarkerColumn(uint32_t width, uint32_t height, uint32_t number)
{
    const uint32_t groups = width / 4;
    const uint32_t marker = std::min(groups, MarkerGroups(width, height));
    const uint32_t travel = groups - marker + 1;
    const uint32_t step = std::max(1u, groups / 60); // across the picture in 60 frames
    return 4 * ((number * step) % travel);
}

std::vector<uint8_t> CameraPreview::Render(uint32_t width, uint32_t height, uint32_t number)
{
    const uint32_t groups = width / 4;
    std::vector<uint8_t> frame(static_cast<size_t>(groups) * 6 * height);
    const uint32_t barRows = BarRows(height);
    const uint32_t markerRows = MarkerRows(height);
    const uint32_t markerTop = barRows + (height - barRows - markerRows) / 2;
    const uint32_t markerFirst = MarkerColumn(width, height, number) / 4;
    const uint32_t markerEnd = markerFirst + std::min(groups, MarkerGroups(width, height));
    uint8_t* out = frame.data();
    for (uint32_t row = 0; row < height; ++row) {
        const bool markerRow = row >= markerTop && row < markerTop + markerRows;
        for (uint32_t g = 0; g < groups; ++g, out += 6) {
            Yuv pixel[4];
            if (row < barRows) {
                pixel[0] = pixel[1] = pixel[2] = pixel[3] = EncodedBars()[g * 8 / groups];
            } else if (markerRow && g >= markerFirst && g < markerEnd) {
                pixel[0] = pixel[1] = pixel[2] = pixel[3] = EncodedMarker();
            } else {
                // A neutral ramp from black to white, one step a pixel.
                for (uint32_t k = 0; k < 4; ++k)
                    pixel[k].y = static_cast<uint8_t>((4 * g + k) * 255 / std::max(1u, width - 1));
            }
            out[0] = static_cast<uint8_t>(pixel[0].u);
            out[1] = pixel[0].y;
            out[2] = static_cast<uint8_t>(pixel[0].v);
            out[3] = pixel[1].y;
            out[4] = pixel[2].y;
            out[5] = pixel[3].y;
        }
    }
    return frame;
}

void InstallPreviewOperations(PtpResponder& responder, const std::shared_ptr<CameraPreview>& preview,
                              const std::shared_ptr<CameraMemory>& memory)
{
    std::weak_ptr<CameraPreview> weakPreview = preview;
    std::weak_ptr<CameraMemory> weakMemory = memory;
    responder.SetBuiltinVendor(ptp::BASEMOD_VideoConfig, [weakPreview](const PtpCommand&) {
        PtpReply reply;
        std::shared_ptr<CameraPreview> p = weakPreview.lock();
        if (!p) {
            reply.responseCode = ptp::RC_GeneralError;
            return reply;
        }
        reply.hasData = true;
        reply.data = p->Settings().Bytes();
        return reply;
    });
    // The module gives the current frame at address 0; the rest of the
    // memory is the camera's RAM.
    responder.SetBuiltinVendor(ptp::BASEMOD_ReadMem, [weakPreview, weakMemory](const PtpCommand& command) {
        PtpReply reply;
        std::shared_ptr<CameraPreview> p = weakPreview.lock();
        std::shared_ptr<CameraMemory> m = weakMemory.lock();
        if (!p || !m) {
            reply.responseCode = ptp::RC_GeneralError;
            return reply;
        }
        if (command.params.size() < 3 || command.params[2] > CameraMemory::kMaxRead) {
            reply.responseCode = ptp::RC_InvalidParameter;
            return reply;
        }
        const uint32_t address = command.params[1];
        const uint32_t length = command.params[2];
        m->NoteRead(address, length);
        reply.hasData = true;
        reply.data = address == 0 ? p->NextFrame(length) : m->Read(address, length);
        return reply;
    });
}

} // namespace qksim
