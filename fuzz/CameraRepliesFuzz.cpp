// SPDX-License-Identifier: MIT
// Runs the camera object's reading operations against a scripted camera whose
// replies are the fuzzer's bytes. Nothing may crash, over-read or leak.

#include <cstddef>
#include <cstdint>

#include "fuzz/CameraFamilies.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    RunInput(data, size);
    return 0;
}
