// SPDX-License-Identifier: MIT
// Vector kernels of the preview decoder; see PreviewKernels.h. Each must give
// the bytes of the portable conversion, which the tests check on every
// kernel the machine can run.

#include "DevicePTP/PreviewKernels.h"

#include <algorithm>
#include <cstring>

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#define QK_PREVIEW_X86 1
#include <immintrin.h>
#elif defined(__aarch64__) && defined(__ARM_NEON)
#define QK_PREVIEW_NEON 1
#define QK_NEON
#include <arm_neon.h>
#elif defined(__arm__) && defined(__ARM_FP) && defined(__linux__) && defined(__GNUC__) && !defined(__clang__)
// 32-bit ARM: the baseline lacks NEON, so only the kernel is built for it and
// it runs where the CPU says it has it.
#define QK_PREVIEW_NEON 1
#define QK_NEON __attribute__((target("fpu=neon")))
#include <arm_neon.h>
#include <sys/auxv.h>
#endif

namespace previewkernels {

namespace {

// The furthest position in any window, plus one.
unsigned int Span(Kernel kernel, unsigned int windows, const std::uint8_t* positions)
{
    const unsigned int count = windows * 3 * WindowPixels(kernel);
    return count ? *std::max_element(positions, positions + count) + 1u : 0u;
}

#ifdef QK_PREVIEW_X86

// Masks that spread 16 blue, 16 green and 16 red bytes over 48 bytes of
// blue-green-red pixels: [output vector][colour][byte].
struct InterleaveMasks {
    uint8_t m[3][3][16];
};

constexpr InterleaveMasks MakeInterleaveMasks()
{
    InterleaveMasks masks{};
    for (unsigned int part = 0; part < 3; ++part)
        for (unsigned int colour = 0; colour < 3; ++colour)
            for (unsigned int i = 0; i < 16; ++i) {
                const unsigned int k = 16 * part + i;
                masks.m[part][colour][i] = k % 3 == colour ? static_cast<uint8_t>(k / 3) : 0x80;
            }
    return masks;
}

constexpr InterleaveMasks interleave = MakeInterleaveMasks();

// One source row into one picture row, 32 picture pixels a step: each lane
// of a 256-bit register does one block of 16 pixels, gathering its Y, U and
// V bytes from a window of `Chunks` 16-byte chunks with byte shuffles. The
// arithmetic is the portable formula's, split so that 16 bits suffice.
template <unsigned int Chunks>
__attribute__((target("avx2"))) void ConvertRowAvx2(const unsigned char* src, unsigned char* dst,
                                                    const uint32_t* base, const void* rowMasks,
                                                    unsigned int pairs)
{
    const __m256i* mask = static_cast<const __m256i*>(rowMasks);
    const __m256i zero = _mm256_setzero_si256();
    __m256i spread[3][3];
    for (unsigned int part = 0; part < 3; ++part)
        for (unsigned int colour = 0; colour < 3; ++colour)
            spread[part][colour] = _mm256_broadcastsi128_si256(
                _mm_loadu_si128(reinterpret_cast<const __m128i*>(interleave.m[part][colour])));

    for (unsigned int pair = 0; pair < pairs; ++pair, mask += 3 * Chunks, dst += 96) {
        const unsigned char* low = src + base[2 * pair];
        const unsigned char* high = src + base[2 * pair + 1];
        __m256i y = zero, u = zero, v = zero;
        for (unsigned int c = 0; c < Chunks; ++c) {
            const __m256i chunk = _mm256_inserti128_si256(
                _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(low + 16 * c))),
                _mm_loadu_si128(reinterpret_cast<const __m128i*>(high + 16 * c)), 1);
            y = _mm256_or_si256(y, _mm256_shuffle_epi8(chunk, _mm256_load_si256(mask + c)));
            u = _mm256_or_si256(u, _mm256_shuffle_epi8(chunk, _mm256_load_si256(mask + Chunks + c)));
            v = _mm256_or_si256(v, _mm256_shuffle_epi8(chunk, _mm256_load_si256(mask + 2 * Chunks + c)));
        }
        // Pixels 0-7 (half 0) and 8-15 (half 1) of each lane in 16 bits.
        __m256i blue[2], green[2], red[2];
        for (int half = 0; half < 2; ++half) {
            const __m256i luma = half ? _mm256_unpackhi_epi8(y, zero) : _mm256_unpacklo_epi8(y, zero);
            const __m256i uHigh = half ? _mm256_unpackhi_epi8(zero, u) : _mm256_unpacklo_epi8(zero, u);
            const __m256i vHigh = half ? _mm256_unpackhi_epi8(zero, v) : _mm256_unpacklo_epi8(zero, v);
            const __m256i u8 = _mm256_srai_epi16(uHigh, 5);
            const __m256i v8 = _mm256_srai_epi16(vHigh, 5);
            // (8x * k + 2^14) >> 15 is (k x + 2048) >> 12.
            blue[half] = _mm256_add_epi16(luma, _mm256_mulhrs_epi16(u8, _mm256_set1_epi16(7258)));
            red[half] = _mm256_add_epi16(luma, _mm256_mulhrs_epi16(v8, _mm256_set1_epi16(5743)));
            // (A + B + 2048) >> 12 with A = -1411 U and B = -2925 V, from the
            // parts above and below bit 12 of each.
            const __m256i above = _mm256_add_epi16(_mm256_mulhi_epi16(u8, _mm256_set1_epi16(-2822)),
                                                   _mm256_mulhi_epi16(v8, _mm256_set1_epi16(-5850)));
            // 8 times the low 12 bits of A and of B, from the products of 8U
            // and 8V; their mean, 4 times the sum, leaves room for 4 * 2048.
            const __m256i fraction = _mm256_set1_epi16(0x7FF8);
            const __m256i below = _mm256_avg_epu16(
                _mm256_and_si256(_mm256_mullo_epi16(u8, _mm256_set1_epi16(-1411)), fraction),
                _mm256_and_si256(_mm256_mullo_epi16(v8, _mm256_set1_epi16(-2925)), fraction));
            const __m256i carry = _mm256_srli_epi16(_mm256_add_epi16(below, _mm256_set1_epi16(8192)), 14);
            green[half] = _mm256_add_epi16(luma, _mm256_add_epi16(above, carry));
        }
        // Saturation to 0..255 is the clipping.
        const __m256i colour[3] = {_mm256_packus_epi16(blue[0], blue[1]), _mm256_packus_epi16(green[0], green[1]),
                                   _mm256_packus_epi16(red[0], red[1])};
        // Lane 0 holds the first block's 48 bytes, lane 1 the second's.
        for (unsigned int part = 0; part < 3; ++part) {
            const __m256i out = _mm256_or_si256(
                _mm256_or_si256(_mm256_shuffle_epi8(colour[0], spread[part][0]),
                                _mm256_shuffle_epi8(colour[1], spread[part][1])),
                _mm256_shuffle_epi8(colour[2], spread[part][2]));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + 16 * part), _mm256_castsi256_si128(out));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + 48 + 16 * part), _mm256_extracti128_si256(out, 1));
        }
    }
}

// Where 64 blue, 64 green and 64 red bytes go in 192 bytes of blue-green-red
// pixels, in two two-table byte permutes per 64 output bytes: first blue and
// green, then the red bytes into that.
struct SpreadIndices {
    uint8_t first[3][64];
    uint8_t second[3][64];
};

constexpr SpreadIndices MakeSpreadIndices()
{
    SpreadIndices s{};
    for (unsigned int part = 0; part < 3; ++part)
        for (unsigned int i = 0; i < 64; ++i) {
            const unsigned int k = 64 * part + i;
            const unsigned int pixel = k / 3;
            s.first[part][i] = static_cast<uint8_t>(k % 3 == 1 ? 64 + pixel : k % 3 == 0 ? pixel : 0);
            s.second[part][i] = static_cast<uint8_t>(k % 3 == 2 ? 64 + pixel : i);
        }
    return s;
}

constexpr SpreadIndices spread512 = MakeSpreadIndices();

#define QK_AVX512 __attribute__((target("avx512f,avx512bw,avx512vbmi")))

// 64 bytes of one channel: a byte permute over the window's first 128 bytes,
// and when positions reach beyond them, one over the next 128 for those.
template <bool Wide>
QK_AVX512 inline __m512i Gather512(const unsigned char* window, const uint8_t* indices)
{
    const __m512i index = _mm512_loadu_si512(indices);
    const __m512i near = _mm512_permutex2var_epi8(_mm512_loadu_si512(window), index,
                                                  _mm512_loadu_si512(window + 64));
    if (!Wide)
        return near;
    const __m512i far = _mm512_permutex2var_epi8(_mm512_loadu_si512(window + 128), index,
                                                 _mm512_loadu_si512(window + 192));
    return _mm512_mask_blend_epi8(_mm512_movepi8_mask(index), near, far);
}

// One source row into one picture row, 64 pixels a step, in 16-bit halves
// as in the AVX2 kernel.
template <bool Wide>
QK_AVX512 void ConvertRowAvx512(const unsigned char* src, unsigned char* dst, const uint32_t* base,
                                const uint8_t* indices, unsigned int steps)
{
    const __m512i zero = _mm512_setzero_si512();
    for (unsigned int step = 0; step < steps; ++step, indices += 192, dst += 192) {
        const unsigned char* window = src + base[step];
        const __m512i y = Gather512<Wide>(window, indices);
        const __m512i u = Gather512<Wide>(window, indices + 64);
        const __m512i v = Gather512<Wide>(window, indices + 128);
        __m512i blue[2], green[2], red[2];
        for (int half = 0; half < 2; ++half) {
            const __m512i luma = half ? _mm512_unpackhi_epi8(y, zero) : _mm512_unpacklo_epi8(y, zero);
            const __m512i uHigh = half ? _mm512_unpackhi_epi8(zero, u) : _mm512_unpacklo_epi8(zero, u);
            const __m512i vHigh = half ? _mm512_unpackhi_epi8(zero, v) : _mm512_unpacklo_epi8(zero, v);
            const __m512i u8 = _mm512_srai_epi16(uHigh, 5);
            const __m512i v8 = _mm512_srai_epi16(vHigh, 5);
            blue[half] = _mm512_add_epi16(luma, _mm512_mulhrs_epi16(u8, _mm512_set1_epi16(7258)));
            red[half] = _mm512_add_epi16(luma, _mm512_mulhrs_epi16(v8, _mm512_set1_epi16(5743)));
            const __m512i above = _mm512_add_epi16(_mm512_mulhi_epi16(u8, _mm512_set1_epi16(-2822)),
                                                   _mm512_mulhi_epi16(v8, _mm512_set1_epi16(-5850)));
            // 8 times the low 12 bits of A and of B, from the products of 8U
            // and 8V; their mean, 4 times the sum, leaves room for 4 * 2048.
            const __m512i fraction = _mm512_set1_epi16(0x7FF8);
            const __m512i below = _mm512_avg_epu16(
                _mm512_and_si512(_mm512_mullo_epi16(u8, _mm512_set1_epi16(-1411)), fraction),
                _mm512_and_si512(_mm512_mullo_epi16(v8, _mm512_set1_epi16(-2925)), fraction));
            const __m512i carry = _mm512_srli_epi16(_mm512_add_epi16(below, _mm512_set1_epi16(8192)), 14);
            green[half] = _mm512_add_epi16(luma, _mm512_add_epi16(above, carry));
        }
        const __m512i b = _mm512_packus_epi16(blue[0], blue[1]);
        const __m512i g = _mm512_packus_epi16(green[0], green[1]);
        const __m512i r = _mm512_packus_epi16(red[0], red[1]);
        for (unsigned int part = 0; part < 3; ++part) {
            const __m512i blueGreen =
                _mm512_permutex2var_epi8(b, _mm512_loadu_si512(spread512.first[part]), g);
            _mm512_storeu_si512(dst + 64 * part,
                                _mm512_permutex2var_epi8(blueGreen, _mm512_loadu_si512(spread512.second[part]), r));
        }
    }
}

bool MachineHas(const char* what)
{
    __builtin_cpu_init();
    if (std::strcmp(what, "avx2") == 0)
        return __builtin_cpu_supports("avx2");
    return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
           __builtin_cpu_supports("avx512vbmi");
}

#endif // QK_PREVIEW_X86

#ifdef QK_PREVIEW_NEON

#ifdef __aarch64__
using NeonWindow = uint8x16x4_t;

inline NeonWindow LoadWindow(const unsigned char* at) { return vld1q_u8_x4(at); }

inline uint8x16_t Gather(const NeonWindow& window, const uint8_t* lookup)
{
    return vqtbl4q_u8(window, vld1q_u8(lookup));
}
#else
// ARMv7's lookups reach 32 bytes: the window's first half, then its second
// for the places the first left (those of the first wrap past 32 and stay).
struct NeonWindow {
    uint8x8x4_t near, far;
};

QK_NEON inline NeonWindow LoadWindow(const unsigned char* at)
{
    NeonWindow window;
    for (int i = 0; i < 4; ++i) {
        window.near.val[i] = vld1_u8(at + 8 * i);
        window.far.val[i] = vld1_u8(at + 32 + 8 * i);
    }
    return window;
}

QK_NEON inline uint8x16_t Gather(const NeonWindow& window, const uint8_t* lookup)
{
    const uint8x16_t at = vld1q_u8(lookup);
    const uint8x16_t beyond = vsubq_u8(at, vdupq_n_u8(32));
    return vcombine_u8(vtbx4_u8(vtbl4_u8(window.near, vget_low_u8(at)), window.far, vget_low_u8(beyond)),
                       vtbx4_u8(vtbl4_u8(window.near, vget_high_u8(at)), window.far, vget_high_u8(beyond)));
}
#endif

// One source row into one picture row, 16 picture pixels a step: table
// lookups gather each block's Y, U and V bytes from its 64-byte window, and
// the arithmetic is the one of the x86 path.
QK_NEON void ConvertRowNeon(const unsigned char* src, unsigned char* dst, const uint32_t* base,
                            const uint8_t* lookup, unsigned int blocks)
{
    for (unsigned int block = 0; block < blocks; ++block, lookup += 48, dst += 48) {
        const NeonWindow window = LoadWindow(src + base[block]);
        const uint8x16_t y = Gather(window, lookup);
        const int8x16_t u = vreinterpretq_s8_u8(Gather(window, lookup + 16));
        const int8x16_t v = vreinterpretq_s8_u8(Gather(window, lookup + 32));
        int16x8_t blue[2], green[2], red[2];
        for (int half = 0; half < 2; ++half) {
            const int16x8_t luma = vreinterpretq_s16_u16(vmovl_u8(half ? vget_high_u8(y) : vget_low_u8(y)));
            const int16x8_t u1 = vmovl_s8(half ? vget_high_s8(u) : vget_low_s8(u));
            const int16x8_t v1 = vmovl_s8(half ? vget_high_s8(v) : vget_low_s8(v));
            const int16x8_t u8 = vshlq_n_s16(u1, 3);
            const int16x8_t v8 = vshlq_n_s16(v1, 3);
            // (8x * k * 2 + 2^15) >> 16 is (k x + 2048) >> 12.
            blue[half] = vaddq_s16(luma, vqrdmulhq_n_s16(u8, 7258));
            red[half] = vaddq_s16(luma, vqrdmulhq_n_s16(v8, 5743));
            // (A + B + 2048) >> 12 with A = -1411 U and B = -2925 V, from the
            // parts above and below bit 12 of each.
            const int16x8_t above = vaddq_s16(vqdmulhq_n_s16(u8, -1411), vqdmulhq_n_s16(v8, -2925));
            const uint16x8_t fraction = vdupq_n_u16(4095);
            // Low bits of the products, taken unsigned so that they may wrap.
            const uint16x8_t below = vaddq_u16(
                vandq_u16(vmulq_n_u16(vreinterpretq_u16_s16(u1), static_cast<uint16_t>(-1411)), fraction),
                vandq_u16(vmulq_n_u16(vreinterpretq_u16_s16(v1), static_cast<uint16_t>(-2925)), fraction));
            const int16x8_t carry = vreinterpretq_s16_u16(vshrq_n_u16(vaddq_u16(below, vdupq_n_u16(2048)), 12));
            green[half] = vaddq_s16(luma, vaddq_s16(above, carry));
        }
        // Saturation to 0..255 is the clipping; the store interleaves.
        uint8x16x3_t out;
        out.val[0] = vcombine_u8(vqmovun_s16(blue[0]), vqmovun_s16(blue[1]));
        out.val[1] = vcombine_u8(vqmovun_s16(green[0]), vqmovun_s16(green[1]));
        out.val[2] = vcombine_u8(vqmovun_s16(red[0]), vqmovun_s16(red[1]));
        vst3q_u8(dst, out);
    }
}

#endif // QK_PREVIEW_NEON

} // namespace

unsigned int WindowPixels(Kernel kernel) { return kernel == Kernel::Avx512 ? 64 : 16; }
unsigned int WindowBytes(Kernel kernel) { return kernel == Kernel::Avx512 ? 256 : 64; }
unsigned int WindowsPerStep(Kernel kernel) { return kernel == Kernel::Avx2 ? 2 : 1; }

bool Available(Kernel kernel)
{
    switch (kernel) {
    case Kernel::None:
        return true;
#ifdef QK_PREVIEW_X86
    case Kernel::Avx2: {
        static const bool avx2 = MachineHas("avx2");
        return avx2;
    }
    case Kernel::Avx512: {
        static const bool avx512 = MachineHas("avx512vbmi");
        return avx512;
    }
#endif
#ifdef QK_PREVIEW_NEON
    case Kernel::Neon: {
#ifdef __aarch64__
        return true;
#else
        static const bool neon = (getauxval(AT_HWCAP) & HWCAP_ARM_NEON) != 0;
        return neon;
#endif
    }
#endif
    default:
        return false;
    }
}

unsigned int TableBytes(Kernel kernel, unsigned int windows, const std::uint8_t* positions)
{
    if (kernel == Kernel::Avx2)
        return windows * 3 * 16 * ((Span(kernel, windows, positions) + 15) / 16);
    return windows * 3 * WindowPixels(kernel);
}

unsigned int ReadBytes(Kernel kernel, unsigned int windows, const std::uint8_t* positions)
{
    const unsigned int span = Span(kernel, windows, positions);
    switch (kernel) {
    case Kernel::Avx2:
        return (span + 15) / 16 * 16;
    case Kernel::Avx512:
        return span > 128 ? 256 : 128;
    default:
        return WindowBytes(kernel);
    }
}

void BuildTables(Kernel kernel, unsigned int windows, const std::uint8_t* positions, Tables* tables)
{
    const unsigned int pixels = WindowPixels(kernel);
    const unsigned int span = Span(kernel, windows, positions);
    tables->chunks = (span + 15) / 16;
    tables->wide = span > 128;
    if (kernel != Kernel::Avx2) {
        // The kernel reads the positions as they are.
        std::memcpy(tables->bytes, positions, windows * 3 * pixels);
        return;
    }
    // Byte-shuffle masks [pair][channel][chunk], one lane per window: the
    // byte's place in its chunk, 0x80 (a zero) in the other chunks.
    const unsigned int chunks = tables->chunks;
    std::memset(tables->bytes, 0x80, TableBytes(kernel, windows, positions));
    for (unsigned int w = 0; w < windows; ++w)
        for (unsigned int channel = 0; channel < 3; ++channel)
            for (unsigned int j = 0; j < pixels; ++j) {
                const unsigned int at = positions[(w * 3 + channel) * pixels + j];
                uint8_t* mask = tables->bytes + (((w / 2) * 3 + channel) * chunks + at / 16) * 32;
                mask[16 * (w % 2) + j] = static_cast<uint8_t>(at % 16);
            }
}

// Without vector code (another machine, or clang on 32-bit ARM) only the
// kernel is read.
void ConvertRow(Kernel kernel, [[maybe_unused]] const Tables& tables, [[maybe_unused]] const unsigned char* src,
                [[maybe_unused]] unsigned char* dst, [[maybe_unused]] const std::uint32_t* base,
                [[maybe_unused]] unsigned int steps)
{
    switch (kernel) {
#ifdef QK_PREVIEW_X86
    case Kernel::Avx2:
        switch (tables.chunks) {
        case 1: return ConvertRowAvx2<1>(src, dst, base, tables.bytes, steps);
        case 2: return ConvertRowAvx2<2>(src, dst, base, tables.bytes, steps);
        case 3: return ConvertRowAvx2<3>(src, dst, base, tables.bytes, steps);
        default: return ConvertRowAvx2<4>(src, dst, base, tables.bytes, steps);
        }
    case Kernel::Avx512:
        if (tables.wide)
            return ConvertRowAvx512<true>(src, dst, base, tables.bytes, steps);
        return ConvertRowAvx512<false>(src, dst, base, tables.bytes, steps);
#endif
#ifdef QK_PREVIEW_NEON
    case Kernel::Neon:
        return ConvertRowNeon(src, dst, base, tables.bytes, steps);
#endif
    default:
        return;
    }
}

} // namespace previewkernels
