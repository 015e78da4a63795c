// SPDX-License-Identifier: MIT
#include "tool/agent/Jpeg.h"

#include <csetjmp>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include <jpeglib.h>

namespace qkagent {

namespace {

// libjpeg reports a fault by calling error_exit, which must not return:
// it jumps back to the call that began the work, with the message kept.
struct Failure {
    jpeg_error_mgr manager;
    std::jmp_buf back;
    char message[JMSG_LENGTH_MAX];
};

void JumpBack(j_common_ptr info)
{
    Failure* failure = reinterpret_cast<Failure*>(info->err);
    (*info->err->format_message)(info, failure->message);
    std::longjmp(failure->back, 1);
}

// RGB rows in, JPEG out.
bool Compress(const std::vector<unsigned char>& rgb, int width, int height, int quality, std::string* jpeg,
              std::string* error)
{
    jpeg_compress_struct info {};
    Failure failure {};
    info.err = jpeg_std_error(&failure.manager);
    failure.manager.error_exit = JumpBack;
    unsigned char* out = nullptr;
    unsigned long size = 0;
    if (setjmp(failure.back)) {
        jpeg_destroy_compress(&info);
        std::free(out);
        *error = failure.message;
        return false;
    }
    jpeg_create_compress(&info);
    jpeg_mem_dest(&info, &out, &size);
    info.image_width = static_cast<JDIMENSION>(width);
    info.image_height = static_cast<JDIMENSION>(height);
    info.input_components = 3;
    info.in_color_space = JCS_RGB;
    jpeg_set_defaults(&info);
    jpeg_set_quality(&info, quality, TRUE);
    jpeg_start_compress(&info, TRUE);
    while (info.next_scanline < info.image_height) {
        JSAMPROW row = const_cast<JSAMPROW>(&rgb[static_cast<size_t>(info.next_scanline) * width * 3]);
        jpeg_write_scanlines(&info, &row, 1);
    }
    jpeg_finish_compress(&info);
    jpeg_destroy_compress(&info);
    jpeg->assign(reinterpret_cast<const char*>(out), size);
    std::free(out);
    return true;
}

uint32_t Le32(const unsigned char* at) { return at[0] | at[1] << 8 | at[2] << 16 | static_cast<uint32_t>(at[3]) << 24; }

// Nearest-neighbour scaling of RGB rows to `width` wide.
std::vector<unsigned char> Scale(const std::vector<unsigned char>& rgb, int from, int rows, int width, int* height)
{
    *height = std::max(1, rows * width / from);
    std::vector<unsigned char> scaled(static_cast<size_t>(width) * *height * 3);
    for (int y = 0; y < *height; ++y)
        for (int x = 0; x < width; ++x)
            std::memcpy(&scaled[(static_cast<size_t>(y) * width + x) * 3],
                        &rgb[(static_cast<size_t>(y * rows / *height) * from + x * from / width) * 3], 3);
    return scaled;
}

} // namespace

bool BmpToJpeg(const std::vector<unsigned char>& bmp, int width, int quality, std::string* jpeg, std::string* error)
{
    if (bmp.size() < 54 || bmp[0] != 'B' || bmp[1] != 'M') {
        *error = "not a BMP file";
        return false;
    }
    const uint32_t offset = Le32(&bmp[10]);
    const int32_t bmpWidth = static_cast<int32_t>(Le32(&bmp[18]));
    const int32_t bmpHeight = static_cast<int32_t>(Le32(&bmp[22]));
    const int bits = bmp[28] | bmp[29] << 8;
    const int rows = bmpHeight < 0 ? -bmpHeight : bmpHeight;
    if (bits != 24 || bmpWidth <= 0 || bmpWidth > 8192 || rows == 0 || rows > 8192) {
        *error = "not a 24-bit BMP of a sensible size";
        return false;
    }
    const size_t stride = (static_cast<size_t>(bmpWidth) * 3 + 3) & ~size_t{3};
    if (offset > bmp.size() || stride * rows > bmp.size() - offset) {
        *error = "BMP cut short";
        return false;
    }
    std::vector<unsigned char> rgb(static_cast<size_t>(bmpWidth) * rows * 3);
    for (int y = 0; y < rows; ++y) {
        // Bottom-up unless the height says otherwise; BGR to RGB.
        const unsigned char* in = &bmp[offset + stride * (bmpHeight > 0 ? rows - 1 - y : y)];
        unsigned char* out = &rgb[static_cast<size_t>(y) * bmpWidth * 3];
        for (int x = 0; x < bmpWidth; ++x) {
            out[3 * x] = in[3 * x + 2];
            out[3 * x + 1] = in[3 * x + 1];
            out[3 * x + 2] = in[3 * x];
        }
    }
    int height = rows;
    if (width > 0 && width < bmpWidth)
        rgb = Scale(rgb, bmpWidth, rows, width, &height);
    else
        width = bmpWidth;
    return Compress(rgb, width, height, quality, jpeg, error);
}

namespace {

// Decodes at the smallest of the decoder's own scales (down to 1/8) that is
// still at least `width` wide.
bool Decode(const std::string& picture, int width, std::vector<unsigned char>* rgb, int* decodedWidth, int* rows,
            std::string* error)
{
    jpeg_decompress_struct info {};
    Failure failure {};
    info.err = jpeg_std_error(&failure.manager);
    failure.manager.error_exit = JumpBack;
    if (setjmp(failure.back)) {
        jpeg_destroy_decompress(&info);
        *error = failure.message;
        return false;
    }
    jpeg_create_decompress(&info);
    jpeg_mem_src(&info, reinterpret_cast<const unsigned char*>(picture.data()), picture.size());
    jpeg_read_header(&info, TRUE);
    info.out_color_space = JCS_RGB;
    info.scale_num = 1;
    info.scale_denom = 1;
    while (info.scale_denom < 8 && info.image_width / (info.scale_denom * 2) >= static_cast<JDIMENSION>(width))
        info.scale_denom *= 2;
    jpeg_start_decompress(&info);
    *decodedWidth = static_cast<int>(info.output_width);
    *rows = static_cast<int>(info.output_height);
    rgb->resize(static_cast<size_t>(info.output_width) * info.output_height * 3);
    while (info.output_scanline < info.output_height) {
        JSAMPROW row = &(*rgb)[static_cast<size_t>(info.output_scanline) * info.output_width * 3];
        jpeg_read_scanlines(&info, &row, 1);
    }
    jpeg_finish_decompress(&info);
    jpeg_destroy_decompress(&info);
    return true;
}

} // namespace

bool Thumbnail(const std::string& picture, int width, std::string* jpeg, std::string* error)
{
    std::vector<unsigned char> rgb;
    int decodedWidth = 0, rows = 0;
    if (!Decode(picture, width, &rgb, &decodedWidth, &rows, error))
        return false;
    int height = rows;
    if (width < decodedWidth)
        rgb = Scale(rgb, decodedWidth, rows, width, &height);
    else
        width = decodedWidth;
    return Compress(rgb, width, height, 80, jpeg, error);
}

} // namespace qkagent
