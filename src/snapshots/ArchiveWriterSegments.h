// SPDX-License-Identifier: Apache-2.0
// The pieces that a file is compressed in, several at a time.
#pragma once

#include <deque>
#include <functional>
#include <future>

#include "base/Bytes.h"

namespace dorvane {

/// A piece of a deflate stream that ends between two bytes and refers to nothing before it.
struct ArchiveSegment {
    /// Empty stands for `deflatedZeros()`.
    Bytes compressed;
    std::uint32_t crc = 0;
    std::uint64_t size = 0;
};

/// Compresses as many pieces at once as the machine has cores, and hands them out in order. One thread; the
/// destructor waits for what is under way.
class ArchiveSegmentQueue {
  public:
    using Consumer = std::function<void(const ArchiveSegment&)>;

    explicit ArchiveSegmentQueue(Consumer consumer);

    void add(Bytes content);
    void addZeros();
    /// Hands out what is left.
    void finish();

  private:
    void take();

    struct Pending {
        std::future<ArchiveSegment> segment;
        bool isZeros;
    };
    Consumer consumer_;
    std::size_t limit_;
    std::size_t underWay_ = 0;
    std::deque<Pending> pending_;
};

}  // namespace dorvane
