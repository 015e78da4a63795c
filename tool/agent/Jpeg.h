// SPDX-License-Identifier: MIT
#pragma once
// Pictures small enough for a page that shows many cameras: preview frames
// (the engine's BMP) and thumbnails of shots (the camera's JPEG), as JPEG.

#include <string>
#include <vector>

namespace qkagent {

// A 24-bit BMP scaled to `width` pixels wide (aspect kept) as a JPEG; false
// with `error` for anything that is not such a BMP, or is cut short.
bool BmpToJpeg(const std::vector<unsigned char>& bmp, int width, int quality, std::string* jpeg, std::string* error);
// A JPEG made at most `width` pixels wide; false with `error` for a bad JPEG.
bool Thumbnail(const std::string& picture, int width, std::string* jpeg, std::string* error);

} // namespace qkagent
