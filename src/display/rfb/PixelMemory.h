// SPDX-License-Identifier: Apache-2.0
// The memory of a screen.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>

namespace dorvane {

/// Zeroed bytes. They begin at a line of the processor's cache: servers cut the screen into squares of 16
/// pixels, each row of one is then a single line. From 2 MiB on the system is asked for huge pages: each row
/// of a small rectangle lies in another page of the usual 4 KiB, which costs more than the copying of it.
class PixelMemory {
  public:
    PixelMemory() = default;
    /// Throws std::bad_alloc.
    explicit PixelMemory(std::size_t bytes);

    /// Nothing when there are no bytes.
    std::uint8_t* data() { return bytes_.get(); }
    const std::uint8_t* data() const { return bytes_.get(); }

  private:
    struct Free {
        void operator()(std::uint8_t* bytes) const { std::free(bytes); }
    };
    std::unique_ptr<std::uint8_t, Free> bytes_;
};

}  // namespace dorvane
