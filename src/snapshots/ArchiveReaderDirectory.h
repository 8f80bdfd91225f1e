// SPDX-License-Identifier: Apache-2.0
// An archive's table of contents.
#pragma once

#include <vector>

#include "snapshots/ArchiveFormat.h"
#include "snapshots/ArchiveSource.h"

namespace dorvane {

/// Exactly that many bytes; throws ArchiveError when the archive ends before.
Bytes readArchive(const ArchiveSource& source, std::uint64_t offset, std::size_t count);

/// The entries in the order of the central directory, checked as ArchiveReader promises. Throws ArchiveError.
std::vector<ArchiveEntry> readArchiveDirectory(const ArchiveSource& source);

/// "The archive is damaged: " and the reason.
ArchiveError damagedArchive(const std::string& reason);

}  // namespace dorvane
