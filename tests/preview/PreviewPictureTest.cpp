// SPDX-License-Identifier: MIT
// The virtual camera's preview: its settings records, and a test picture
// that the engine's decoder turns into the intended bars, ramp and marker.

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "DevicePTP/PreviewDecode.h"
#include "sim/CameraPreview.h"

namespace {

using qksim::CameraPreview;
using qksim::PreviewSettings;
using qksim::Rgb;

struct Picture {
    unsigned int width = 0, height = 0, rowBytes = 0;
    std::vector<uint8_t> pixels;
    // Row 0 is the top of the picture, as a person sees it.
    Rgb At(unsigned int x, unsigned int y) const
    {
        const uint8_t* p = &pixels[(height - 1 - y) * rowBytes + 3 * x];
        return Rgb{p[2], p[1], p[0]};
    }
};

Picture Decode(uint32_t width, uint32_t height, uint32_t number)
{
    PreviewDecoder decoder;
    EXPECT_TRUE(decoder.Prepare(width, height));
    const PreviewLayout& layout = decoder.Current();
    const std::vector<uint8_t> frame = CameraPreview::Render(width, height, number);
    EXPECT_EQ(frame.size(), layout.frameBytes);
    Picture picture{layout.outWidth, layout.height, layout.rowBytes, std::vector<uint8_t>(layout.imageBytes)};
    decoder.Convert(frame.data(), picture.pixels.data());
    return picture;
}

::testing::AssertionResult Near(const Rgb& got, const Rgb& want, int tolerance)
{
    if (std::abs(got.red - want.red) <= tolerance && std::abs(got.green - want.green) <= tolerance &&
        std::abs(got.blue - want.blue) <= tolerance)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "got " << int(got.red) << "," << int(got.green) << ","
                                         << int(got.blue) << " want " << int(want.red) << ","
                                         << int(want.green) << "," << int(want.blue);
}

// The records' bytes are what the engine reads in the retrieval tests.
TEST(PreviewPictureTest, SettingsRecordsFromTheirTextForm)
{
    PreviewSettings parsed;
    for (const char* good : {"720x240", "360x240", "320x240", "704x480", "720x180:240"})
        EXPECT_TRUE(qksim::ParsePreviewSettings(good, &parsed)) << good;
    EXPECT_EQ(parsed.words, PreviewSettings::Height180(720, 240).words);
    for (const char* bad : {"", "720", "722x240", "0x240", "720x0", "720x180", "720x240:240", "720x240x",
                            "8192x240", "720x180:0", "abc"})
        EXPECT_FALSE(qksim::ParsePreviewSettings(bad, &parsed)) << bad;
}

TEST(PreviewPictureTest, BarsRampAndAMovingMarkerDecodeAsIntended)
{
    const std::pair<uint32_t, uint32_t> sizes[] = {{720, 240}, {360, 240}, {320, 240}, {704, 480}};
    for (const auto& size : sizes) {
        SCOPED_TRACE(std::to_string(size.first) + "x" + std::to_string(size.second));
        const Picture first = Decode(size.first, size.second, 0);
        const Picture later = Decode(size.first, size.second, 30);
        const unsigned int barRows = CameraPreview::BarRows(size.second);
        // Eight bars across the top two thirds, each sampled in its middle,
        // the same in every frame.
        for (unsigned int bar = 0; bar < 8; ++bar)
            for (unsigned int y : {0u, barRows / 2, barRows - 1})
                EXPECT_TRUE(Near(first.At(first.width * (2 * bar + 1) / 16, y), CameraPreview::BarColours()[bar], 2))
                    << "bar " << bar << " row " << y;
        for (unsigned int y = 0; y < barRows; ++y)
            ASSERT_EQ(0, std::memcmp(&first.pixels[(size.second - 1 - y) * first.rowBytes],
                                     &later.pixels[(size.second - 1 - y) * later.rowBytes], first.rowBytes));
        // Below: a grey ramp from black to white.
        const unsigned int rampRow = size.second - 1;
        EXPECT_TRUE(Near(first.At(0, rampRow), Rgb{0, 0, 0}, 2));
        EXPECT_TRUE(Near(first.At(first.width - 1, rampRow), Rgb{255, 255, 255}, 3));
        for (unsigned int x = 0; x < first.width; x += 7) {
            const Rgb grey = first.At(x, rampRow);
            EXPECT_TRUE(grey.red == grey.green && grey.green == grey.blue) << x;
        }
        // On it the marker, at the left edge in frame 0 and further on later,
        // where frame 0 shows the ramp.
        const unsigned int markerMiddle = barRows + (size.second - barRows) / 2;
        const unsigned int moved =
            CameraPreview::MarkerColumn(size.first, size.second, 30) * first.width / size.first + 3;
        EXPECT_TRUE(Near(first.At(3, markerMiddle), CameraPreview::MarkerColour(), 2));
        EXPECT_TRUE(Near(later.At(moved, markerMiddle), CameraPreview::MarkerColour(), 2));
        const Rgb ramp = first.At(moved, markerMiddle);
        EXPECT_TRUE(ramp.red == ramp.green && ramp.green == ramp.blue);
    }
}

TEST(PreviewPictureTest, FramesOfAnAskedLengthAreCutOrPadded)
{
    CameraPreview preview;
    const std::vector<uint8_t> whole = preview.NextFrame(259200);
    EXPECT_EQ(whole.size(), 259200u);
    EXPECT_EQ(preview.FramesServed(), 1u);
    const std::vector<uint8_t> shorter = preview.NextFrame(100);
    EXPECT_EQ(shorter.size(), 100u);
    const std::vector<uint8_t> longer = preview.NextFrame(259300);
    EXPECT_EQ(longer.size(), 259300u);
    EXPECT_EQ(longer[259250], 0);

    // A broken record makes no picture: zeros of the asked length.
    PreviewSettings broken = PreviewSettings::Sized(722, 240);
    preview.SetSettings(broken);
    const std::vector<uint8_t> zeros = preview.NextFrame(64);
    EXPECT_EQ(zeros, std::vector<uint8_t>(64, 0));
}

} // namespace
