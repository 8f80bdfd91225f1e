// SPDX-License-Identifier: Apache-2.0
#include "snapshots/SnapshotMetadata.h"

#include "base/Localized.h"
#include "core/DorvaneError.h"

namespace dorvane {
namespace {

constexpr std::size_t fileLimit = 1 << 20;

VMOSType guestOSType(const VMSnapshotFields& snapshot) {
    const auto os = osTypeFromRawValue(snapshot.guestOSTypeRaw);
    if (!os)
        throw DorvaneError(
            DorvaneError::Case::vmSnapshotFailed,
            localized("The snapshot's guest system \"%@\" is unknown.", snapshot.guestOSTypeRaw));
    return *os;
}

template <typename T>
T readable(const std::optional<T>& value, std::string_view key, std::string_view expected) {
    if (!value) detail::throwMistyped(key, expected);
    return *value;
}

UUID identifier(const std::string& text, std::string_view key) {
    return readable(UUID::parse(text), key, "an identifier");
}

}  // namespace

SnapshotMetadata SnapshotMetadata::of(const VMSnapshotFields& snapshot) {
    return {currentFormatVersion,
            snapshot.id,
            snapshot.name,
            std::chrono::floor<std::chrono::seconds>(snapshot.createdAt),
            snapshot.includesRAMState,
            dorvane::guestOSType(snapshot),
            snapshot.configHash,
            snapshot.logicalDiskSizeBytes,
            snapshot.kindRaw,
            snapshot.storageRaw,
            snapshot.parentSnapshotID,
            snapshot.takenWhileRunningRaw};
}

VMSnapshotFields SnapshotMetadata::row(const UUID& vmID) const {
    VMSnapshotFields fields;
    fields.id = id;
    fields.vmID = vmID;
    fields.name = name;
    fields.createdAt = createdAt;
    fields.includesRAMState = includesRAMState;
    fields.guestOSTypeRaw = rawValue(guestOSType);
    fields.configHash = configHash;
    fields.logicalDiskSizeBytes = logicalDiskSizeBytes;
    fields.kindRaw = kind;
    fields.storageRaw = storage;
    fields.parentSnapshotID = parentSnapshotID;
    fields.takenWhileRunningRaw = takenWhileRunning;
    return fields;
}

std::string SnapshotMetadata::encoded() const {
    nlohmann::ordered_json value{{"formatVersion", formatVersion},
                                 {"id", id.text()},
                                 {"name", name},
                                 {"createdAt", iso8601Text(createdAt)},
                                 {"includesRAMState", includesRAMState},
                                 {"guestOSType", rawValue(guestOSType)},
                                 {"configHash", configHash},
                                 {"logicalDiskSizeBytes", logicalDiskSizeBytes}};
    if (kind) value["kind"] = *kind;
    if (storage) value["storage"] = *storage;
    if (parentSnapshotID) value["parentSnapshotID"] = parentSnapshotID->text();
    if (takenWhileRunning) value["takenWhileRunning"] = *takenWhileRunning;
    return value.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

SnapshotMetadata SnapshotMetadata::decoded(std::string_view text) {
    const auto value = parseJSON(text);
    const JSONReader reader(value, "The snapshot's description");
    SnapshotMetadata metadata;
    metadata.formatVersion = reader.required<std::int64_t>("formatVersion");
    metadata.id = identifier(reader.required<std::string>("id"), "id");
    metadata.name = reader.required<std::string>("name");
    metadata.createdAt =
        readable(parseISO8601(reader.required<std::string>("createdAt")), "createdAt", "a date");
    metadata.includesRAMState = reader.required<bool>("includesRAMState");
    metadata.guestOSType = readable(osTypeFromRawValue(reader.required<std::string>("guestOSType")),
                                    "guestOSType", "a guest system");
    metadata.configHash = reader.required<std::string>("configHash");
    metadata.logicalDiskSizeBytes = reader.required<std::int64_t>("logicalDiskSizeBytes");
    metadata.kind = reader.optional<std::string>("kind");
    metadata.storage = reader.optional<std::string>("storage");
    if (const auto parent = reader.optional<std::string>("parentSnapshotID"))
        metadata.parentSnapshotID = identifier(*parent, "parentSnapshotID");
    metadata.takenWhileRunning = reader.optional<bool>("takenWhileRunning");
    return metadata;
}

SnapshotMetadata SnapshotMetadata::read(const Path& file) { return decoded(readTextFile(file, fileLimit)); }

void SnapshotMetadata::write(const Path& file) const { writeFileAtomically(file, encoded()); }

}  // namespace dorvane
