// SPDX-License-Identifier: Apache-2.0
#include "display/rfb/ReceiveBuffer.h"

#include <algorithm>
#include <cstring>

namespace dorvane {

std::span<std::uint8_t> ReceiveBuffer::tail() {
    const auto kept = end_ - begin_;
    if (kept + chunkBytes > capacity_) {
        const auto capacity = std::max(capacity_ * 2, kept + chunkBytes);
        auto memory = std::make_unique_for_overwrite<std::uint8_t[]>(capacity);
        std::copy_n(memory_.get() + begin_, kept, memory.get());
        memory_ = std::move(memory);
        capacity_ = capacity;
        begin_ = 0;
    } else if (kept <= smallContent || end_ + chunkBytes > capacity_) {
        std::memmove(memory_.get(), memory_.get() + begin_, kept);
        begin_ = 0;
    }
    end_ = begin_ + kept;
    return {memory_.get() + end_, capacity_ - end_};
}

}  // namespace dorvane
