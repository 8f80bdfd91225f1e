// SPDX-License-Identifier: Apache-2.0
// Byte buffers and big-endian access, the currency of every wire format here.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace dorvane {

using Bytes = std::vector<std::uint8_t>;
using ByteView = std::span<const std::uint8_t>;

inline ByteView asBytes(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}
inline Bytes toBytes(std::string_view text) {
    const auto view = asBytes(text);
    return {view.begin(), view.end()};
}
/// The bytes seen as characters; nothing is decoded or checked.
inline std::string_view asText(ByteView bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// Big-endian loads; the caller has checked that the bytes are there.
inline std::uint16_t loadBE16(const std::uint8_t* p) {
    return static_cast<std::uint16_t>((p[0] << 8) | p[1]);
}
inline std::uint32_t loadBE32(const std::uint8_t* p) {
    return (std::uint32_t{p[0]} << 24) | (std::uint32_t{p[1]} << 16) | (std::uint32_t{p[2]} << 8) | p[3];
}

inline void appendBE16(Bytes& out, std::uint16_t value) {
    out.push_back(static_cast<std::uint8_t>(value >> 8));
    out.push_back(static_cast<std::uint8_t>(value));
}
inline void appendBE32(Bytes& out, std::uint32_t value) {
    appendBE16(out, static_cast<std::uint16_t>(value >> 16));
    appendBE16(out, static_cast<std::uint16_t>(value));
}

}  // namespace dorvane
