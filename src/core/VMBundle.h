// SPDX-License-Identifier: Apache-2.0
// A VM's directory and the fixed names in it.
#pragma once

#include <string>
#include <vector>

#include "core/EphemeralInfo.h"
#include "core/VMOSType.h"
#include "runtime/Files.h"

namespace dorvane {

class DiskImageTool;

/// A plain value that holds only the directory's location. Operations are blocking file-system work, run off
/// the main thread where their amount calls for it. No file locks: VMOperationGate keeps two operations
/// apart.
class VMBundle {
  public:
    explicit VMBundle(Path directory) : directoryURL(std::move(directory)) {}

    Path directoryURL;

    std::string name() const { return directoryURL.filename().string(); }
    Path configFile() const { return directoryURL / "config.json"; }
    Path rawDisk() const { return directoryURL / "disk.img"; }
    Path qcow2Disk() const { return directoryURL / "disk.qcow2"; }
    Path auxiliaryStorage() const { return directoryURL / "nvram.bin"; }
    Path efiVariableStore() const { return directoryURL / "efi_vars.fd"; }
    Path nvram() const { return directoryURL / "nvram.qcow2"; }
    Path savedState() const { return directoryURL / "state.vzvmsave"; }
    Path savedStateHash() const { return directoryURL / "state.vzvmsave.hash"; }
    Path savedStateDevices() const { return directoryURL / "state.vzvmsave.devices"; }
    Path consoleLog() const { return directoryURL / "console.log"; }
    Path ephemeralMarker() const { return directoryURL / "ephemeral.json"; }
    Path snapshotsDirectory() const { return directoryURL / "Snapshots"; }
    Path installingMarker() const { return directoryURL / ".dorvane-installing"; }
    Path guestToolsDetectedMarker() const { return directoryURL / "guest-tools-detected"; }
    Path systemDisk(VMOSType os) const { return os == VMOSType::windows ? qcow2Disk() : rawDisk(); }

    /// Makes a bundle with a sparse raw disk. Throws vmCreationFailed or FileError; leaves no directory
    /// behind.
    static VMBundle create(const Path& directory, std::uint64_t diskSizeBytes);
    /// The same with a qcow2 disk made by the tool, whose error passes through.
    static VMBundle createForQEMU(const Path& directory, std::uint64_t diskSizeBytes,
                                  const DiskImageTool& tool);
    /// Creates or resizes "disk.img" to a logical size in bytes, without allocating blocks.
    void allocateSparseDiskImage(std::uint64_t sizeBytes) const;

    /// Whether the bundle is complete enough to use: a configuration and a disk.
    bool isValid() const;
    bool hasSavedState() const;
    /// Removes a suspended state; what isn't there is passed over.
    void discardSavedState() const;
    void writeEphemeralMarker(const EphemeralInfo& info) const;
    void removeEphemeralMarker() const;
    void removeStrayRawDiskIfEmpty() const;
    /// File sizes in bytes; 0 when absent.
    std::uint64_t diskImageLogicalSize() const;
    std::uint64_t systemDiskLogicalSize(VMOSType os) const;

    /// The bundles directly inside a storage folder, in the order a file browser shows. Throws FileError when
    /// the folder can't be listed.
    static std::vector<VMBundle> scanBundles(const Path& storagePath);
    /// The same with a failure logged and turned into an empty list.
    static std::vector<VMBundle> discoverBundles(const Path& storagePath);
    /// Removes what a crash left behind and returns the removed paths. Throws FileError when it can't list.
    static std::vector<Path> sweepInterruptedWork(const Path& storagePath);

    bool operator==(const VMBundle&) const = default;
};

}  // namespace dorvane
