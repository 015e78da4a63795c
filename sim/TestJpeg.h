// SPDX-License-Identifier: MIT
#pragma once
// The pictures a virtual camera takes: real JPEG files of a test card with
// the shot number written large across it, so that a downloaded file opens
// in any viewer and tells which shot it is.

#include <cstdint>
#include <cstddef>
#include <vector>

namespace qksim {

// An empty vector only if the encoder fails.
std::vector<uint8_t> TestPictureJpeg(int number, int width = 320, int height = 240, int quality = 85);

// The JPEG grown to `bytes` with comment segments after its start marker;
// as it was when already that large.
std::vector<uint8_t> PadJpeg(std::vector<uint8_t> jpeg, size_t bytes);

// The decoded size of a JPEG, for tests; false if it isn't one.
bool JpegSize(const std::vector<uint8_t>& jpeg, int* width, int* height);

} // namespace qksim
