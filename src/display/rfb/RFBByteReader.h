// SPDX-License-Identifier: Apache-2.0
// A cursor over received bytes.
#pragma once

#include <cstdint>
#include <optional>

#include "base/Bytes.h"

namespace dorvane {

/// Reads big-endian numbers. Every operation either succeeds or leaves the position alone. The bytes belong
/// to the caller and outlive the reader and the slices that it gives.
class RFBByteReader {
  public:
    explicit RFBByteReader(ByteView bytes) : bytes_(bytes) {}

    std::size_t position() const { return position_; }
    void setPosition(std::size_t position) { position_ = position; }
    std::size_t remaining() const { return bytes_.size() - position_; }

    std::optional<std::uint8_t> readUInt8() {
        if (remaining() < 1) return std::nullopt;
        return bytes_[position_++];
    }
    std::optional<std::uint16_t> readUInt16() {
        if (remaining() < 2) return std::nullopt;
        position_ += 2;
        return loadBE16(bytes_.data() + position_ - 2);
    }
    std::optional<std::uint32_t> readUInt32() {
        if (remaining() < 4) return std::nullopt;
        position_ += 4;
        return loadBE32(bytes_.data() + position_ - 4);
    }
    bool skip(std::size_t count) { return slice(count).has_value(); }
    /// The next `count` bytes, not copied.
    std::optional<ByteView> slice(std::size_t count) {
        if (remaining() < count) return std::nullopt;
        position_ += count;
        return bytes_.subspan(position_ - count, count);
    }

  private:
    ByteView bytes_;
    std::size_t position_ = 0;
};

}  // namespace dorvane
