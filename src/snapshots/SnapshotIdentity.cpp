// SPDX-License-Identifier: Apache-2.0
#include "snapshots/SnapshotIdentity.h"

#include <map>

#include "base/Localized.h"
#include "core/DorvaneError.h"
#include "snapshots/SnapshotChainNode.h"
#include "snapshots/SnapshotMetadata.h"

namespace dorvane {
namespace {

namespace fs = std::filesystem;

using Renames = std::map<UUID, UUID>;

Renames newNames(const VMBundle& bundle) {
    Renames names;
    if (!fs::is_directory(bundle.snapshotsDirectory())) return names;
    for (const auto& entry : fs::directory_iterator(bundle.snapshotsDirectory()))
        if (const auto id = UUID::parse(entry.path().filename().string())) names[*id] = UUID::random();
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

void rotateSnapshotIdentities(const VMBundle& bundle, const QCOW2ChainToolProtocol* tool) {
    const auto names = newNames(bundle);
    if (names.empty()) return;
    followParent(bundle, SnapshotChainNode::live(), names, tool);
    for (const auto& [id, name] : names) followParent(bundle, SnapshotChainNode::snapshot(id), names, tool);
    for (const auto& [id, name] : names) {
        renameDescription(SnapshotMetadata::file(bundle, id), name, names);
        fs::rename(SnapshotChainNode::directory(bundle, id), SnapshotChainNode::directory(bundle, name));
    }
}

}  // namespace dorvane
