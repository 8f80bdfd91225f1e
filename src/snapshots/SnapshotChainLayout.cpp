// SPDX-License-Identifier: Apache-2.0
#include "snapshots/SnapshotChainLayout.h"

#include <algorithm>

#include "base/Localized.h"
#include "core/DorvaneError.h"
#include "snapshots/SnapshotChainFiles.h"

namespace dorvane {
namespace {

template <typename... Arguments>
[[noreturn]] void refuse(std::string_view sentence, const Arguments&... arguments) {
    throw DorvaneError(DorvaneError::Case::vmSnapshotFailed, localized(sentence, arguments...));
}

}  // namespace

void SnapshotChainLayout::requireDisk(const SnapshotChainNode& node) const {
    const auto disk = node.diskURL(bundle_);
    if (!node.isLive()) {
        for (const auto& directory : {bundle_.snapshotsDirectory(), disk.parent_path()})
            if (chainfiles::isThere(directory) && !chainfiles::isDirectory(directory))
                refuse("The snapshot folder %@ is not a folder.", directory.string());
    }
    if (chainfiles::isThere(chainfiles::rebasingMark(disk)))
        refuse("A change to the disk %@ was interrupted and is not mended yet.", disk.string());
    if (chainfiles::isRegularFile(disk)) return;
    if (chainfiles::isThere(disk)) refuse("The disk %@ is not a plain file.", disk.string());
    refuse("The disk %@ is missing.", disk.string());
}

std::optional<UUID> SnapshotChainLayout::parent(const SnapshotChainNode& node) const {
    requireDisk(node);
    const auto disk = node.diskURL(bundle_);
    const auto backing = tool_.backingPath(disk);
    if (!backing) return std::nullopt;
    const auto id = SnapshotChainNode::snapshotID(*backing);
    if (!id || *backing != node.backingPath(*id))
        refuse("The disk %@ is based on \"%@\", which is not a snapshot of this VM.", disk.string(),
               *backing);
    return id;
}

std::vector<UUID> SnapshotChainLayout::ancestors(const SnapshotChainNode& node) const {
    std::vector<UUID> chain;
    auto next = parent(node);
    while (next) {
        if (next == node.snapshotID() || std::find(chain.begin(), chain.end(), *next) != chain.end())
            refuse("The snapshots of this VM run in a circle at %@.", next->text());
        chain.push_back(*next);
        next = parent(SnapshotChainNode::snapshot(*next));
    }
    return chain;
}

}  // namespace dorvane
