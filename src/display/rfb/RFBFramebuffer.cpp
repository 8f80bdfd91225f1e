// SPDX-License-Identifier: Apache-2.0
#include "display/rfb/RFBFramebuffer.h"

#include <algorithm>

namespace dorvane {

void RFBFramebuffer::resize(int width, int height) {
    width = std::max(width, 0);
    height = std::max(height, 0);
    if (width == width_ && height == height_) return;
    memory_ = PixelMemory(std::size_t(width) * std::size_t(height) * 4);
    width_ = width;
    height_ = height;
    versions_.rows.assign(std::size_t(height), versions_.current);
}

void RFBFramebuffer::applyRaw(const RFBRectangleHeader& header, ByteView pixels) {
    if (pixels.size() < header.pixelCount() * 4) return;
    const int left = std::max(header.x, 0), right = std::min(header.x + header.width, width_);
    const int top = std::max(header.y, 0), bottom = std::min(header.y + header.height, height_);
    if (left >= right || top >= bottom) return;
    const auto sourceStride = std::size_t(header.width) * 4;
    const auto* source =
        pixels.data() + std::size_t(top - header.y) * sourceStride + std::size_t(left - header.x) * 4;
    auto* destination = memory_.data() + std::size_t(top) * stride() + std::size_t(left) * 4;
    for (int y = top; y < bottom; ++y, source += sourceStride, destination += stride())
        copyPixels(destination, source, std::size_t(right - left));
    markChanged(top, bottom - top);
}

void RFBFramebuffer::applyCopyRect(const RFBRectangleHeader& header, int sourceX, int sourceY) {
    const int skipX = std::max({0, -header.x, -sourceX}), skipY = std::max({0, -header.y, -sourceY});
    const int width = std::min({header.width, width_ - header.x, width_ - sourceX}) - skipX;
    const int height = std::min({header.height, height_ - header.y, height_ - sourceY}) - skipY;
    if (width <= 0 || height <= 0) return;
    const auto at = [&](int x, int y) {
        return memory_.data() + std::size_t(y + skipY) * stride() + std::size_t(x + skipX) * 4;
    };
    // Downwards moves begin at the bottom, so that no row is overwritten before it is read.
    const bool upwards = sourceY < header.y;
    for (int i = 0; i < height; ++i) {
        const int row = upwards ? height - 1 - i : i;
        std::memmove(at(header.x, header.y + row), at(sourceX, sourceY + row), std::size_t(width) * 4);
    }
    markChanged(header.y + skipY, height);
}

bool RFBFramebuffer::contains(const RFBRectangleHeader& header) const {
    return header.x >= 0 && header.y >= 0 && header.width >= 0 && header.height >= 0 &&
           header.x + header.width <= width_ && header.y + header.height <= height_;
}

PixelTarget RFBFramebuffer::target(const RFBRectangleHeader& header) {
    markChanged(header.y, header.height);
    return PixelTarget{memory_.data(), stride()}.at(std::size_t(header.x), std::size_t(header.y));
}

FramePointer RFBFramebuffer::makeImage() {
    if (width_ < 1 || height_ < 1) return nullptr;
    auto image = pool_->snapshot(width_, height_, pixels(), versions_);
    ++versions_.current;
    return image;
}

void RFBFramebuffer::markChanged(int y, int rows) {
    std::fill_n(versions_.rows.begin() + y, rows, versions_.current);
}

}  // namespace dorvane
