// SPDX-License-Identifier: MIT
// The console's small pictures: preview frames from the engine's BMP and
// thumbnails of shots, and what becomes of pictures that are not what they
// claim.

#include <gtest/gtest.h>

#include <cstring>

#include "tool/agent/Jpeg.h"

namespace {

// A bottom-up 24-bit BMP whose left half is red and right half blue.
std::vector<unsigned char> Bmp(int width, int height, int bits = 24)
{
    const size_t stride = (static_cast<size_t>(width) * 3 + 3) & ~size_t{3};
    std::vector<unsigned char> bmp(54 + stride * height, 0);
    auto put = [&bmp](size_t at, uint32_t value) { std::memcpy(&bmp[at], &value, 4); };
    bmp[0] = 'B';
    bmp[1] = 'M';
    put(2, static_cast<uint32_t>(bmp.size()));
    put(10, 54);
    put(14, 40);
    put(18, static_cast<uint32_t>(width));
    put(22, static_cast<uint32_t>(height));
    bmp[26] = 1;
    bmp[28] = static_cast<unsigned char>(bits);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            bmp[54 + y * stride + 3 * x + (x < width / 2 ? 2 : 0)] = 255;
    return bmp;
}

TEST(AgentJpeg, PreviewFramesAndThumbnailsAreJpegOfTheAskedWidth)
{
    std::string jpeg, thumb, error;
    ASSERT_TRUE(qkagent::BmpToJpeg(Bmp(720, 240), 320, 70, &jpeg, &error)) << error;
    EXPECT_EQ(jpeg.substr(0, 2), "\xff\xd8");
    // Thumbnail of the frame, wider than asked: scaled down; narrower: kept.
    ASSERT_TRUE(qkagent::Thumbnail(jpeg, 160, &thumb, &error)) << error;
    std::string again;
    ASSERT_TRUE(qkagent::Thumbnail(thumb, 1000, &again, &error)) << error;
    EXPECT_LT(thumb.size(), jpeg.size());
    // The width is in the start-of-frame segment: 0xFFC0, length, precision, height, width.
    const size_t frame = thumb.find("\xff\xc0");
    ASSERT_NE(frame, std::string::npos);
    EXPECT_EQ((static_cast<unsigned char>(thumb[frame + 7]) << 8) | static_cast<unsigned char>(thumb[frame + 8]), 160);
    EXPECT_EQ((static_cast<unsigned char>(thumb[frame + 5]) << 8) | static_cast<unsigned char>(thumb[frame + 6]), 53);
}

TEST(AgentJpeg, PicturesThatAreNotWhatTheyClaimAreRefused)
{
    std::vector<unsigned char> cut = Bmp(64, 64);
    cut.resize(cut.size() - 100);
    std::vector<unsigned char> farOffset = Bmp(8, 8);
    farOffset[12] = 0x7f;
    struct Case {
        std::vector<unsigned char> bmp;
        const char* error;
    };
    const Case cases[] = {
        {{'G', 'I', 'F', '8'}, "not a BMP file"},
        {Bmp(8, 8, 32), "not a 24-bit BMP"},
        {Bmp(0, 8), "not a 24-bit BMP"},
        {cut, "BMP cut short"},
        {farOffset, "BMP cut short"},
    };
    for (const Case& c : cases) {
        std::string jpeg, error;
        EXPECT_FALSE(qkagent::BmpToJpeg(c.bmp, 320, 70, &jpeg, &error));
        EXPECT_NE(error.find(c.error), std::string::npos) << error;
    }
    for (const std::string& picture : {std::string("\xff\xd8\xff\xe0 nothing more"), std::string("plain text")}) {
        std::string jpeg, error;
        EXPECT_FALSE(qkagent::Thumbnail(picture, 160, &jpeg, &error));
        EXPECT_FALSE(error.empty());
    }
}

} // namespace
