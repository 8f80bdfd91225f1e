// SPDX-License-Identifier: Apache-2.0
// From an entry's compressed bytes to its content.
#pragma once

#include "snapshots/ArchiveReader.h"

namespace dorvane {

/// A window on the compressed bytes of one entry.
class ArchiveInput {
  public:
    ArchiveInput(const ArchiveSource& source, std::uint64_t offset, std::uint64_t size)
        : source_(source), offset_(offset), left_(size) {}

    /// At least `count` bytes, or all that are left when they are fewer. Throws ArchiveError when the archive
    /// ends before the entry does.
    ByteView peek(std::size_t count);
    void consume(std::size_t count) { begin_ += count; }
    bool isAtEnd() const { return left_ == 0 && begin_ == buffer_.size(); }

  private:
    const ArchiveSource& source_;
    std::uint64_t offset_;
    std::uint64_t left_;
    Bytes buffer_;
    std::size_t begin_ = 0;
};

void copyStored(ArchiveInput& input, ArchiveSink& sink);
/// Throws ArchiveError unless the input is exactly one whole deflate stream.
void inflateAll(ArchiveInput& input, ArchiveSink& sink);

}  // namespace dorvane
