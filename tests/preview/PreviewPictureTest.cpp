// SPDX-License-Identifier: MIT
// The virtual camera's preview: its settings records, and a test picture
// that the engine's decoder turns into the intended bars and moving marker.

#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

#include "DevicePTP/PreviewDecode.h"
#include "sim/CameraPreview.h"

namespace {

using qksim::CameraPreview;
using qksim::PreviewSettings;
using qksim::Rgb;

TEST(PreviewPictureTest, SettingsRecordsFromTheirTextForm)
{
    PreviewSettings parsed;
    for (const char* good : {"720x240", "360x240", "704x480", "720x180:240"})
        EXPECT_TRUE(qksim::ParsePreviewSettings(good, &parsed)) << good;
    EXPECT_EQ(parsed.words, PreviewSettings::Height180(720, 240).words);
    for (const char* bad : {"", "720", "722x240", "0x240", "720x0", "720x180", "720x240:240", "720x240x",
                            "8192x240", "720x180:0", "abc"})
        EXPECT_FALSE(qksim::ParsePreviewSettings(bad, &parsed)) << bad;
}

TEST(PreviewPictureTest, BarsAndAMovingMarkerDecodeAsIntended)
{
    for (const auto& size : {std::make_pair(720u, 240u), {360u, 240u}, {320u, 240u}, {704u, 480u}}) {
        const unsigned int width = size.first, height = size.second;
        SCOPED_TRACE(std::to_string(width) + "x" + std::to_string(height));
        PreviewDecoder decoder;
        ASSERT_TRUE(decoder.Prepare(width, height));
        const PreviewLayout& layout = decoder.Current();
        std::vector<uint8_t> first(layout.imageBytes), later(layout.imageBytes);
        decoder.Convert(CameraPreview::Render(width, height, 0).data(), first.data());
        decoder.Convert(CameraPreview::Render(width, height, 30).data(), later.data());
        // Row 0 is the top of the picture, as a person sees it; pixels are BGR.
        const auto near = [&](const std::vector<uint8_t>& picture, unsigned int x, unsigned int y, const Rgb& want) {
            const uint8_t* p = &picture[(layout.height - 1 - y) * layout.rowBytes + 3 * x];
            return std::abs(p[2] - want.red) <= 3 && std::abs(p[1] - want.green) <= 3 && std::abs(p[0] - want.blue) <= 3;
        };
        const unsigned int barRows = CameraPreview::BarRows(height);
        for (unsigned int bar = 0; bar < 8; ++bar)
            EXPECT_TRUE(near(later, layout.outWidth * (2 * bar + 1) / 16, barRows / 2, CameraPreview::BarColours()[bar]))
                << "bar " << bar;
        // Below the bars a ramp from black to white, and on it the marker.
        EXPECT_TRUE(near(first, 0, height - 1, Rgb{0, 0, 0}));
        EXPECT_TRUE(near(first, layout.outWidth - 1, height - 1, Rgb{255, 255, 255}));
        const unsigned int middle = barRows + (height - barRows) / 2;
        const unsigned int moved = CameraPreview::MarkerColumn(width, height, 30) * layout.outWidth / width + 3;
        EXPECT_TRUE(near(first, 3, middle, CameraPreview::MarkerColour()));
        EXPECT_TRUE(near(later, moved, middle, CameraPreview::MarkerColour()));
        EXPECT_FALSE(near(first, moved, middle, CameraPreview::MarkerColour()));
    }

    // Frames of an asked length are cut or padded; a broken record gives zeros.
    CameraPreview preview;
    EXPECT_EQ(preview.NextFrame(100).size(), 100u);
    EXPECT_EQ(preview.NextFrame(259300)[259250], 0);
    preview.SetSettings(PreviewSettings::Sized(722, 240));
    EXPECT_EQ(preview.NextFrame(64), std::vector<uint8_t>(64, 0));
}

} // namespace
