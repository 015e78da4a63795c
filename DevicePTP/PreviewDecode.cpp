// SPDX-License-Identifier: MIT
// Preview decoding: column map, colour conversion and BMP headers. The
// portable conversion is the reference; the vector kernels must give the
// same bytes and are used only where the machine and the frame size allow.

#include "DevicePTP/PreviewDecode.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>

#include "DevicePTP/PreviewKernels.h"
#include "log/Log.h"

namespace {

// Byte of each pixel's Y within its 6-byte group; U is at 0 and V at 2.
constexpr unsigned int yLane[4] = {1, 3, 4, 5};
constexpr unsigned int groupBytes = 6;

double locround(double value) { return std::floor(value + 0.5); }

unsigned char clip(int value)
{
    // Branch-free: across a picture the sign of an overflow is anyone's guess.
    return static_cast<unsigned char>(std::min(std::max(value, 0), 255));
}

// Full-range YCbCr to blue, green, red in 12-bit fixed point; U and V are the
// low 8 bits of their arguments, signed.
void yuvToRgb(unsigned int y, int u, int v, unsigned char* pixel)
{
    const int su = (u & 0xFF) - ((u & 0x80) << 1);
    const int sv = (v & 0xFF) - ((v & 0x80) << 1);
    const int luma = static_cast<int>(y) * 4096;
    pixel[0] = clip((luma + 7258 * su + 2048) >> 12);
    pixel[1] = clip((luma - 1411 * su - 2925 * sv + 2048) >> 12);
    pixel[2] = clip((luma + 5743 * sv + 2048) >> 12);
}

void PutLe16(unsigned char* at, unsigned int value)
{
    at[0] = static_cast<unsigned char>(value);
    at[1] = static_cast<unsigned char>(value >> 8);
}

void PutLe32(unsigned char* at, unsigned int value)
{
    PutLe16(at, value & 0xFFFF);
    PutLe16(at + 2, value >> 16);
}

} // namespace

bool PreviewDecoder::Layout(unsigned int width, unsigned int height, PreviewLayout* out)
{
    if (width == 0 || height == 0 || width % 4 != 0 || width > maxWidth || height > maxHeight)
        return false;
    PreviewLayout l;
    l.width = width;
    l.height = height;
    l.outWidth = static_cast<unsigned int>(locround(height * 1.33333333));
    l.rowPadding = (4 - l.outWidth * 3 % 4) % 4;
    l.rowBytes = l.outWidth * 3 + l.rowPadding;
    l.imageBytes = l.rowBytes * height;
    l.fileBytes = bmpHeaderBytes + l.imageBytes;
    l.frameBytes = width * height * 6 / 4;
    *out = l;
    return true;
}

bool PreviewDecoder::Prepare(unsigned int width, unsigned int height)
{
    PreviewLayout wanted;
    if (!Layout(width, height, &wanted)) {
        QK_LOG_ERR("Preview: frame size %ux%u refused", width, height);
        return false;
    }
    // The tables follow from the size alone.
    if (prepared && wanted.width == layout.width && wanted.height == layout.height)
        return true;
    layout = wanted;

    const double scale = static_cast<double>(width) / layout.outWidth;
    columnMap.resize(width);
    for (unsigned int i = 0; i < width; ++i)
        columnMap[i] = static_cast<int>(locround(i / scale)) * 3;
    // Source columns that land on one picture column: the first one counts.
    int previous = columnMap[0];
    for (unsigned int i = 1; i < width; ++i) {
        if (columnMap[i] == previous)
            columnMap[i] = -1;
        else if (columnMap[i] != -1)
            previous = columnMap[i];
    }

    allTaps.clear();
    const int rowEnd = static_cast<int>(layout.outWidth * 3);
    for (unsigned int i = 0; i < width; ++i) {
        const int d = columnMap[i];
        if (d < 0 || d >= rowEnd)
            continue;
        const uint32_t group = groupBytes * (i / 4);
        allTaps.push_back(Tap{group + yLane[i % 4], group, static_cast<uint32_t>(d)});
    }
    BuildFastTables();
    prepared = true;
    return true;
}

std::vector<PreviewDecoder::Kernel> PreviewDecoder::AvailableKernels()
{
    std::vector<Kernel> kernels;
    for (Kernel kernel : {Kernel::Avx512, Kernel::Avx2, Kernel::Neon})
        if (previewkernels::Available(kernel))
            kernels.push_back(kernel);
    return kernels;
}

PreviewDecoder::Kernel PreviewDecoder::BestKernel()
{
    const std::vector<Kernel> kernels = AvailableKernels();
    return kernels.empty() ? Kernel::None : kernels.front();
}

void PreviewDecoder::UseKernel(Kernel kernel)
{
    wantedKernel = previewkernels::Available(kernel) ? kernel : Kernel::None;
    prepared = false;
}

void PreviewDecoder::BuildFastTables()
{
    kernel = Kernel::None;
    vectorPixels = 0;
    tailTaps = allTaps;
    const Kernel candidate = wantedKernel;
    const unsigned int windowPixels = previewkernels::WindowPixels(candidate);
    const unsigned int stepPixels = windowPixels * previewkernels::WindowsPerStep(candidate);
    // Steps are whole runs of picture pixels, so every picture column needs
    // its source.
    if (candidate == Kernel::None || allTaps.size() != layout.outWidth || layout.outWidth < stepPixels)
        return;
    const unsigned int windows = layout.outWidth / stepPixels * stepPixels / windowPixels;

    // Each window starts at the group of its first pixel.
    windowBase.resize(windows);
    positions.resize(static_cast<size_t>(windows) * 3 * windowPixels);
    for (unsigned int w = 0; w < windows; ++w) {
        const Tap* taps = &allTaps[w * windowPixels];
        windowBase[w] = taps[0].uv;
        for (unsigned int j = 0; j < windowPixels; ++j) {
            const uint32_t at[3] = {taps[j].y - taps[0].uv, taps[j].uv - taps[0].uv, taps[j].uv + 2 - taps[0].uv};
            for (unsigned int channel = 0; channel < 3; ++channel) {
                // A window too narrow for this size: the portable code does it all.
                if (at[channel] >= previewkernels::WindowBytes(candidate))
                    return;
                positions[(w * 3 + channel) * windowPixels + j] = static_cast<uint8_t>(at[channel]);
            }
        }
    }
    const unsigned int tableBytes = previewkernels::TableBytes(candidate, windows, positions.data());
    tableStorage.resize((tableBytes + sizeof(Aligned) - 1) / sizeof(Aligned));
    tables.bytes = tableStorage.front().bytes;
    previewkernels::BuildTables(candidate, windows, positions.data(), &tables);

    // The windows at a row's end may reach into the next row; rows where
    // that would pass the frame's end are read from a padded copy.
    const unsigned int furthest =
        windowBase.back() + previewkernels::ReadBytes(candidate, windows, positions.data());
    const unsigned int sourceRow = layout.width / 4 * groupBytes;
    if (furthest <= sourceRow)
        safeRows = layout.height;
    else if (furthest > layout.frameBytes)
        safeRows = 0;
    else
        safeRows = std::min(layout.height, (layout.frameBytes - furthest) / sourceRow + 1);
    rowCopy.assign(std::max(furthest, sourceRow), 0);

    vectorPixels = windows * windowPixels;
    tailTaps.assign(allTaps.begin() + vectorPixels, allTaps.end());
    kernel = candidate;
}

void PreviewDecoder::ConvertTaps(const unsigned char* frame, unsigned char* pixels,
                                 const std::vector<Tap>& taps) const
{
    const unsigned int sourceRow = layout.width / 4 * groupBytes;
    for (unsigned int r = 0; r < layout.height; ++r) {
        const unsigned char* src = frame + static_cast<size_t>(r) * sourceRow;
        unsigned char* dst = pixels + static_cast<size_t>(layout.height - 1 - r) * layout.rowBytes;
        for (const Tap& tap : taps)
            yuvToRgb(src[tap.y], src[tap.uv], src[tap.uv + 2], dst + tap.out);
    }
}

void PreviewDecoder::ConvertFast(const unsigned char* frame, unsigned char* pixels)
{
    const unsigned int sourceRow = layout.width / 4 * groupBytes;
    const unsigned int steps = vectorPixels / previewkernels::WindowPixels(kernel) /
                               previewkernels::WindowsPerStep(kernel);
    tables.bytes = tableStorage.front().bytes; // the storage may have moved with the decoder
    for (unsigned int r = 0; r < layout.height; ++r) {
        const unsigned char* src = frame + static_cast<size_t>(r) * sourceRow;
        unsigned char* dst = pixels + static_cast<size_t>(layout.height - 1 - r) * layout.rowBytes;
        if (r >= safeRows) {
            std::memcpy(rowCopy.data(), src, sourceRow);
            src = rowCopy.data();
        }
        previewkernels::ConvertRow(kernel, tables, src, dst, windowBase.data(), steps);
    }
    ConvertTaps(frame, pixels, tailTaps);
}

void PreviewDecoder::Convert(const unsigned char* frame, unsigned char* pixels, Path path)
{
    if (path == Path::Fast && HasFastPath())
        ConvertFast(frame, pixels);
    else
        ConvertTaps(frame, pixels, allTaps);
}

bool PreviewDecoder::DecodePixels(const DataLen& frame, unsigned int width, unsigned int height,
                                  DataLen* target, Path path)
{
    if (!Prepare(width, height))
        return false;
    if (!frame.data || frame.len < layout.frameBytes) {
        QK_LOG_ERR("Preview: frame of %u bytes, %u expected for %ux%u", frame.len, layout.frameBytes,
                   width, height);
        return false;
    }
    if (!target->data || target->len != layout.fileBytes) {
        // Zero-filled, so that columns no source reaches and the row padding
        // show black rather than old heap contents.
        unsigned char* fresh = new (std::nothrow) unsigned char[layout.fileBytes]();
        if (!fresh) {
            QK_LOG_ERR("Preview: can't allocate %u bytes", layout.fileBytes);
            return false;
        }
        delete[] static_cast<unsigned char*>(target->data);
        *target = DataLen(fresh, layout.fileBytes);
    }
    Convert(static_cast<const unsigned char*>(frame.data),
            static_cast<unsigned char*>(target->data) + bmpHeaderBytes, path);
    return true;
}

void PreviewDecoder::WriteBmpHeaders(const PreviewLayout& l, unsigned char* file)
{
    std::memset(file, 0, bmpHeaderBytes);
    file[0] = 'B';
    file[1] = 'M';
    PutLe32(file + 2, l.fileBytes);
    PutLe32(file + 10, bmpHeaderBytes);
    PutLe32(file + 14, 40);
    PutLe32(file + 18, l.outWidth);
    PutLe32(file + 22, l.height);
    PutLe16(file + 26, 1);
    PutLe16(file + 28, 24);
    PutLe32(file + 34, l.imageBytes);
    PutLe32(file + 38, 3780);
    PutLe32(file + 42, 3780);
}
