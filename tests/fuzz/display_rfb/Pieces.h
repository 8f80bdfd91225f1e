// SPDX-License-Identifier: Apache-2.0
// One fuzzer input as several, and compression for what stands behind a zlib stream.
#pragma once

#include <zlib.h>

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

class Compressor {
  public:
    Compressor() { deflateInit(&stream_, Z_BEST_SPEED); }
    Compressor(const Compressor&) = delete;
    Compressor& operator=(const Compressor&) = delete;
    ~Compressor() { deflateEnd(&stream_); }

    Bytes compress(ByteView plain) {
        Bytes out(plain.size() + 1'024);
        stream_.next_in = const_cast<Bytef*>(plain.data());
        stream_.avail_in = static_cast<uInt>(plain.size());
        stream_.next_out = out.data();
        stream_.avail_out = static_cast<uInt>(out.size());
        deflate(&stream_, Z_SYNC_FLUSH);
        return {out.data(), stream_.next_out};
    }

  private:
    z_stream stream_{};
};

inline void appendCompactLength(Bytes& out, std::size_t length) {
    out.push_back(static_cast<std::uint8_t>(0x80 | (length & 0x7F)));
    out.push_back(static_cast<std::uint8_t>(0x80 | ((length >> 7) & 0x7F)));
    out.push_back(static_cast<std::uint8_t>((length >> 14) & 0x7F));
}

}  // namespace dorvane::fuzz
