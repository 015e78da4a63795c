// SPDX-License-Identifier: MIT
#pragma once
// The vector code of the preview decoder: each kernel turns one source row
// into one picture row for the picture pixels that come in whole steps.
//
// A step takes the source bytes of its pixels from a window that starts at
// the group of its first pixel; `positions` gives, per window, the place of
// each pixel's Y, U and V byte in it: [window][channel Y, U, V][pixel]. The
// arithmetic is the portable formula's, exactly.

#include <cstdint>

namespace previewkernels {

enum class Kernel {
    None,   // the portable code only
    Neon,   // ARM (32-bit only where the CPU has NEON): 16 pixels a window of 64 bytes
    Avx2,   // x86: 16 pixels a window of 64 bytes, two windows a step
    Avx512, // x86 with the byte permutes of AVX-512 VBMI: 64 pixels a window of 256 bytes
};

// Pixels and source bytes of one window.
unsigned int WindowPixels(Kernel kernel);
unsigned int WindowBytes(Kernel kernel);
// Windows done together.
unsigned int WindowsPerStep(Kernel kernel);

// Whether this machine can run the kernel.
bool Available(Kernel kernel);

// Per-kernel form of `positions` for `windows` windows, built once per size.
struct Tables {
    unsigned int chunks = 0;        // Avx2: 16-byte chunks a window reads
    bool wide = false;              // Avx512: positions beyond 128
    std::uint8_t* bytes = nullptr;  // what the kernel reads, 32-byte aligned
};
// How many bytes the tables take, and how far past a window's base the
// kernel reads.
unsigned int TableBytes(Kernel kernel, unsigned int windows, const std::uint8_t* positions);
unsigned int ReadBytes(Kernel kernel, unsigned int windows, const std::uint8_t* positions);
// Fills `tables` (its bytes TableBytes long) from the positions.
void BuildTables(Kernel kernel, unsigned int windows, const std::uint8_t* positions, Tables* tables);

// One row: `steps` steps from `src` (windows at src + base[i]) into `dst`.
void ConvertRow(Kernel kernel, const Tables& tables, const unsigned char* src, unsigned char* dst,
                const std::uint32_t* base, unsigned int steps);

} // namespace previewkernels
