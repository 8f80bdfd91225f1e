// SPDX-License-Identifier: Apache-2.0
// Server bytes for tests: what an RFB server would send, built by hand.
#pragma once

#include <functional>
#include <initializer_list>

#include "support/Deflater.h"

namespace dorvane::test {

inline Bytes& operator+=(Bytes& left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}
inline Bytes operator+(Bytes left, const Bytes& right) { return std::move(left += right); }

inline Bytes be16(unsigned value) {
    Bytes out;
    appendBE16(out, static_cast<std::uint16_t>(value));
    return out;
}
inline Bytes be32(std::uint32_t value) { return be16(value >> 16) + be16(value & 0xFFFF); }

inline Bytes rectangle(int x, int y, int width, int height, std::int32_t encoding, const Bytes& body = {}) {
    return be16(unsigned(x)) + be16(unsigned(y)) + be16(unsigned(width)) + be16(unsigned(height)) +
           be32(static_cast<std::uint32_t>(encoding)) + body;
}
inline Bytes update(std::initializer_list<Bytes> rectangles) {
    Bytes out = Bytes{0, 0} + be16(static_cast<unsigned>(rectangles.size()));
    for (const auto& one : rectangles) out += one;
    return out;
}
/// Seven bits a byte, the least significant first; a third byte has eight.
inline Bytes compactLength(std::size_t length) {
    Bytes out;
    for (; length >= 128 && out.size() < 2; length >>= 7)
        out.push_back(static_cast<std::uint8_t>(length | 0x80));
    out.push_back(static_cast<std::uint8_t>(length));
    return out;
}

/// Pixels without padding, each by its place.
inline Bytes picture(int width, int height, const std::function<std::uint32_t(int x, int y)>& pixel) {
    Bytes out;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const auto value = pixel(x, y);
            for (int shift = 0; shift < 32; shift += 8)
                out.push_back(static_cast<std::uint8_t>(value >> shift));
        }
    return out;
}
/// Three bytes a pixel, in the order blue, green, red or the other way round.
inline Bytes packed(const Bytes& bgra, bool redFirst) {
    Bytes out;
    for (std::size_t i = 0; i < bgra.size(); i += 4)
        for (std::size_t c = 0; c < 3; ++c) out.push_back(bgra[i + (redFirst ? 2 - c : c)]);
    return out;
}

}  // namespace dorvane::test
