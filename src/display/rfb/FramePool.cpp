// SPDX-License-Identifier: Apache-2.0
#include "display/rfb/FramePool.h"

#include <cstring>

namespace dorvane {
namespace {

void copyNewRows(FrameImage& image, ByteView pixels, const RowVersions& versions, std::uint64_t since) {
    const auto stride = std::size_t(image.width) * 4;
    const auto rowCount = versions.rows.size();
    for (std::size_t first = 0; first < rowCount; ++first) {
        if (versions.rows[first] <= since) continue;
        auto end = first + 1;
        while (end < rowCount && versions.rows[end] > since) ++end;
        std::memcpy(image.pixels.data() + first * stride, pixels.data() + first * stride,
                    (end - first) * stride);
        first = end;
    }
}

}  // namespace

FramePointer FramePool::snapshot(int width, int height, ByteView pixels, const RowVersions& versions) {
    auto frame = takeSpare(width, height);
    if (frame) {
        copyNewRows(frame->image, pixels, versions, frame->version);
    } else {
        frame = std::make_unique<Frame>();
        frame->image = {width, height, Bytes(pixels.begin(), pixels.end())};
    }
    frame->version = versions.current;
    const auto* image = &frame->image;
    const std::shared_ptr<Frame> owner(frame.release(), [pool = weak_from_this()](Frame* released) {
        std::unique_ptr<Frame> spare(released);
        if (const auto home = pool.lock()) home->giveBack(std::move(spare));
    });
    return {owner, image};
}

std::unique_ptr<FramePool::Frame> FramePool::takeSpare(int width, int height) {
    const std::lock_guard lock(mutex_);
    std::erase_if(spares_, [&](const auto& spare) {
        return spare->image.width != width || spare->image.height != height;
    });
    if (spares_.empty()) return nullptr;
    auto frame = std::move(spares_.back());
    spares_.pop_back();
    return frame;
}

void FramePool::giveBack(std::unique_ptr<Frame> frame) {
    const std::lock_guard lock(mutex_);
    if (spares_.size() < maximumSpares) spares_.push_back(std::move(frame));
}

}  // namespace dorvane
