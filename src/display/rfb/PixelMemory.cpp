// SPDX-License-Identifier: Apache-2.0
#include "display/rfb/PixelMemory.h"

#include <sys/mman.h>

#include <cstring>
#include <new>

namespace dorvane {
namespace {

constexpr std::size_t cacheLineBytes = 64, hugePageBytes = 2'097'152;

}  // namespace

PixelMemory::PixelMemory(std::size_t bytes) {
    if (bytes == 0) return;
    const auto alignment = bytes < hugePageBytes ? cacheLineBytes : hugePageBytes;
    const auto rounded = (bytes + alignment - 1) / alignment * alignment;
    bytes_.reset(static_cast<std::uint8_t*>(std::aligned_alloc(alignment, rounded)));
    if (!bytes_) throw std::bad_alloc();
#ifdef MADV_HUGEPAGE
    // A wish: without it the memory is as good, only slower.
    if (alignment == hugePageBytes) ::madvise(bytes_.get(), rounded, MADV_HUGEPAGE);
#endif
    std::memset(bytes_.get(), 0, rounded);
}

}  // namespace dorvane
