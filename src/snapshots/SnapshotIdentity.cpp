// SPDX-License-Identifier: Apache-2.0
#include "snapshots/SnapshotIdentity.h"

#include <map>

#include "base/Localized.h"
#include "core/DorvaneError.h"
#include "snapshots/SnapshotChainFiles.h"
#include "snapshots/SnapshotMetadata.h"

namespace dorvane {
namespace {

namespace fs = std::filesystem;

using Renames = std::map<UUID, UUID>;

/// Stands in the bundle until every name has changed: each old one with its new one.
Path renamesFile(const VMBundle& bundle) { return bundle.directoryURL / ".dorvane-renaming"; }

void writeRenames(const VMBundle& bundle, const std::set<UUID>& ids) {
    auto names = JSON::object();
    for (const auto& id : ids) names[id.text()] = UUID::random().text();
    writeFileAtomically(renamesFile(bundle), names.dump());
}

Renames readRenames(const VMBundle& bundle) {
    Renames names;
    const auto value = parseJSON(readTextFile(renamesFile(bundle)));
    for (const auto& [from, to] : value.items()) {
        const auto id = UUID::parse(from), name = UUID::parse(jsonValue<std::string>(to, from));
        if (!id || !name) throw JSONError("The new names of the snapshots can't be read.");
        names[*id] = *name;
    }
    return names;
}

void followParent(const VMBundle& bundle, const SnapshotChainNode& node, const Renames& names,
                  const QCOW2ChainToolProtocol* tool) {
    const auto disk = node.diskURL(bundle);
    if (!fs::is_regular_file(fs::symlink_status(disk))) return;
    if (tool == nullptr)
        throw DorvaneError(DorvaneError::Case::vmSnapshotFailed,
                           localized("The disk image tool is missing from this build."));
    const auto backing = tool->backingPath(disk);
    const auto parent = backing ? SnapshotChainNode::snapshotID(*backing) : std::nullopt;
    if (!parent) return;
    if (const auto renamed = names.find(*parent); renamed != names.end())
        tool->retargetBackingUnsafe(disk, node.backingPath(renamed->second));
}

void renameDescription(const Path& file, const UUID& id, const Renames& names) {
    if (!fs::exists(file)) return;
    auto metadata = SnapshotMetadata::read(file);
    metadata.id = id;
    if (metadata.parentSnapshotID)
        if (const auto renamed = names.find(*metadata.parentSnapshotID); renamed != names.end())
            metadata.parentSnapshotID = renamed->second;
    metadata.write(file);
}

}  // namespace

std::set<UUID> snapshotIDs(const VMBundle& bundle) {
    std::set<UUID> ids;
    if (!fs::is_directory(bundle.snapshotsDirectory())) return ids;
    for (const auto& entry : fs::directory_iterator(bundle.snapshotsDirectory()))
        if (const auto id = UUID::parse(entry.path().filename().string())) ids.insert(*id);
    return ids;
}

void rotateSnapshotIdentities(const VMBundle& bundle, const QCOW2ChainToolProtocol* tool) {
    rotateSnapshotIdentities(bundle, tool, snapshotIDs(bundle));
}

void rotateSnapshotIdentities(const VMBundle& bundle, const QCOW2ChainToolProtocol* tool,
                              const std::set<UUID>& ids) {
    if (ids.empty()) return;
    writeRenames(bundle, ids);
    finishIdentityRotation(bundle, tool);
}

void finishIdentityRotation(const VMBundle& bundle, const QCOW2ChainToolProtocol* tool) {
    if (!isThere(renamesFile(bundle))) return;
    const auto names = readRenames(bundle);
    followParent(bundle, SnapshotChainNode::live(), names, tool);
    for (const auto& id : snapshotIDs(bundle))
        followParent(bundle, SnapshotChainNode::snapshot(id), names, tool);
    for (const auto& [id, name] : names) {
        const auto directory = SnapshotChainNode::directory(bundle, id);
        if (!isThere(directory)) continue;
        renameDescription(SnapshotMetadata::file(bundle, id), name, names);
        chainfiles::moveFile(directory, SnapshotChainNode::directory(bundle, name));
    }
    chainfiles::removeFile(renamesFile(bundle));
}

}  // namespace dorvane
