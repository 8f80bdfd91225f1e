// SPDX-License-Identifier: Apache-2.0
// Writes ZIP archives, many gigabytes of holes as fast as they can be told.
#pragma once

#include <sys/stat.h>

#include <vector>

#include "runtime/Files.h"
#include "snapshots/ArchiveControl.h"
#include "snapshots/ArchiveEntryNames.h"

namespace dorvane {

/// Blocking; one thread. Written here and not by a library because of disks that are mostly holes: files are
/// deflated in segments of one mebibyte, side by side on the machine's cores, and a segment of zeros isn't
/// compressed at all but stands as a ready-made run of deflate blocks. Any ZIP reader understands the result.
///
/// Throws FileError for the files, ArchiveError for a name that can't be kept (see ArchiveEntryNames), and
/// CancellationError. What is written then is no archive.
class ArchiveWriter {
  public:
    /// Writes to `fd`, an empty file that the caller keeps open; `path` is its name in failures.
    ArchiveWriter(int fd, Path path, ArchiveControl& control)
        : fd_(fd), path_(std::move(path)), control_(control) {}

    /// Counts what was read from files in `control`, holes excepted.
    void addFile(const std::string& name, const Path& source);
    void addDirectory(const std::string& name, const struct stat& info);
    void addLink(const std::string& name, std::string_view target, const struct stat& info);
    void addText(const std::string& name, std::string_view text, std::time_t modified);
    /// Writes the central directory and brings everything to the disk.
    void finish();

  private:
    ArchiveEntry begin(const std::string& name, ArchiveEntryKind kind, unsigned permissions,
                       std::time_t modified);
    void addWhole(ArchiveEntry entry, ByteView content);
    void addSegments(ArchiveEntry& entry, int source, const Path& path);
    void append(ByteView bytes);
    void flush();
    void writeAt(std::uint64_t offset, ByteView bytes);

    int fd_;
    Path path_;
    ArchiveControl& control_;
    ArchiveEntryNames names_;
    std::vector<ArchiveEntry> entries_;
    Bytes buffer_;
    std::uint64_t flushed_ = 0;
};

}  // namespace dorvane
