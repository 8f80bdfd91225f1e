// SPDX-License-Identifier: Apache-2.0
// A snapshot's directory in its machine's bundle, and copying files to and from it.
#pragma once

#include "core/DorvaneVMConfig.h"
#include "core/VMBundle.h"
#include "core/VMSnapshot.h"
#include "platform/FileManager.h"

namespace dorvane {

/// A plain value: the fixed names in "Snapshots/<id>".
struct SnapshotFiles {
    SnapshotFiles(const VMBundle& bundle, const UUID& id)
        : directory(bundle.snapshotsDirectory() / id.text()) {}

    Path directory;

    Path metadata() const { return directory / "meta.json"; }
    Path config() const { return directory / DorvaneVMConfig::fileName; }
    Path state() const { return directory / "state.vzvmsave"; }
    Path stateDevices() const { return directory / "state.vzvmsave.devices"; }
    Path disk(VMOSType os) const { return VMBundle(directory).systemDisk(os); }
    Path nvram(VMOSType os) const { return nvramFile(VMBundle(directory), os); }
    void removeState() const;
    /// In one step as far as a later start can see: the sweep finishes what a crash leaves.
    void remove() const;

    /// The firmware's variables of a bundle, or of a directory that is laid out like one.
    static Path nvramFile(const VMBundle& bundle, VMOSType os);
};

/// Blocking; for background work. All throw FileError.
class SnapshotFileCopier {
  public:
    explicit SnapshotFileCopier(FileManager& fileManager) : fileManager_(fileManager) {}

    /// Everything that a snapshot of its own keeps: the system disk, the firmware's variables, the
    /// description.
    void cloneDisk(const VMBundle& from, const SnapshotFiles& to, VMOSType os) const;
    /// What a layer of a chain keeps beside its disk.
    void cloneSettings(const VMBundle& from, const SnapshotFiles& to, VMOSType os) const;

    /// The name beside a file under which its successor is prepared.
    static Path stagedCopy(const Path& destination) { return destination.string() + ".restoring"; }
    /// Puts a copy there; removes what stood there.
    void stage(const Path& source, const Path& destination) const;
    /// Swaps a staged copy in; does nothing when there is none.
    static void commitStaged(const Path& destination);
    static void discardStaged(const Path& destination);
    /// The destination holds its old content or the new, whatever happens.
    void replaceFile(const Path& destination, const Path& source) const;

  private:
    FileManager& fileManager_;
};

}  // namespace dorvane
