// SPDX-License-Identifier: Apache-2.0
// The blocking half of a backup: from a bundle to an archive.
#pragma once

#include <sys/stat.h>

#include "core/VMBundle.h"
#include "snapshots/ArchiveWriter.h"
#include "snapshots/VMBackupManifest.h"

namespace dorvane {

/// Told before each step that changes a disk, with a name for it; what it throws ends the work as that step's
/// own failure would.
using VMBackupStepObserver = std::function<void(const std::string&)>;

struct VMBackupItem {
    /// Relative to the bundle.
    std::string name;
    ArchiveEntryKind kind = ArchiveEntryKind::file;
    struct stat info {};
};

/// Everything in a directory, parents first, in the order of the names; sockets and pipes of a program that
/// has gone are left out. Throws FileError.
std::vector<VMBackupItem> listBackupItems(const Path& directory);

/// What the files of a directory hold, holes included.
std::uint64_t logicalBytes(const Path& of);

struct VMBackupPackOrder {
    VMBundle bundle;
    Path destination;
    /// `uncompressedBytes` is found out on the way.
    VMBackupManifest manifest;
    VMBackupRecordSnapshot record;
    VMBackupStepObserver step;
};

/// Packs straight out of the bundle, which the caller holds: the archive is as if "manifest.json",
/// "vm-record.json" and a copy of the bundle had been put in a directory first, without the room and time of
/// that copy. The archive is written beside its destination and takes the place at the end. Throws
/// ArchiveError, FileError, vmBackupFailed or CancellationError.
void packBackup(VMBackupPackOrder order, ArchiveControl& control);

}  // namespace dorvane
