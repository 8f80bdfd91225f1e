// SPDX-License-Identifier: Apache-2.0
// A snapshot's row in the form that lies beside its data, from which the row can be made again.
#pragma once

#include "base/JSON.h"
#include "core/VMBundle.h"
#include "core/VMSnapshot.h"

namespace dorvane {

/// A value; "meta.json" in the snapshot's directory. Its members are in the order of the file's keys. Files
/// of older versions lack some of the optional ones, which then stay absent.
struct SnapshotMetadata {
    static constexpr std::int64_t currentFormatVersion = 4;

    std::int64_t formatVersion = currentFormatVersion;
    UUID id;
    std::string name;
    /// Whole seconds in the file.
    Date createdAt;
    bool includesRAMState = false;
    VMOSType guestOSType = VMOSType::windows;
    std::string configHash;
    std::int64_t logicalDiskSizeBytes = 0;
    std::optional<std::string> kind;
    std::optional<std::string> storage;
    std::optional<UUID> parentSnapshotID;
    std::optional<bool> takenWhileRunning;

    /// In the current version. Throws vmSnapshotFailed for a row whose guest family is unknown.
    static SnapshotMetadata of(const VMSnapshotFields& snapshot);
    VMSnapshotFields row(const UUID& vmID) const;

    std::string encoded() const;
    /// Throws JSONError. Unknown keys are ignored.
    static SnapshotMetadata decoded(std::string_view text);

    static Path file(const VMBundle& bundle, const UUID& snapshotID) {
        return bundle.snapshotsDirectory() / snapshotID.text() / "meta.json";
    }
    /// Both block. Throws FileError or JSONError.
    static SnapshotMetadata read(const Path& file);
    /// Atomically. Throws FileError.
    void write(const Path& file) const;

    bool operator==(const SnapshotMetadata&) const = default;
};

}  // namespace dorvane
