// Preview decoding without a camera: sizes and the column map, colours,
// row order, BMP headers, both conversion paths against an independent
// reference, and frames a broken camera could send.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "DevicePTP/PreviewDecode.h"
#include "tests/common/TestLog.h"

namespace {

using Path = PreviewDecoder::Path;
using qktest::LogMark;

std::vector<uint8_t> RandomFrame(size_t size, unsigned int seed)
{
    std::mt19937 random(seed);
    std::vector<uint8_t> bytes(size);
    for (uint8_t& b : bytes)
        b = static_cast<uint8_t>(random());
    return bytes;
}

// Every group the same pixel value.
std::vector<uint8_t> UniformFrame(unsigned int width, unsigned int height, uint8_t y, int8_t u, int8_t v)
{
    std::vector<uint8_t> frame;
    for (unsigned int g = 0; g < width / 4 * height; ++g)
        frame.insert(frame.end(), {static_cast<uint8_t>(u), y, static_cast<uint8_t>(v), y, y, y});
    return frame;
}

uint32_t Le32(const uint8_t* p) { return p[0] | p[1] << 8 | p[2] << 16 | static_cast<uint32_t>(p[3]) << 24; }
uint16_t Le16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | p[1] << 8); }

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
    int kept = map[0];
    for (unsigned int i = 1; i < width; ++i) {
        if (map[i] == kept)
            map[i] = -1;
        else
            kept = map[i];
    }
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

// The portable code, then every kernel of vector code this machine can run.
std::vector<PreviewDecoder::Kernel> EveryKernel()
{
    std::vector<PreviewDecoder::Kernel> kernels{PreviewDecoder::Kernel::None};
    for (PreviewDecoder::Kernel kernel : PreviewDecoder::AvailableKernels())
        kernels.push_back(kernel);
    return kernels;
}

TEST(PreviewDecodeTest, TheFourCameraSizes)
{
    struct Row {
        unsigned int width, height, frameBytes, outWidth;
        std::vector<int> firstEntries;
        unsigned int fileBytes;
    } rows[] = {
        {720, 240, 259200, 320, {0, -1, 3, -1, 6, -1, 9, -1}, 230454},
        {360, 240, 129600, 320, {0, 3, 6, 9, 12, -1, 15, 18}, 230454},
        {320, 240, 115200, 320, {0, 3, 6, 9, 12, 15, 18, 21}, 230454},
        {704, 480, 506880, 640, {0, 3, 6, 9, 12, 15, -1, 18}, 921654},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(std::to_string(row.width) + "x" + std::to_string(row.height));
        PreviewDecoder decoder;
        ASSERT_TRUE(decoder.Prepare(row.width, row.height));
        const PreviewLayout& layout = decoder.Current();
        EXPECT_EQ(layout.frameBytes, row.frameBytes);
        EXPECT_EQ(layout.outWidth, row.outWidth);
        EXPECT_EQ(layout.rowPadding, 0u);
        EXPECT_EQ(layout.fileBytes, row.fileBytes);
        const std::vector<int>& map = decoder.ColumnMap();
        ASSERT_EQ(map.size(), row.width);
        EXPECT_EQ(std::vector<int>(map.begin(), map.begin() + 8), row.firstEntries);
        // Each picture column is written by exactly one source column.
        std::vector<int> writers(row.outWidth, 0);
        for (int d : map)
            if (d >= 0 && d < static_cast<int>(3 * row.outWidth))
                ++writers[d / 3];
        EXPECT_EQ(std::count(writers.begin(), writers.end(), 1), static_cast<long>(row.outWidth));
    }
    // The last of 720 columns lands past the picture and is dropped by the
    // bound, not by the thinning.
    PreviewDecoder wide;
    ASSERT_TRUE(wide.Prepare(720, 240));
    EXPECT_EQ(wide.ColumnMap()[719], 960);
}

TEST(PreviewDecodeTest, OddPictureWidthsGetRowPadding)
{
    struct Case {
        unsigned int height, outWidth, rowPadding;
    } cases[] = {{180, 240, 0}, {100, 133, 1}, {101, 135, 3}, {3, 4, 0}, {1, 1, 1}, {2, 3, 3}};
    for (const Case& c : cases) {
        PreviewLayout layout;
        ASSERT_TRUE(PreviewDecoder::Layout(8, c.height, &layout));
        EXPECT_EQ(layout.outWidth, c.outWidth) << c.height;
        EXPECT_EQ(layout.rowPadding, c.rowPadding) << c.height;
        EXPECT_EQ(layout.rowBytes % 4, 0u);
        EXPECT_EQ(layout.imageBytes, layout.rowBytes * c.height);
        EXPECT_EQ(layout.fileBytes, 54 + layout.imageBytes);
    }
}

TEST(PreviewDecodeTest, ColoursAreClippedAndNeutralIsGrey)
{
    struct Case {
        uint8_t y;
        int8_t u, v;
        uint8_t blue, green, red;
    } cases[] = {
        {255, 127, 127, 255, 121, 255}, // beyond 255: limited, not wrapped
        {0, -128, -128, 0, 136, 0},     // below 0 likewise
        {128, 0, 0, 128, 128, 128},     // no offset on Y, zero is neutral
        {0, 0, 0, 0, 0, 0},
        {255, 0, 0, 255, 255, 255},
        {100, 20, -30, 135, 115, 58},
    };
    for (PreviewDecoder::Kernel kernel : EveryKernel()) {
        for (const Case& c : cases) {
            PreviewDecoder decoder;
            decoder.UseKernel(kernel);
            ASSERT_TRUE(decoder.Prepare(720, 240));
            const std::vector<uint8_t> pixels =
                Convert(decoder, UniformFrame(720, 240, c.y, c.u, c.v), Path::Fast, 0xEE);
            for (size_t i = 0; i < pixels.size(); i += 3) {
                ASSERT_EQ(pixels[i], c.blue) << int(c.y) << " " << int(c.u) << " " << int(c.v) << " at " << i;
                ASSERT_EQ(pixels[i + 1], c.green) << i;
                ASSERT_EQ(pixels[i + 2], c.red) << i;
            }
        }
    }
}

TEST(PreviewDecodeTest, FirstSourceRowIsTheLastPictureRow)
{
    const unsigned int width = 320, height = 240;
    std::vector<uint8_t> frame;
    for (unsigned int r = 0; r < height; ++r)
        for (unsigned int g = 0; g < width / 4; ++g) {
            const uint8_t y = static_cast<uint8_t>(r);
            frame.insert(frame.end(), {0, y, 0, y, y, y});
        }
    PreviewDecoder decoder;
    ASSERT_TRUE(decoder.Prepare(width, height));
    for (Path path : {Path::Portable, Path::Fast}) {
        const std::vector<uint8_t> pixels = Convert(decoder, frame, path, 0);
        for (unsigned int row = 0; row < height; ++row)
            ASSERT_EQ(pixels[row * 960 + 477], height - 1 - row) << row;
    }
}

TEST(PreviewDecodeTest, EveryKernelMatchesTheReferenceOnEverySize)
{
    // The camera sizes, the height-180 picture width, widths that are no
    // multiple of 16 or 64, widths far above and below the picture width.
    const unsigned int sizes[][2] = {{720, 240}, {360, 240}, {320, 240}, {704, 480}, {720, 180},
                                     {240, 180}, {716, 240}, {644, 480}, {1440, 240}, {96, 24},
                                     {4, 1},     {8, 2},     {16, 12},   {120, 240}, {1000, 7},
                                     {724, 243}, {640, 481}, {4096, 64}, {1200, 144}, {2880, 96}};
    for (PreviewDecoder::Kernel kernel : EveryKernel()) {
        for (const auto& size : sizes) {
            SCOPED_TRACE("kernel " + std::to_string(static_cast<int>(kernel)) + ", " +
                         std::to_string(size[0]) + "x" + std::to_string(size[1]));
            PreviewDecoder decoder;
            decoder.UseKernel(kernel);
            ASSERT_TRUE(decoder.Prepare(size[0], size[1]));
            for (unsigned int seed = 0; seed < 2; ++seed) {
                // Exactly as long as the frame, so that a read past it is seen.
                const std::vector<uint8_t> frame = RandomFrame(decoder.Current().frameBytes, seed);
                const std::vector<uint8_t> reference = ReferencePixels(frame, size[0], size[1], 0x5A);
                EXPECT_EQ(Convert(decoder, frame, Path::Portable, 0x5A), reference);
                EXPECT_EQ(Convert(decoder, frame, Path::Fast, 0x5A), reference);
            }
        }
    }
}

TEST(PreviewDecodeTest, VectorCodeTakesTheCameraSizes)
{
    // On a machine without vector code the test above covers it all.
    if (PreviewDecoder::AvailableKernels().empty())
        GTEST_SKIP() << "no vector code for the preview on this machine";
    EXPECT_EQ(PreviewDecoder().ActiveKernel(), PreviewDecoder::Kernel::None) << "nothing prepared yet";
    for (PreviewDecoder::Kernel kernel : PreviewDecoder::AvailableKernels()) {
        for (const auto& size : {std::pair<unsigned, unsigned>{720, 240}, {360, 240}, {320, 240}, {704, 480}}) {
            PreviewDecoder decoder;
            decoder.UseKernel(kernel);
            ASSERT_TRUE(decoder.Prepare(size.first, size.second));
            EXPECT_EQ(decoder.ActiveKernel(), kernel) << size.first << "x" << size.second;
        }
        // A picture column without a source column must keep its bytes,
        // which whole vector stores would not.
        PreviewDecoder narrow;
        narrow.UseKernel(kernel);
        ASSERT_TRUE(narrow.Prepare(120, 240));
        EXPECT_FALSE(narrow.HasFastPath());
    }
    PreviewDecoder best;
    ASSERT_TRUE(best.Prepare(720, 240));
    EXPECT_EQ(best.ActiveKernel(), PreviewDecoder::BestKernel());
}

TEST(PreviewDecodeTest, HeadersReadBackAsABmpReaderWould)
{
    for (unsigned int height : {240u, 480u, 101u}) {
        PreviewLayout layout;
        ASSERT_TRUE(PreviewDecoder::Layout(720, height, &layout));
        std::vector<uint8_t> file(layout.fileBytes, 0xCC);
        PreviewDecoder::WriteBmpHeaders(layout, file.data());
        const uint8_t* h = file.data();
        EXPECT_EQ(h[0], 'B');
        EXPECT_EQ(h[1], 'M');
        EXPECT_EQ(Le32(h + 2), file.size());
        EXPECT_EQ(Le16(h + 6), 0);
        EXPECT_EQ(Le16(h + 8), 0);
        EXPECT_EQ(Le32(h + 10), 54u);
        EXPECT_EQ(Le32(h + 14), 40u);
        EXPECT_EQ(Le32(h + 18), layout.outWidth);
        EXPECT_EQ(static_cast<int32_t>(Le32(h + 22)), static_cast<int32_t>(height)); // bottom-up
        EXPECT_EQ(Le16(h + 26), 1);
        EXPECT_EQ(Le16(h + 28), 24);
        EXPECT_EQ(Le32(h + 30), 0u);
        EXPECT_EQ(Le32(h + 34), layout.imageBytes);
        EXPECT_EQ(Le32(h + 38), 3780u);
        EXPECT_EQ(Le32(h + 42), 3780u);
        EXPECT_EQ(Le32(h + 46), 0u);
        EXPECT_EQ(Le32(h + 50), 0u);
        EXPECT_EQ(h[54], 0xCC) << "the pixels are not the headers' business";
        // What a reader computes for the row length agrees with the file.
        const uint32_t stride = (Le32(h + 18) * Le16(h + 28) / 8 + 3) / 4 * 4;
        EXPECT_EQ(Le32(h + 10) + stride * Le32(h + 22), Le32(h + 2));
    }
}

TEST(PreviewDecodeTest, TargetIsReusedWhileTheSizeStays)
{
    PreviewDecoder decoder;
    const std::vector<uint8_t> frame = RandomFrame(506880, 3);
    DataLen raw(const_cast<uint8_t*>(frame.data()), static_cast<unsigned int>(frame.size()));
    DataLen target;
    ASSERT_TRUE(decoder.DecodePixels(raw, 720, 240, &target));
    EXPECT_EQ(target.len, 230454u);
    void* first = target.data;
    ASSERT_TRUE(decoder.DecodePixels(raw, 720, 240, &target));
    EXPECT_EQ(target.data, first);
    ASSERT_TRUE(decoder.DecodePixels(raw, 704, 480, &target));
    EXPECT_EQ(target.len, 921654u);
    const std::vector<uint8_t> reference = ReferencePixels(
        std::vector<uint8_t>(frame.begin(), frame.begin() + 506880), 704, 480, 0);
    EXPECT_EQ(0, std::memcmp(static_cast<uint8_t*>(target.data) + 54, reference.data(), reference.size()));
    delete[] static_cast<uint8_t*>(target.data);
}

TEST(PreviewDecodeTest, BrokenFramesAreRefusedAndTheTargetStays)
{
    PreviewDecoder decoder;
    const std::vector<uint8_t> good = RandomFrame(259200, 4);
    DataLen target;
    ASSERT_TRUE(decoder.DecodePixels(DataLen(const_cast<uint8_t*>(good.data()), 259200), 720, 240, &target));
    const std::vector<uint8_t> before(static_cast<uint8_t*>(target.data),
                                      static_cast<uint8_t*>(target.data) + target.len);
    const void* buffer = target.data;

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
        LogMark mark;
        EXPECT_FALSE(decoder.DecodePixels(DataLen(plenty.data(), c.length), c.width, c.height, &target))
            << c.logged;
        EXPECT_EQ(mark.Count(c.logged, "ERR"), 1) << mark.Since();
        EXPECT_EQ(target.data, buffer);
        EXPECT_EQ(target.len, before.size());
        EXPECT_EQ(0, std::memcmp(target.data, before.data(), before.size()));
    }
    EXPECT_FALSE(decoder.DecodePixels(DataLen(), 720, 240, &target));
    // A reply longer than the frame is fine: the frame is its beginning.
    EXPECT_TRUE(decoder.DecodePixels(DataLen(plenty.data(), 300000), 720, 240, &target));
    delete[] static_cast<uint8_t*>(target.data);
}

} // namespace
