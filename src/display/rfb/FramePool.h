// SPDX-License-Identifier: Apache-2.0
// Memory for pictures that comes back when their last reader lets go, with what it last showed.
#pragma once

#include <mutex>
#include <vector>

#include "display/GuestDisplayTransport.h"

namespace dorvane {

/// When each row of a screen last changed, counted in pictures made.
struct RowVersions {
    std::uint64_t current = 1;
    std::vector<std::uint64_t> rows;
};

/// `snapshot` belongs to one queue; pictures are dropped on any thread, also after the pool has gone.
class FramePool : public std::enable_shared_from_this<FramePool> {
  public:
    /// A picture of `pixels`, made in a spare one of the same size when there is one: then only rows that are
    /// newer than it are copied.
    FramePointer snapshot(int width, int height, ByteView pixels, const RowVersions& versions);

  private:
    struct Frame {
        FrameImage image;
        std::uint64_t version = 0;
    };
    static constexpr std::size_t maximumSpares = 3;

    std::unique_ptr<Frame> takeSpare(int width, int height);
    void giveBack(std::unique_ptr<Frame> frame);

    std::mutex mutex_;
    std::vector<std::unique_ptr<Frame>> spares_;
};

}  // namespace dorvane
