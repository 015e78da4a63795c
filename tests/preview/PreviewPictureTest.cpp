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

TEST(PreviewPictureTest, SettingsRecordsAndTheirTextForm)
{
    const std::vector<uint8_t> bytes = PreviewSettings::Sized(704, 480).Bytes();
    ASSERT_EQ(bytes.size(), 88u);
    EXPECT_EQ(bytes[4] | bytes[5] << 8, 704);
    EXPECT_EQ(bytes[8] | bytes[9] << 8, 480);

    const PreviewSettings odd = PreviewSettings::Height180(720, 240);
    EXPECT_EQ(odd.words[2], 180u);
    EXPECT_EQ(odd.words[5], 240u);
    EXPECT_EQ(odd.Height(), 240u);

    PreviewSettings parsed;
    for (const char* good : {"720x240", "360x240", "320x240", "704x480", "720x180:240"})
        EXPECT_TRUE(qksim::ParsePreviewSettings(good, &parsed)) << good;
    EXPECT_EQ(parsed.words, odd.words);
    for (const char* bad : {"", "720", "722x240", "0x240", "720x0", "720x180", "720x240:240", "720x240x",
                            "8192x240", "720x180:0", "abc"})
        EXPECT_FALSE(qksim::ParsePreviewSettings(bad, &parsed)) << bad;
}

TEST(PreviewPictureTest, BarsRampAndMarkerDecodeAsIntended)
{
    const std::pair<uint32_t, uint32_t> sizes[] = {{720, 240}, {360, 240}, {320, 240}, {704, 480}};
    for (const auto& size : sizes) {
        SCOPED_TRACE(std::to_string(size.first) + "x" + std::to_string(size.second));
        const Picture picture = Decode(size.first, size.second, 0);
        const unsigned int barRows = CameraPreview::BarRows(size.second);
        // Eight bars across the top two thirds, each sampled in its middle.
        for (unsigned int bar = 0; bar < 8; ++bar)
            for (unsigned int y : {0u, barRows / 2, barRows - 1})
                EXPECT_TRUE(Near(picture.At(picture.width * (2 * bar + 1) / 16, y),
                                 CameraPreview::BarColours()[bar], 2))
                    << "bar " << bar << " row " << y;
        // Below: a grey ramp from black to white, and at frame 0 the marker
        // at the left edge.
        const unsigned int rampRow = size.second - 1;
        EXPECT_TRUE(Near(picture.At(0, rampRow), Rgb{0, 0, 0}, 2));
        EXPECT_TRUE(Near(picture.At(picture.width - 1, rampRow), Rgb{255, 255, 255}, 3));
        for (unsigned int x = 0; x < picture.width; x += 7) {
            const Rgb grey = picture.At(x, rampRow);
            EXPECT_TRUE(grey.red == grey.green && grey.green == grey.blue) << x;
        }
        const unsigned int markerMiddle = barRows + (size.second - barRows) / 2;
        EXPECT_TRUE(Near(picture.At(2, markerMiddle), CameraPreview::MarkerColour(), 2));
    }
}

TEST(PreviewPictureTest, TheMarkerMovesFromFrameToFrame)
{
    const uint32_t width = 720, height = 240;
    const Picture first = Decode(width, height, 0);
    const Picture second = Decode(width, height, 1);
    EXPECT_NE(first.pixels, second.pixels);
    EXPECT_NE(CameraPreview::MarkerColumn(width, height, 0), CameraPreview::MarkerColumn(width, height, 1));
    // The bars stay as they are.
    for (unsigned int y = 0; y < CameraPreview::BarRows(height); ++y)
        ASSERT_EQ(0, std::memcmp(&first.pixels[(height - 1 - y) * first.rowBytes],
                                 &second.pixels[(height - 1 - y) * second.rowBytes], first.rowBytes));
    // Far enough on, the marker stands where it started, on the ramp.
    const unsigned int markerMiddle = 200;
    const unsigned int column = CameraPreview::MarkerColumn(width, height, 30) * 320 / 720 + 3;
    EXPECT_TRUE(Near(Decode(width, height, 30).At(column, markerMiddle), CameraPreview::MarkerColour(), 2));
    const Rgb ramp = first.At(column, markerMiddle);
    EXPECT_EQ(ramp.red, ramp.blue);
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
