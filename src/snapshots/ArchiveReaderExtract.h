// SPDX-License-Identifier: Apache-2.0
// From an archive to files on disk.
#pragma once

#include <functional>

#include "snapshots/ArchiveReader.h"

namespace dorvane {

struct ArchiveExtraction {
    /// Which entries to unpack.
    std::function<bool(const ArchiveEntry&)> includes;
    /// Told before each entry; what it throws ends the extraction.
    std::function<void(const ArchiveEntry&)> begins;
    /// Told how many bytes are about to be written to the disk, holes excepted; what it throws ends it too.
    std::function<void(std::uint64_t)> writes;
};

/// Unpacks into a folder that exists, is empty, and that nobody else changes. Blocks of zeros become holes.
/// Links are made last, and only those that stay within their first folder: nothing is ever written through
/// one. Blocking. Throws ArchiveError, FileError or CancellationError; the caller removes the folder then.
void extractArchive(const ArchiveReader& archive, const Path& into, const ArchiveExtraction& how,
                    ArchiveControl& control);

}  // namespace dorvane
