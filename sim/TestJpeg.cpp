// SPDX-License-Identifier: MIT
#include "sim/TestJpeg.h"

#include <algorithm>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <jpeglib.h>

namespace qksim {

namespace {

// Digits of a 5x7 dot font, one row per byte, the leftmost dot in bit 4.
constexpr uint8_t kDigits[10][7] = {
    {0x0E, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0E}, {0x04, 0x0C, 0x04, 0x04, 0x04, 0x04, 0x0E},
    {0x0E, 0x11, 0x01, 0x02, 0x04, 0x08, 0x1F}, {0x1F, 0x02, 0x04, 0x02, 0x01, 0x11, 0x0E},
    {0x02, 0x06, 0x0A, 0x12, 0x1F, 0x02, 0x02}, {0x1F, 0x10, 0x1E, 0x01, 0x01, 0x11, 0x0E},
    {0x06, 0x08, 0x10, 0x1E, 0x11, 0x11, 0x0E}, {0x1F, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08},
    {0x0E, 0x11, 0x11, 0x0E, 0x11, 0x11, 0x0E}, {0x0E, 0x11, 0x11, 0x0F, 0x01, 0x02, 0x0C},
};

// The colour bars of a test card.
constexpr uint8_t kBars[8][3] = {{235, 235, 235}, {235, 235, 16}, {16, 235, 235}, {16, 235, 16},
                                 {235, 16, 235},  {235, 16, 16},  {16, 16, 235},  {16, 16, 16}};

std::vector<uint8_t> DrawTestCard(int number, int width, int height)
{
    std::vector<uint8_t> rgb(static_cast<size_t>(width) * height * 3);
    auto put = [&](int x, int y, uint8_t r, uint8_t g, uint8_t b) {
        uint8_t* p = &rgb[(static_cast<size_t>(y) * width + x) * 3];
        p[0] = r;
        p[1] = g;
        p[2] = b;
    };
    // Bars above, a grey ramp along the bottom fifth.
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            if (y < height * 4 / 5) {
                const uint8_t* bar = kBars[x * 8 / width];
                put(x, y, bar[0], bar[1], bar[2]);
            } else {
                const uint8_t level = static_cast<uint8_t>(x * 255 / (width > 1 ? width - 1 : 1));
                put(x, y, level, level, level);
            }
        }

    char digits[16];
    std::snprintf(digits, sizeof(digits), "%04d", number < 0 ? -number : number);
    const int count = static_cast<int>(std::string(digits).size());
    // Each dot a square; the text with a one-dot margin fills at most 80% of
    // the width and half the height, on a black plate.
    int dot = width * 4 / 5 / (count * 6 + 1);
    if (dot > height / 2 / 9)
        dot = height / 2 / 9;
    if (dot < 1)
        dot = 1;
    const int plateW = (count * 6 + 1) * dot;
    const int plateH = 9 * dot;
    const int left = (width - plateW) / 2;
    const int top = (height * 4 / 5 - plateH) / 2;
    for (int y = 0; y < plateH; ++y)
        for (int x = 0; x < plateW; ++x) {
            const int px = left + x, py = top + y;
            if (px < 0 || py < 0 || px >= width || py >= height)
                continue;
            const int col = x / dot - 1, row = y / dot - 1;
            bool lit = false;
            if (col >= 0 && row >= 0 && row < 7 && col / 6 < count && col % 6 < 5) {
                const int digit = digits[col / 6] - '0';
                lit = (kDigits[digit][row] >> (4 - col % 6)) & 1;
            }
            put(px, py, lit ? 255 : 0, lit ? 255 : 0, lit ? 255 : 0);
        }
    return rgb;
}

// libjpeg reports fatal errors through error_exit, which must not return.
struct ErrorManager {
    jpeg_error_mgr base;
    std::jmp_buf back;
};

void JumpBack(j_common_ptr info)
{
    std::longjmp(reinterpret_cast<ErrorManager*>(info->err)->back, 1);
}

void Quiet(j_common_ptr, int) {}

// Only plain data lives in the frames that a longjmp crosses.
bool Encode(const uint8_t* rgb, int width, int height, int quality, unsigned char** out,
            unsigned long* size)
{
    jpeg_compress_struct info;
    ErrorManager errors;
    info.err = jpeg_std_error(&errors.base);
    errors.base.error_exit = JumpBack;
    errors.base.emit_message = Quiet;
    if (setjmp(errors.back)) {
        jpeg_destroy_compress(&info);
        return false;
    }
    jpeg_create_compress(&info);
    jpeg_mem_dest(&info, out, size);
    info.image_width = static_cast<JDIMENSION>(width);
    info.image_height = static_cast<JDIMENSION>(height);
    info.input_components = 3;
    info.in_color_space = JCS_RGB;
    jpeg_set_defaults(&info);
    jpeg_set_quality(&info, quality, TRUE);
    jpeg_start_compress(&info, TRUE);
    while (info.next_scanline < info.image_height) {
        JSAMPROW row = const_cast<uint8_t*>(rgb + static_cast<size_t>(info.next_scanline) * width * 3);
        jpeg_write_scanlines(&info, &row, 1);
    }
    jpeg_finish_compress(&info);
    jpeg_destroy_compress(&info);
    return true;
}

bool ReadHeader(const uint8_t* data, unsigned long length, int* width, int* height)
{
    jpeg_decompress_struct info;
    ErrorManager errors;
    info.err = jpeg_std_error(&errors.base);
    errors.base.error_exit = JumpBack;
    errors.base.emit_message = Quiet;
    if (setjmp(errors.back)) {
        jpeg_destroy_decompress(&info);
        return false;
    }
    jpeg_create_decompress(&info);
    jpeg_mem_src(&info, data, length);
    const bool ok = jpeg_read_header(&info, TRUE) == JPEG_HEADER_OK;
    if (ok) {
        *width = static_cast<int>(info.image_width);
        *height = static_cast<int>(info.image_height);
    }
    jpeg_destroy_decompress(&info);
    return ok;
}

} // namespace

std::vector<uint8_t> TestPictureJpeg(int number, int width, int height, int quality)
{
    if (width < 16 || height < 16)
        return {};
    const std::vector<uint8_t> rgb = DrawTestCard(number, width, height);
    unsigned char* out = nullptr;
    unsigned long size = 0;
    std::vector<uint8_t> jpeg;
    if (Encode(rgb.data(), width, height, quality, &out, &size))
        jpeg.assign(out, out + size);
    std::free(out);
    return jpeg;
}

bool JpegSize(const std::vector<uint8_t>& jpeg, int* width, int* height)
{
    if (jpeg.size() < 4 || jpeg[0] != 0xFF || jpeg[1] != 0xD8)
        return false;
    return ReadHeader(jpeg.data(), jpeg.size(), width, height);
}

std::vector<uint8_t> PadJpeg(std::vector<uint8_t> jpeg, size_t bytes)
{
    constexpr size_t segmentHeader = 4, largestBody = 65533;
    if (jpeg.size() < 2 || bytes <= jpeg.size() + segmentHeader)
        return jpeg;
    std::vector<uint8_t> padding;
    for (size_t missing = bytes - jpeg.size(); missing >= segmentHeader;) {
        const size_t body = std::min(largestBody, missing - segmentHeader);
        const size_t length = body + 2;
        padding.insert(padding.end(), {0xFF, 0xFE, static_cast<uint8_t>(length >> 8), static_cast<uint8_t>(length)});
        padding.insert(padding.end(), body, 'Q');
        missing -= body + segmentHeader;
    }
    jpeg.insert(jpeg.begin() + 2, padding.begin(), padding.end());
    return jpeg;
}

} // namespace qksim
