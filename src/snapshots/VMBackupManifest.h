// SPDX-License-Identifier: Apache-2.0
// The two JSON files that tell where a backup came from.
#pragma once

#include "base/Date.h"
#include "core/VMRecord.h"

namespace dorvane {

/// "manifest.json" at the root of a backup.
struct VMBackupManifest {
    static constexpr auto fileName = "manifest.json";
    static constexpr std::int64_t currentFormatVersion = 1;

    std::int64_t formatVersion = currentFormatVersion;
    Date createdAt;
    std::string appVersion;
    std::string engineVersion;
    std::string originalName;
    std::string originalDirectoryName;
    std::string originalVMPath;
    /// The logical size of the VM's files.
    std::optional<std::uint64_t> uncompressedBytes;

    JSON encoded() const;
    /// Throws JSONError. Unknown keys are passed over, that of the engine in old archives among them.
    static VMBackupManifest decoded(const JSON& value);
    bool operator==(const VMBackupManifest&) const = default;
};

/// "vm-record.json" at the root of a backup: what the library knew about the machine.
struct VMBackupRecordSnapshot {
    static constexpr auto fileName = "vm-record.json";

    std::string name;
    VMOSType osType = VMOSType::linux;
    std::optional<std::string> osVersionLabel;
    std::string vmPath;
    std::int64_t diskSizeBytes = 0;
    std::int64_t memoryMB = 0;
    std::int64_t cpuCount = 0;
    std::optional<std::string> imageSource;
    std::vector<SharedFolder> sharedFolders;
    std::optional<std::string> pendingInstallerImagePath;
    std::vector<std::string> mountedImages;
    std::vector<std::string> usbStorageDevices;
    std::optional<DisplayResolution> displayResolution;

    VMBackupRecordSnapshot() = default;
    explicit VMBackupRecordSnapshot(const VMRecordFields& vm);

    JSON encoded() const;
    /// Throws JSONError.
    static VMBackupRecordSnapshot decoded(const JSON& value);
    /// A record of its own for the restored machine: stopped, with the shared folders and attachments. The
    /// caller sets its dates.
    VMRecordPointer makeRestoredVM(std::string restoredName, const Path& restoredPath) const;
    bool operator==(const VMBackupRecordSnapshot&) const = default;
};

}  // namespace dorvane
