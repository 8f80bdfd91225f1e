// SPDX-License-Identifier: Apache-2.0
// Received bytes that are waiting to be parsed.
#pragma once

#include <memory>
#include <span>

#include "base/Bytes.h"

namespace dorvane {

/// Bytes are written at the back and consumed at the front. What is kept moves only in `tail`, so views into
/// it stay valid until then.
class ReceiveBuffer {
  public:
    /// The least room that `tail` gives.
    static constexpr std::size_t chunkBytes = 32'768;

    ByteView content() const { return {memory_.get() + begin_, end_ - begin_}; }
    void consume(std::size_t count) { begin_ += count; }
    /// Free room after the content.
    std::span<std::uint8_t> tail();
    /// Makes the first `count` bytes of the tail part of the content.
    void commit(std::size_t count) { end_ += count; }

  private:
    /// Up to here, moving what is kept to the front costs less than what it saves: the same memory stays in
    /// the processor's cache.
    static constexpr std::size_t smallContent = 16'384;

    std::unique_ptr<std::uint8_t[]> memory_;
    std::size_t capacity_ = 0, begin_ = 0, end_ = 0;
};

}  // namespace dorvane
