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

}  // namespace

void expandBGR(const std::uint8_t* in, std::uint8_t* out, std::size_t count) {
    expand<false>(in, out, count);
}
void expandRGB(const std::uint8_t* in, std::uint8_t* out, std::size_t count) { expand<true>(in, out, count); }

}  // namespace dorvane
