// SPDX-License-Identifier: MIT
// Preview decoding without a camera: sizes and the column map, BMP headers,
// colours and row order, both conversion paths on every kernel against an
// independent reference, and frames a broken camera could send.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "DevicePTP/PreviewDecode.h"
#include "tests/common/TestLog.h"

namespace {

using Kernel = PreviewDecoder::Kernel;
using Path = PreviewDecoder::Path;

std::vector<uint8_t> RandomFrame(size_t size, unsigned int seed)
{
    std::mt19937 random(seed);
    std::vector<uint8_t> bytes(size);
    for (uint8_t& b : bytes)
        b = static_cast<uint8_t>(random());
    return bytes;
}

// The decoding written out straight, one source column after the other, as
// the reference for both paths of the engine.
std::vector<uint8_t> ReferencePixels(const std::vector<uint8_t>& frame, unsigned int width,
                                     unsigned int height, uint8_t fill)
{
    const int outWidth = static_cast<int>(std::floor(height * 1.33333333 + 0.5));
    const int rowBytes = (outWidth * 3 + 3) / 4 * 4;
    std::vector<uint8_t> pixels(static_cast<size_t>(rowBytes) * height, fill);
    const double scale = static_cast<double>(width) / outWidth;
    std::vector<int> map(width);
    for (unsigned int i = 0; i < width; ++i)
        map[i] = static_cast<int>(std::floor(i / scale + 0.5)) * 3;
    for (unsigned int i = width - 1; i > 0; --i)
        if (map[i] == map[i - 1])
            map[i] = -1; // the first source column of a run wins
    auto clip = [](int v) { return static_cast<uint8_t>(v < 0 ? 0 : v > 255 ? 255 : v); };
    const unsigned int lane[4] = {1, 3, 4, 5};
    size_t at = 0;
    for (unsigned int r = 0; r < height; ++r) {
        uint8_t* row = pixels.data() + static_cast<size_t>(height - 1 - r) * rowBytes;
        for (unsigned int g = 0; g < width / 4; ++g, at += 6) {
            for (unsigned int k = 0; k < 4; ++k) {
                const int d = map[4 * g + k];
                if (d < 0 || d >= outWidth * 3)
                    continue;
                const int y = frame[at + lane[k]];
                const int u = static_cast<int8_t>(frame[at]);
                const int v = static_cast<int8_t>(frame[at + 2]);
                row[d] = clip((y * 4096 + 7258 * u + 2048) >> 12);
                row[d + 1] = clip((y * 4096 - 1411 * u - 2925 * v + 2048) >> 12);
                row[d + 2] = clip((y * 4096 + 5743 * v + 2048) >> 12);
            }
        }
    }
    return pixels;
}

std::vector<uint8_t> Convert(PreviewDecoder& decoder, const std::vector<uint8_t>& frame, Path path,
                             uint8_t fill)
{
    std::vector<uint8_t> pixels(decoder.Current().imageBytes, fill);
    decoder.Convert(frame.data(), pixels.data(), path);
    return pixels;
}

TEST(PreviewDecodeTest, LayoutsColumnMapsAndHeaders)
{
    // The camera sizes, then heights whose picture rows need padding.
    struct Row {
        unsigned int width, height, frameBytes, outWidth, rowPadding, fileBytes;
        // The column map's first eight entries and its last (empty: not looked
        // at); the last of 720 columns lands past the picture and is dropped
        // by the bound, not by the thinning.
        std::vector<int> entries;
    } rows[] = {
        {720, 240, 259200, 320, 0, 230454, {0, -1, 3, -1, 6, -1, 9, -1, 960}},
        {360, 240, 129600, 320, 0, 230454, {0, 3, 6, 9, 12, -1, 15, 18, 957}},
        {320, 240, 115200, 320, 0, 230454, {0, 3, 6, 9, 12, 15, 18, 21, 957}},
        {704, 480, 506880, 640, 0, 921654, {0, 3, 6, 9, 12, 15, -1, 18, 1917}},
        {8, 180, 2160, 240, 0, 129654, {}}, {8, 100, 1200, 133, 1, 40054, {}},
        {8, 101, 1212, 135, 3, 41262, {}},  {8, 3, 36, 4, 0, 90, {}},
        {8, 1, 12, 1, 1, 58, {}},           {8, 2, 24, 3, 3, 78, {}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(std::to_string(row.width) + "x" + std::to_string(row.height));
        PreviewDecoder decoder;
        ASSERT_TRUE(decoder.Prepare(row.width, row.height));
        const PreviewLayout& layout = decoder.Current();
        EXPECT_EQ(std::vector<unsigned int>(
                      {layout.frameBytes, layout.outWidth, layout.rowPadding, layout.fileBytes, layout.imageBytes}),
                  std::vector<unsigned int>({row.frameBytes, row.outWidth, row.rowPadding, row.fileBytes, row.fileBytes - 54}));
        // The stride a BMP reader computes.
        EXPECT_EQ(layout.rowBytes, (row.outWidth * 3 + 3) / 4 * 4);
        EXPECT_EQ(layout.fileBytes, 54 + layout.rowBytes * row.height);

        std::vector<uint8_t> want{'B', 'M'};
        const std::pair<uint32_t, int> fields[] = {
            {row.fileBytes, 4}, {0, 4}, {54, 4}, {40, 4}, {row.outWidth, 4}, {row.height, 4}, // bottom-up
            {1, 2}, {24, 2}, {0, 4}, {layout.imageBytes, 4}, {3780, 4}, {3780, 4}, {0, 4}, {0, 4}};
        for (const auto& field : fields)
            for (int i = 0; i < field.second; ++i)
                want.push_back(static_cast<uint8_t>(field.first >> (8 * i)));
        std::vector<uint8_t> file(layout.fileBytes, 0xCC);
        PreviewDecoder::WriteBmpHeaders(layout, file.data());
        EXPECT_EQ(std::vector<uint8_t>(file.begin(), file.begin() + 54), want);
        EXPECT_EQ(file[54], 0xCC) << "the pixels are not the headers' business";

        if (row.entries.empty())
            continue;
        const std::vector<int>& map = decoder.ColumnMap();
        ASSERT_EQ(map.size(), row.width);
        std::vector<int> entries(map.begin(), map.begin() + 8);
        entries.push_back(map.back());
        EXPECT_EQ(entries, row.entries);
        // Each picture column is written by exactly one source column.
        std::vector<int> writers(row.outWidth, 0);
        for (int d : map)
            if (d >= 0 && d < static_cast<int>(3 * row.outWidth))
                ++writers[d / 3];
        EXPECT_EQ(std::count(writers.begin(), writers.end(), 1), static_cast<long>(row.outWidth));
    }
}

TEST(PreviewDecodeTest, ColoursAreClippedAndTheFirstSourceRowIsTheLastPictureRow)
{
    struct Colour {
        uint8_t y;
        int8_t u, v;
        uint8_t blue, green, red;
    };
    std::vector<Colour> rows = {
        {255, 127, 127, 255, 121, 255}, // beyond 255: limited, not wrapped
        {0, -128, -128, 0, 136, 0},     // below 0 likewise
        {128, 0, 0, 128, 128, 128},     // no offset on Y, zero is neutral
        {0, 0, 0, 0, 0, 0},
        {255, 0, 0, 255, 255, 255},
        {100, 20, -30, 135, 115, 58},
    };
    // The other rows a grey of their own number, so that each row is told apart.
    for (unsigned int r = static_cast<unsigned int>(rows.size()); r < 240; ++r) {
        const uint8_t grey = static_cast<uint8_t>(r);
        rows.push_back({grey, 0, 0, grey, grey, grey});
    }
    std::vector<uint8_t> frame;
    for (const Colour& c : rows)
        for (unsigned int g = 0; g < 720 / 4; ++g)
            frame.insert(frame.end(), {static_cast<uint8_t>(c.u), c.y, static_cast<uint8_t>(c.v), c.y, c.y, c.y});
    // Every kernel is held to the reference, which is held to these values here.
    PreviewDecoder decoder;
    ASSERT_TRUE(decoder.Prepare(720, 240));
    for (const std::vector<uint8_t>& pixels : {Convert(decoder, frame, Path::Portable, 0xEE),
                                               Convert(decoder, frame, Path::Fast, 0xEE),
                                               ReferencePixels(frame, 720, 240, 0xEE)}) {
        for (unsigned int r = 0; r < 240; ++r) {
            const uint8_t* row = &pixels[(239 - r) * 960];
            for (unsigned int i = 0; i < 960; i += 3) {
                ASSERT_EQ(row[i], rows[r].blue) << "source row " << r << " at " << i;
                ASSERT_EQ(row[i + 1], rows[r].green) << "source row " << r << " at " << i;
                ASSERT_EQ(row[i + 2], rows[r].red) << "source row " << r << " at " << i;
            }
        }
    }
}

TEST(PreviewDecodeTest, EveryKernelMatchesTheReferenceOnEverySize)
{
    enum Vector { Either, Takes, Leaves };
    // The camera sizes, which the vector code must take; one it must leave, as
    // a picture column without a source column keeps its bytes and whole
    // vector stores would not; the height-180 picture width, widths that are
    // no multiple of 16 or 64, widths far above and below the picture width.
    const struct {
        unsigned int width, height;
        Vector vector;
    } sizes[] = {{720, 240, Takes},   {360, 240, Takes},  {320, 240, Takes},  {704, 480, Takes},
                 {120, 240, Leaves},  {720, 180, Either}, {240, 180, Either}, {716, 240, Either},
                 {644, 480, Either},  {1440, 240, Either}, {96, 24, Either},  {4, 1, Either},
                 {8, 2, Either},      {16, 12, Either},   {1000, 7, Either},  {724, 243, Either},
                 {640, 481, Either},  {4096, 64, Either}, {1200, 144, Either}, {2880, 96, Either}};
    EXPECT_EQ(PreviewDecoder().ActiveKernel(), Kernel::None) << "nothing prepared yet";
    // The portable code, then every kernel of vector code this machine can run.
    std::vector<Kernel> kernels = PreviewDecoder::AvailableKernels();
    kernels.insert(kernels.begin(), Kernel::None);
    for (Kernel kernel : kernels) {
        for (const auto& size : sizes) {
            SCOPED_TRACE("kernel " + std::to_string(static_cast<int>(kernel)) + ", " +
                         std::to_string(size.width) + "x" + std::to_string(size.height));
            PreviewDecoder decoder;
            decoder.UseKernel(kernel);
            ASSERT_TRUE(decoder.Prepare(size.width, size.height));
            if (size.vector == Takes) {
                EXPECT_EQ(decoder.ActiveKernel(), kernel);
            } else if (size.vector == Leaves) {
                EXPECT_FALSE(decoder.HasFastPath());
            }
            for (unsigned int seed = 0; seed < 2; ++seed) {
                // Exactly as long as the frame, so that a read past it is seen.
                const std::vector<uint8_t> frame = RandomFrame(decoder.Current().frameBytes, seed);
                const std::vector<uint8_t> reference = ReferencePixels(frame, size.width, size.height, 0x5A);
                EXPECT_EQ(Convert(decoder, frame, Path::Portable, 0x5A), reference);
                EXPECT_EQ(Convert(decoder, frame, Path::Fast, 0x5A), reference);
            }
        }
    }
    PreviewDecoder best;
    ASSERT_TRUE(best.Prepare(720, 240));
    EXPECT_EQ(best.ActiveKernel(), PreviewDecoder::BestKernel());
}

TEST(PreviewDecodeTest, TargetIsReusedWhileTheSizeStaysAndBrokenFramesLeaveIt)
{
    PreviewDecoder decoder;
    std::vector<uint8_t> frame = RandomFrame(506880, 3);
    DataLen target;
    ASSERT_TRUE(decoder.DecodePixels(DataLen(frame.data(), 259200), 720, 240, &target));
    ASSERT_EQ(target.len, 230454u);
    const void* buffer = target.data;
    const std::vector<uint8_t> before(static_cast<uint8_t*>(target.data),
                                      static_cast<uint8_t*>(target.data) + target.len);

    struct Case {
        unsigned int width, height, length;
        const char* logged;
    } cases[] = {
        {720, 240, 259199, "Preview: frame of 259199 bytes, 259200 expected for 720x240"},
        {720, 240, 0, "Preview: frame of 0 bytes"},
        {722, 240, 259200, "Preview: frame size 722x240 refused"},
        {0, 240, 259200, "Preview: frame size 0x240 refused"},
        {720, 0, 259200, "Preview: frame size 720x0 refused"},
        {4100, 240, 259200, "Preview: frame size 4100x240 refused"},
        {720, 2050, 259200, "Preview: frame size 720x2050 refused"},
        {0xFFFFFFFC, 0xFFFFFFFF, 259200, "refused"},
    };
    // A long buffer, so that only the checks stand between a bad size and a read.
    std::vector<uint8_t> plenty(1 << 20, 0x77);
    for (const Case& c : cases) {
        qktest::LogMark mark;
        EXPECT_FALSE(decoder.DecodePixels(DataLen(plenty.data(), c.length), c.width, c.height, &target))
            << c.logged;
        EXPECT_EQ(mark.Count(c.logged, "ERR"), 1) << mark.Since();
        EXPECT_EQ(target.data, buffer);
        EXPECT_EQ(target.len, before.size());
        EXPECT_EQ(0, std::memcmp(target.data, before.data(), before.size()));
    }
    EXPECT_FALSE(decoder.DecodePixels(DataLen(), 720, 240, &target));

    // A reply longer than the frame is fine: the frame is its beginning.
    const DataLen raw(frame.data(), static_cast<unsigned int>(frame.size()));
    ASSERT_TRUE(decoder.DecodePixels(raw, 720, 240, &target));
    EXPECT_EQ(target.data, buffer);
    ASSERT_TRUE(decoder.DecodePixels(raw, 704, 480, &target));
    ASSERT_EQ(target.len, 921654u);
    const std::vector<uint8_t> reference = ReferencePixels(frame, 704, 480, 0);
    EXPECT_EQ(0, std::memcmp(static_cast<uint8_t*>(target.data) + 54, reference.data(), reference.size()));
    delete[] static_cast<uint8_t*>(target.data);
}

} // namespace
