// SPDX-License-Identifier: MIT
#pragma once
// Turns a preview frame of the camera into a 24-bit BMP file in memory.
//
// The frame is packed YUV: each row is a run of 6-byte groups, U Y0 V Y1 Y2 Y3,
// four pixels sharing one signed U and V. The picture is as high as the frame
// and four thirds of that wide; source columns are mapped onto picture columns
// by a column map, the first source column that lands on a picture column
// wins, and rows are stored bottom-up.
//
// A decoder keeps its tables between frames, so that a stream of frames of one
// size costs no allocation and no table building.

#include <cstdint>
#include <vector>

#include "DevicePTP/PreviewKernels.h"
#include "usb/DataLen.h"

// Sizes derived from the frame size.
struct PreviewLayout {
    unsigned int width = 0;      // source columns, a multiple of 4
    unsigned int height = 0;     // source rows, also the picture's rows
    unsigned int outWidth = 0;   // picture columns
    unsigned int rowPadding = 0; // bytes after each picture row
    unsigned int rowBytes = 0;   // outWidth * 3 + rowPadding
    unsigned int imageBytes = 0; // all picture rows
    unsigned int fileBytes = 0;  // headers and picture rows
    unsigned int frameBytes = 0; // the raw frame
};

constexpr unsigned int bmpHeaderBytes = 54;

class PreviewDecoder {
public:
    // Which conversion runs; both give the same bytes.
    enum class Path {
        Portable, // plain C++ on every machine
        Fast,     // the vector unit when the machine has one that fits, else Portable
    };

    // Frame sizes beyond these come only from a broken camera.
    static constexpr unsigned int maxWidth = 4096;
    static constexpr unsigned int maxHeight = 2048;

    // Fills `layout` for a frame of that size; false for a size that can't be
    // a preview frame (0, a width not a multiple of 4, beyond the limits).
    static bool Layout(unsigned int width, unsigned int height, PreviewLayout* layout);

    // Makes the column map and the conversion tables for a frame size; false
    // (and logged) for a size refused by Layout. Cheap when the size is the
    // previous one.
    bool Prepare(unsigned int width, unsigned int height);
    const PreviewLayout& Current() const { return layout; }
    // One entry per source column: the byte offset of its picture column
    // within a picture row, or -1 where an earlier column took that place.
    const std::vector<int>& ColumnMap() const { return columnMap; }
    // Whether Path::Fast uses the vector unit for the prepared size.
    bool HasFastPath() const { return kernel != Kernel::None; }

    // The vector code this machine can run, best first, and the choice of
    // one for the sizes prepared from now on (None: portable code only).
    // A decoder starts with the best; the others are there for the tests.
    using Kernel = previewkernels::Kernel;
    static Kernel BestKernel();
    static std::vector<Kernel> AvailableKernels();
    void UseKernel(Kernel kernel);
    Kernel ActiveKernel() const { return kernel; }

    // Converts a frame of the prepared size into the picture rows at `pixels`
    // (layout.imageBytes long). Picture columns that no source column reaches,
    // and the row padding, are left as they are.
    void Convert(const unsigned char* frame, unsigned char* pixels, Path path = Path::Fast);

    // The first part of a decode, up to the finished pixels: checks the reply
    // against the size, makes `target` exactly layout.fileBytes long (a new
    // buffer, zero-filled, only when its length differs) and converts. On
    // failure, logged, `target` is untouched.
    bool DecodePixels(const DataLen& frame, unsigned int width, unsigned int height,
                      DataLen* target, Path path = Path::Fast);

    // The 54 bytes of file and info header at the start of `file`.
    static void WriteBmpHeaders(const PreviewLayout& layout, unsigned char* file);

private:
    // Where one picture pixel takes its bytes from, as offsets into a source
    // row and a picture row.
    struct Tap {
        uint32_t y;
        uint32_t uv; // the group: U here, V two bytes on
        uint32_t out;
    };

    void BuildFastTables();
    void ConvertTaps(const unsigned char* frame, unsigned char* pixels,
                     const std::vector<Tap>& taps) const;
    void ConvertFast(const unsigned char* frame, unsigned char* pixels);

    PreviewLayout layout;
    bool prepared = false;
    std::vector<int> columnMap;
    std::vector<Tap> allTaps;  // every picture pixel that has a source
    std::vector<Tap> tailTaps; // the ones the vector unit leaves over

    // The vector code for the prepared size: windows of picture pixels and
    // the first source byte of each, where each pixel's bytes lie in its
    // window, and the kernel's own form of that.
    Kernel wantedKernel = BestKernel();
    Kernel kernel = Kernel::None;
    unsigned int vectorPixels = 0; // per row, from column 0
    std::vector<uint32_t> windowBase;
    std::vector<uint8_t> positions;
    struct alignas(64) Aligned {
        uint8_t bytes[64];
    };
    std::vector<Aligned> tableStorage;
    previewkernels::Tables tables;
    // Rows whose loads would run past the frame's end go through this copy.
    unsigned int safeRows = 0;
    std::vector<unsigned char> rowCopy;
};
