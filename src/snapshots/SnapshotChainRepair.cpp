// SPDX-License-Identifier: Apache-2.0
#include "snapshots/SnapshotChainRepair.h"

#include "base/Localized.h"
#include "core/DorvaneError.h"
#include "snapshots/SnapshotChainFiles.h"
#include "snapshots/SnapshotChainLayout.h"

namespace dorvane {
namespace {

namespace fs = std::filesystem;

using chainfiles::Mark;
using Node = SnapshotChainNode;

/// An overlay whose making was cut short is a header and tables. Anything larger might hold a guest's data.
constexpr std::uintmax_t maximumUnfinishedOverlayBytes = 16 << 20;

DorvaneError unmended(const char* sentence, const Path& path) {
    return DorvaneError(DorvaneError::Case::vmSnapshotFailed, localized(sentence, path.string()));
}

/// The tool writes the backing path last: an overlay without one, or one that can't be read, never was a
/// disk.
bool isUnfinishedOverlay(const QCOW2ChainToolProtocol& tool, const Path& disk) {
    std::error_code failure;
    if (fs::file_size(disk, failure) > maximumUnfinishedOverlayBytes || failure) return false;
    try {
        return !tool.backingPath(disk);
    } catch (const DorvaneError&) {
        return true;
    }
}

bool holdsNothing(const VMBundle& bundle, const UUID& id) {
    const auto directory = Node::directory(bundle, id);
    for (const char* name : {"disk.qcow2", "disk.img", "meta.json"})
        if (isThere(directory / name)) return false;
    return true;
}

std::vector<Path> removedDirectories(const VMBundle& bundle) {
    std::vector<Path> found;
    for (const auto& entry : fs::directory_iterator(bundle.snapshotsDirectory()))
        if (chainfiles::isRemovedDirectory(entry.path().filename().string())) found.push_back(entry.path());
    return found;
}

}  // namespace

bool SnapshotChainRepair::run(const VMBundle& bundle) const {
    bool isSound = true;
    const auto attempt = [&](const auto& step) {
        try {
            step();
        } catch (...) {
            isSound = false;
            logger_.error("Could not mend the snapshot chain of %{public}s: %{public}s",
                          bundle.directoryURL.string(), localizedDescription(std::current_exception()));
        }
    };
    attempt([&] {
        if (isThere(chainfiles::restoringDisk(bundle)))
            chainfiles::removeFile(chainfiles::restoringDisk(bundle));
    });
    std::vector<UUID> ids;
    if (isThere(bundle.snapshotsDirectory())) {
        if (!chainfiles::isDirectory(bundle.snapshotsDirectory())) {
            attempt([&] { throw unmended("%@ is not a folder.", bundle.snapshotsDirectory()); });
            return isSound;
        }
        attempt([&] { ids = store_.snapshotIDsOnDisk(bundle); });
    }
    for (const auto& id : ids) attempt([&] { mendCapture(bundle, id); });
    attempt([&] { mendDiscarded(bundle); });
    std::vector<Node> nodes{Node::live()};
    for (const auto& id : ids) nodes.push_back(Node::snapshot(id));
    for (const auto& node : nodes) attempt([&] { mendRebase(bundle, node); });
    for (const auto& node : nodes) attempt([&] { mendHeader(bundle, node); });
    for (const auto& id : ids) attempt([&] { finishMerge(bundle, id); });
    attempt([&] { removeLeftovers(bundle); });
    attempt([&] { SnapshotChainLayout(*store_.chainTool_, bundle).ancestors(Node::live()); });
    return isSound;
}

void SnapshotChainRepair::mendCapture(const VMBundle& bundle, const UUID& id) const {
    if (!chainfiles::hasMark(bundle, id, Mark::capturing)) return;
    const auto& tool = *store_.chainTool_;
    const auto live = bundle.qcow2Disk();
    const auto frozen = Node::snapshot(id).diskURL(bundle);
    if (!isThere(frozen)) {
        // Not moved yet, or moved back already. The directory goes with the other leftovers.
        if (!isThere(live)) throw unmended("The disk %@ is missing.", live);
        chainfiles::removeDirectory(bundle, id);
        return;
    }
    // Read first: when it can't be, that says something about the tool and nothing about the overlay.
    const auto backing = tool.backingPath(frozen);
    if (!isThere(live) || isUnfinishedOverlay(tool, live)) {
        logger_.info("Undoing the interrupted capture of %{public}s", id.text());
        store_.uncapture(bundle, id, backing ? Node::snapshotID(*backing) : std::nullopt);
        if (isThere(frozen)) throw unmended("The disk stays at %@.", frozen);
        return;
    }
    if (tool.backingPath(live) != Node::live().backingPath(id))
        throw unmended("The disk %@ doesn't stand on the snapshot that was being taken.", live);
    logger_.info("Keeping the interrupted capture %{public}s", id.text());
    chainfiles::clearMark(bundle, id, Mark::capturing);
}

void SnapshotChainRepair::mendDiscarded(const VMBundle& bundle) const {
    const auto& tool = *store_.chainTool_;
    const auto live = bundle.qcow2Disk();
    const auto discarded = chainfiles::discardedDisk(bundle);
    if (!isThere(discarded)) return;
    const bool hasLive = isThere(live);
    if (hasLive) tool.backingPath(live);
    if (isUnfinishedOverlay(tool, discarded)) {
        if (!hasLive) throw unmended("The disk %@ is missing.", live);
        chainfiles::removeFile(discarded);
        return;
    }
    const auto backing = tool.backingPath(discarded);
    const auto id = backing ? Node::snapshotID(*backing) : std::nullopt;
    if (!id || *backing != Node::live().backingPath(*id))
        throw unmended("%@ is not the overlay of a snapshot.", discarded);
    const bool hasLayer = isThere(Node::snapshot(*id).diskURL(bundle));
    if (hasLayer == hasLive) throw unmended("%@ belongs to no interrupted rollback.", discarded);
    if (hasLayer) {
        logger_.info("Giving up the interrupted rollback of %{public}s", id->text());
        chainfiles::moveFile(discarded, live);
    } else {
        chainfiles::removeFile(discarded);
    }
}

void SnapshotChainRepair::mendRebase(const VMBundle& bundle, const SnapshotChainNode& node) const {
    const auto disk = node.diskURL(bundle);
    if (!isThere(chainfiles::rebasingMark(disk))) return;
    if (!chainfiles::isRegularFile(disk)) throw unmended("The disk %@ is missing.", disk);
    logger_.info("Undoing the interrupted rebase of %{public}s", disk.string());
    store_.undoRebase(bundle, node);
}

void SnapshotChainRepair::mendHeader(const VMBundle& bundle, const SnapshotChainNode& node) const {
    const auto disk = node.diskURL(bundle);
    if (!chainfiles::isRegularFile(disk)) return;
    const auto backing = store_.chainTool_->backingPath(disk);
    const auto id = backing ? Node::snapshotID(*backing) : std::nullopt;
    if (!id || *backing != node.misplacedBackingPath(*id)) return;
    if (!chainfiles::isRegularFile(Node::snapshot(*id).diskURL(bundle))) return;
    logger_.info("Rewriting the header of %{public}s", disk.string());
    store_.chainTool_->retargetBackingUnsafe(disk, node.backingPath(*id));
}

void SnapshotChainRepair::finishMerge(const VMBundle& bundle, const UUID& id) const {
    if (!chainfiles::hasMark(bundle, id, Mark::merging)) return;
    logger_.info("Finishing the interrupted deletion of %{public}s", id.text());
    store_.deleteSnapshot(bundle, id);
}

void SnapshotChainRepair::removeLeftovers(const VMBundle& bundle) const {
    if (!chainfiles::isDirectory(bundle.snapshotsDirectory())) return;
    for (const auto& id : store_.snapshotIDsOnDisk(bundle))
        if (holdsNothing(bundle, id)) chainfiles::removeDirectory(bundle, id);
    for (const auto& directory : removedDirectories(bundle)) {
        std::error_code failure;
        fs::remove_all(directory, failure);
        if (failure) throw FileError("remove", directory, failure.value());
    }
}

}  // namespace dorvane
