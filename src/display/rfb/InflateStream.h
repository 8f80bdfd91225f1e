// SPDX-License-Identifier: Apache-2.0
// A zlib stream (RFC 1950) that lives on across many pieces of input.
#pragma once

#include <zlib.h>

#include <span>

#include "base/Bytes.h"

namespace dorvane {

/// What zlib answered; the decoders turn it into their own error.
struct ZlibFailure {
    int code;
};

/// Each piece is given by `setInput` and then taken up by `inflate` or `discard` to its end. Not movable:
/// zlib keeps a pointer to its state.
class InflateStream {
  public:
    InflateStream() noexcept : result_(inflateInit(&stream_)) {
        // The check value stands at a stream's end, which these streams never reach; computing it all the
        // same would cost more than inflating compressible data.
        if (isInitialized()) inflateValidate(&stream_, 0);
    }
    InflateStream(const InflateStream&) = delete;
    InflateStream& operator=(const InflateStream&) = delete;
    ~InflateStream() {
        if (isInitialized()) inflateEnd(&stream_);
    }

    bool isInitialized() const { return result_ == Z_OK; }
    /// Why there is no stream.
    int initializationResult() const { return result_; }

    /// `input` stays valid until it is used up; at most 4 GiB.
    void setInput(ByteView input);
    /// Whether nothing more comes of the input. zlib may have taken all of it and still owe output.
    bool isExhausted() const { return isExhausted_; }
    /// Writes until `output` is full or the input is exhausted, and returns how many bytes. Throws
    /// ZlibFailure. zlib is fastest with 258 bytes to spare.
    std::size_t inflate(std::span<std::uint8_t> output);
    /// Inflates what is left of the input and says how much it was, writing over `scratch`.
    std::size_t discard(std::span<std::uint8_t> scratch);

  private:
    z_stream stream_{};
    int result_;
    bool isExhausted_ = true;
};

}  // namespace dorvane
