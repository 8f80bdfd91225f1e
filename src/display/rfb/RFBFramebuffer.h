// SPDX-License-Identifier: Apache-2.0
// The screen as the server has described it so far.
#pragma once

#include "display/rfb/FramePool.h"
#include "display/rfb/PixelMemory.h"
#include "display/rfb/PixelTarget.h"
#include "display/rfb/RFBRectangle.h"

namespace dorvane {

/// Pixels are `bgra32`, rows without padding. Lives on one queue.
class RFBFramebuffer {
  public:
    /// The largest screen accepted; `isAcceptable` is asked before a size from outside reaches `resize`.
    static constexpr std::size_t maximumPixels = RFBRectangle::maximumBytes / 4;
    static constexpr bool isAcceptable(int width, int height) {
        return width >= 0 && height >= 0 && std::size_t(width) * std::size_t(height) <= maximumPixels;
    }

    int width() const { return width_; }
    int height() const { return height_; }
    ByteView pixels() const { return {memory_.data(), stride() * std::size_t(height_)}; }
    std::size_t stride() const { return std::size_t(width_) * 4; }

    /// Negative sizes become 0. A new size gives a black screen, the present one changes nothing.
    void resize(int width, int height);
    /// Draws what lies inside the screen. `pixels` has rows of the header's width; too few of them draw
    /// nothing.
    void applyRaw(const RFBRectangleHeader& header, ByteView pixels);
    /// Copies the part for which source and destination both lie inside the screen; they may overlap.
    void applyCopyRect(const RFBRectangleHeader& header, int sourceX, int sourceY);

    bool contains(const RFBRectangleHeader& header) const;
    /// For writing into the screen directly; only for a rectangle that the screen contains. Its rows count as
    /// changed from now on.
    PixelTarget target(const RFBRectangleHeader& header);

    /// The present picture; nothing without pixels. Copies only rows that changed since a picture was last
    /// made in the memory that it takes.
    FramePointer makeImage();

  private:
    void markChanged(int y, int rows);

    int width_ = 0;
    int height_ = 0;
    PixelMemory memory_;
    RowVersions versions_;
    std::shared_ptr<FramePool> pool_ = std::make_shared<FramePool>();
};

}  // namespace dorvane
