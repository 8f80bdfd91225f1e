// SPDX-License-Identifier: Apache-2.0
#include "display/rfb/PixelExpansion.h"

#include "display/rfb/PixelTarget.h"

#if defined(__x86_64__)
#include <tmmintrin.h>
#elif defined(__aarch64__)
#include <arm_neon.h>
#endif

namespace dorvane {
namespace {

template <bool redFirst>
void expandOneByOne(const std::uint8_t* in, std::uint8_t* out, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i)
        storePixel(out + i * 4, redFirst ? loadRGB(in + i * 3) : loadBGR(in + i * 3));
}

#if defined(__x86_64__)

template <bool redFirst>
[[gnu::target("ssse3")]] void expandByFour(const std::uint8_t* in, std::uint8_t* out, std::size_t count) {
    const auto order = redFirst ? _mm_setr_epi8(2, 1, 0, -1, 5, 4, 3, -1, 8, 7, 6, -1, 11, 10, 9, -1)
                                : _mm_setr_epi8(0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1);
    for (; count >= 4; count -= 4, in += 12, out += 16) {
        const auto packed = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm_shuffle_epi8(packed, order));
    }
    expandOneByOne<redFirst>(in, out, count);
}

template <bool redFirst>
void expand(const std::uint8_t* in, std::uint8_t* out, std::size_t count) {
    static const auto best =
        __builtin_cpu_supports("ssse3") ? expandByFour<redFirst> : expandOneByOne<redFirst>;
    best(in, out, count);
}

#elif defined(__aarch64__)

template <bool redFirst>
void expand(const std::uint8_t* in, std::uint8_t* out, std::size_t count) {
    for (; count >= 16; count -= 16, in += 48, out += 64) {
        const auto channels = vld3q_u8(in);
        vst4q_u8(out, uint8x16x4_t{{channels.val[redFirst ? 2 : 0], channels.val[1],
                                    channels.val[redFirst ? 0 : 2], vdupq_n_u8(0)}});
    }
    expandOneByOne<redFirst>(in, out, count);
}

#else

template <bool redFirst>
void expand(const std::uint8_t* in, std::uint8_t* out, std::size_t count) {
    expandOneByOne<redFirst>(in, out, count);
}

#endif

/// Four pixels at once, on any processor.
using FourPixels = std::uint32_t __attribute__((vector_size(16)));

/// Eight pixels by the bits of one byte: `difference` is what turns a clear bit's pixel into a set one's.
inline void expandByte(std::uint32_t bits, std::uint8_t* out, FourPixels zero, FourPixels difference) {
    constexpr FourPixels high{0x80, 0x40, 0x20, 0x10}, low{0x08, 0x04, 0x02, 0x01};
    const auto select = [&](FourPixels mask) {
        return zero ^ (reinterpret_cast<FourPixels>((mask & bits) == mask) & difference);
    };
    const std::array<FourPixels, 2> pixels{select(high), select(low)};
    std::memcpy(out, pixels.data(), sizeof pixels);
}

}  // namespace

void expandBitmap(const std::uint8_t* in, std::uint8_t* out, std::size_t count, std::uint32_t zero,
                  std::uint32_t one) {
    const auto zeros = FourPixels{} + zero, difference = FourPixels{} + (zero ^ one);
    for (; count >= 8; count -= 8, out += 32) expandByte(*in++, out, zeros, difference);
    if (count == 0) return;
    std::array<std::uint8_t, 32> last;
    expandByte(*in, last.data(), zeros, difference);
    std::memcpy(out, last.data(), count * 4);
}

void expandIndices(const std::uint8_t* in, std::uint8_t* out, std::size_t count,
                   const std::array<std::uint32_t, 256>& palette) {
    for (std::size_t i = 0; i < count; ++i) storePixel(out + i * 4, palette[in[i]]);
}

void expandBGR(const std::uint8_t* in, std::uint8_t* out, std::size_t count) {
    expand<false>(in, out, count);
}
void expandRGB(const std::uint8_t* in, std::uint8_t* out, std::size_t count) { expand<true>(in, out, count); }

}  // namespace dorvane
