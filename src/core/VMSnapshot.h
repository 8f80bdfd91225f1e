// SPDX-License-Identifier: Apache-2.0
// A snapshot's row in the library store.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "base/Date.h"
#include "base/UUID.h"

namespace dorvane {

enum class VMSnapshotKind { manual, automatic };
enum class VMSnapshotStorage { clone, chain };

struct VMSnapshotFields {
    UUID id = UUID::random();
    UUID vmID;
    std::string name;
    Date createdAt;
    bool includesRAMState = false;
    std::string guestOSTypeRaw;
    std::string configHash;
    std::int64_t logicalDiskSizeBytes = 0;
    std::optional<std::string> kindRaw;
    std::optional<std::string> storageRaw;
    std::optional<UUID> parentSnapshotID;
    std::optional<bool> takenWhileRunningRaw;
    bool operator==(const VMSnapshotFields&) const = default;
};

/// A persistent row of one ModelContext; main thread only.
struct VMSnapshot : VMSnapshotFields {
    bool isDeleted = false;

    /// Absent or unknown text counts as manual, and as clone.
    VMSnapshotKind kind() const {
        return kindRaw == "automatic" ? VMSnapshotKind::automatic : VMSnapshotKind::manual;
    }
    VMSnapshotStorage storage() const {
        return storageRaw == "chain" ? VMSnapshotStorage::chain : VMSnapshotStorage::clone;
    }
    bool takenWhileRunning() const { return takenWhileRunningRaw.value_or(false); }
};

using VMSnapshotPointer = std::shared_ptr<VMSnapshot>;

}  // namespace dorvane
