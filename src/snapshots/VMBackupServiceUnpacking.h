// SPDX-License-Identifier: Apache-2.0
// The blocking half of a restore: from an archive to a bundle.
#pragma once

#include "core/DorvaneVMConfig.h"
#include "platform/FileManager.h"
#include "platform/HostSystem.h"
#include "qemu/QCOW2ChainToolProtocol.h"
#include "snapshots/ArchiveReader.h"
#include "snapshots/VMBackupManifest.h"
#include "snapshots/VMBackupServicePacking.h"

namespace dorvane {

/// An archive whose descriptions are read and whose contents are looked through; nothing is unpacked yet.
class VMBackupArchive {
  public:
    /// Throws vmRestoreFailed, with a sentence for everything that makes the file no backup that this version
    /// can restore; ArchiveError or FileError.
    explicit VMBackupArchive(const Path& path);

    const ArchiveReader& reader() const { return reader_; }
    const VMBackupManifest& manifest() const { return manifest_; }
    const VMBackupRecordSnapshot& record() const { return record_; }
    /// The name of the VM directory at the archive's root.
    const std::string& directoryName() const { return directoryName_; }
    bool isPartOfVM(const ArchiveEntry& entry) const;

    /// The manifest's value, or else what the archive's directory adds up to.
    std::uint64_t expectedUncompressedBytes() const;
    /// What unpacking needs on the disk at the very least, whatever the holes.
    std::uint64_t leastDiskBytes() const;

  private:
    JSON archivedJSON(const char* name) const;
    void readDescriptions();
    void findDirectory();
    void requireComplete() const;
    void requirePlausibleSize() const;

    ArchiveReader reader_;
    VMBackupManifest manifest_;
    VMBackupRecordSnapshot record_;
    std::string directoryName_;
};

/// What the files of an archive hold together by its central directory; absent when it can't be read.
std::optional<std::uint64_t> zipUncompressedBytes(const Path& of);

struct VMBackupInstallOrder {
    /// A directory of this restore's own, in the storage folder; made by `unpackBackup`.
    Path staging;
    Path destination;
    FileManager& fileManager;
    const HostSystem& host;
    /// Brings a bundle of an older layout up to date; may be empty.
    std::function<void(const VMBundle&)> translateBundle;
    VMBackupStepObserver step;
    /// For a machine whose disk has layers; null: such a one can't be installed.
    const QCOW2ChainToolProtocol* chainTool = nullptr;
};

/// Unpacks the VM directory into the staging directory, for as long as the disk has room. Throws
/// ArchiveError, FileError, diskSpaceInsufficient, vmRestoreFailed or CancellationError; the caller removes
/// the staging directory then.
void unpackBackup(const VMBackupArchive& archive, const VMBackupInstallOrder& order, ArchiveControl& control);

/// Makes a machine of its own of what was unpacked, and moves it to its destination as the last thing. Throws
/// vmRestoreFailed, FileError or CancellationError.
DorvaneVMConfig installBackup(const VMBackupArchive& archive, const VMBackupInstallOrder& order,
                              ArchiveControl& control);

}  // namespace dorvane
