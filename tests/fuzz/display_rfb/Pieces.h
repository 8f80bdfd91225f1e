// SPDX-License-Identifier: Apache-2.0
// One fuzzer input as several.
#pragma once

#include <algorithm>
#include <optional>

#include "base/Bytes.h"

namespace dorvane::fuzz {

/// Each piece is preceded by its length in two bytes; the last takes what is there.
class Pieces {
  public:
    explicit Pieces(ByteView bytes) : bytes_(bytes) {}

    std::optional<ByteView> next() {
        if (bytes_.size() < 2) return std::nullopt;
        const auto length = std::min<std::size_t>(loadBE16(bytes_.data()), bytes_.size() - 2);
        const auto piece = bytes_.subspan(2, length);
        bytes_ = bytes_.subspan(2 + length);
        return piece;
    }

  private:
    ByteView bytes_;
};

}  // namespace dorvane::fuzz
