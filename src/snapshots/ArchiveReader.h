// SPDX-License-Identifier: Apache-2.0
// Reads ZIP archives, whoever made them.
#pragma once

#include <memory>
#include <vector>

#include "snapshots/ArchiveControl.h"
#include "snapshots/ArchiveFormat.h"
#include "snapshots/ArchiveSource.h"

namespace dorvane {

/// Takes one file's content, in order.
class ArchiveSink {
  public:
    virtual ~ArchiveSink() = default;
    virtual void bytes(ByteView content) = 0;
    virtual void zeros(std::uint64_t count) = 0;
};

/// Blocking; one thread. Stored and deflated entries, ZIP64; nothing encrypted and nothing in several parts.
/// Every length is held against the archive's own size before it is used, and everything that the directory
/// says of a file against what the file turns out to be. All operations throw ArchiveError, or FileError of
/// the source.
class ArchiveReader {
  public:
    /// Reads the central directory. Refuses unsafe names, names that stand for two things, entries that lie
    /// over each other, and what is neither file, folder nor link.
    explicit ArchiveReader(std::unique_ptr<const ArchiveSource> source);

    const std::vector<ArchiveEntry>& entries() const { return entries_; }
    /// Null when there is none.
    const ArchiveEntry* find(std::string_view name) const;
    /// What all files hold together, as the directory says.
    std::uint64_t uncompressedBytes() const;

    /// A small file's content; refused above `limit` bytes.
    std::string readText(const ArchiveEntry& entry, std::size_t limit) const;
    /// Hands the content to `sink`, counted in `control`; long runs of zeros that ArchiveWriter made aren't
    /// even inflated. The sink gets no byte more than the directory says; size and checksum are proved at the
    /// end.
    void read(const ArchiveEntry& entry, ArchiveSink& sink, ArchiveControl& control) const;

  private:
    std::uint64_t dataOffset(const ArchiveEntry& entry) const;

    std::unique_ptr<const ArchiveSource> source_;
    std::vector<ArchiveEntry> entries_;
};

}  // namespace dorvane
