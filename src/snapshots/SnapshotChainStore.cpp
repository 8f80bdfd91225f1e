// SPDX-License-Identifier: Apache-2.0
#include "snapshots/SnapshotChainStore.h"

#include <algorithm>
#include <set>

#include "core/DorvaneError.h"
#include "snapshots/SnapshotChainFiles.h"
#include "snapshots/SnapshotChainLayout.h"

namespace dorvane {
namespace {

namespace fs = std::filesystem;

using chainfiles::Mark;
using Node = SnapshotChainNode;

constexpr std::size_t maximumBackingPathBytes = 1023;

std::string parentName(const std::optional<UUID>& parentID) { return parentID ? parentID->text() : "(root)"; }

std::optional<std::string> backingPath(const Node& node, const std::optional<UUID>& parentID) {
    return parentID ? std::optional(node.backingPath(*parentID)) : std::nullopt;
}

std::string currentFailure() { return localizedDescription(std::current_exception()); }

/// Moves the live disk into the snapshot's place, under a mark that stays until the overlay is complete.
void freeze(const VMBundle& bundle, const UUID& id) {
    const auto frozen = Node::snapshot(id).diskURL(bundle);
    if (isThere(frozen)) throw FileError("create", frozen, EEXIST);
    chainfiles::makeDirectory(bundle, id);
    try {
        chainfiles::setMark(bundle, id, Mark::capturing);
        chainfiles::moveFile(bundle.qcow2Disk(), frozen);
    } catch (...) {
        chainfiles::removeDirectoryIfPossible(bundle, id);
        throw;
    }
}

/// From here on the overlay may get a guest's data.
void endCapture(const VMBundle& bundle, const UUID& id) {
    chainfiles::syncDirectory(bundle.directoryURL);
    chainfiles::clearMark(bundle, id, Mark::capturing);
}

/// Changes whenever the file is written to; an unreadable one equals nothing.
struct Fingerprint {
    explicit Fingerprint(const Path& file) : size(fs::file_size(file, failure)) {
        if (!failure) time = fs::last_write_time(file, failure);
    }
    bool operator==(const Fingerprint& other) const {
        return !failure && !other.failure && size == other.size && time == other.time;
    }
    std::error_code failure;
    std::uintmax_t size;
    fs::file_time_type time;
};

}  // namespace

std::optional<UUID> SnapshotChainStore::capture(const VMBundle& bundle, const UUID& snapshotID) const {
    const auto ancestors = SnapshotChainLayout(*chainTool_, bundle).ancestors(Node::live());
    const auto parentID = ancestors.empty() ? std::nullopt : std::optional(ancestors.front());
    const auto frozen = Node::snapshot(snapshotID);
    freeze(bundle, snapshotID);
    try {
        if (parentID)
            chainTool_->retargetBackingUnsafe(frozen.diskURL(bundle), frozen.backingPath(*parentID));
        chainTool_->createOverlay(bundle.qcow2Disk(), Node::live().backingPath(snapshotID));
        endCapture(bundle, snapshotID);
    } catch (...) {
        undoCapture(bundle, snapshotID, parentID, true);
        throw;
    }
    logger_.info("Captured chain snapshot %{public}s, parent %{public}s", snapshotID.text(),
                 parentName(parentID));
    return parentID;
}

SnapshotChainStore::RunningCapture SnapshotChainStore::captureWhileRunning(const VMBundle& bundle,
                                                                           const UUID& snapshotID) const {
    // The guest stands still meanwhile: what lies below the nearest layer is left for QEMU, which has it
    // open.
    const SnapshotChainLayout layout(*chainTool_, bundle);
    const auto parentID = layout.parent(Node::live());
    if (parentID) layout.requireDisk(Node::snapshot(*parentID));
    const auto size = chainTool_->virtualSize(bundle.qcow2Disk());
    freeze(bundle, snapshotID);
    try {
        chainTool_->createOverlayWithoutOpeningBacking(bundle.qcow2Disk(),
                                                       Node::live().backingPath(snapshotID), size);
        endCapture(bundle, snapshotID);
    } catch (...) {
        undoCapture(bundle, snapshotID, parentID, false);
        throw;
    }
    RunningCapture result{parentID, std::nullopt};
    if (parentID)
        result.parentRewrite = ParentRewrite{Node::live().backingPath(*parentID),
                                             Node::snapshot(snapshotID).backingPath(*parentID)};
    logger_.info("Captured running chain snapshot %{public}s, parent %{public}s", snapshotID.text(),
                 parentName(parentID));
    return result;
}

void SnapshotChainStore::uncapture(const VMBundle& bundle, const UUID& snapshotID,
                                   const std::optional<UUID>& parentID) const {
    undoCapture(bundle, snapshotID, parentID, true);
    logger_.info("Rolled back chain snapshot %{public}s", snapshotID.text());
}

void SnapshotChainStore::uncaptureRunning(const VMBundle& bundle, const UUID& snapshotID,
                                          const std::optional<UUID>& parentID) const {
    undoCapture(bundle, snapshotID, parentID, false);
    logger_.info("Rolled back running chain snapshot %{public}s", snapshotID.text());
}

void SnapshotChainStore::undoCapture(const VMBundle& bundle, const UUID& snapshotID,
                                     const std::optional<UUID>& parentID, bool restoreHeader) const {
    const auto node = Node::snapshot(snapshotID);
    const auto frozen = node.diskURL(bundle);
    const auto live = bundle.qcow2Disk();
    const auto discarded = chainfiles::discardedDisk(bundle);
    // Without the frozen file, what stands as the live disk is no overlay to be thrown away.
    if (!chainfiles::isRegularFile(frozen)) return;
    const auto rewriteHeader = [&](const Node& place) {
        if (restoreHeader && parentID) rewriteHeaderIfPossible(frozen, place.backingPath(*parentID));
    };
    rewriteHeader(Node::live());
    try {
        if (isThere(live)) chainfiles::moveFile(live, discarded);
    } catch (...) {
        logger_.error(
            "Rollback of %{public}s could not move the new overlay aside; leaving the snapshot in place: "
            "%{public}s",
            snapshotID.text(), currentFailure());
        rewriteHeader(node);
        return;
    }
    try {
        chainfiles::moveFile(frozen, live);
    } catch (...) {
        const auto failure = currentFailure();
        std::error_code ignored;
        fs::rename(discarded, live, ignored);
        logger_.error(
            "Rollback of %{public}s could not move the disk back; the original disk stays at %{public}s: "
            "%{public}s",
            snapshotID.text(), frozen.string(), failure);
        rewriteHeader(node);
        return;
    }
    chainfiles::removeFileIfPossible(discarded);
    chainfiles::removeDirectoryIfPossible(bundle, snapshotID);
}

void SnapshotChainStore::rewriteHeaderIfPossible(const Path& disk, const std::string& backingPath) const {
    try {
        chainTool_->retargetBackingUnsafe(disk, backingPath);
    } catch (...) {
        logger_.error("Could not rewrite the header of %{public}s: %{public}s", disk.string(),
                      currentFailure());
    }
}

bool SnapshotChainStore::removeDirectoryWithoutDisk(const VMBundle& bundle, const UUID& snapshotID) const {
    if (isThere(Node::snapshot(snapshotID).diskURL(bundle))) return false;
    chainfiles::removeDirectory(bundle, snapshotID);
    return true;
}

void SnapshotChainStore::restore(const VMBundle& bundle, const UUID& snapshotID) const {
    const auto node = Node::snapshot(snapshotID);
    const auto fail = [](const char* sentence) {
        throw DorvaneError(DorvaneError::Case::vmSnapshotRestoreFailed, localized(sentence));
    };
    if (!isThere(node.diskURL(bundle))) fail("The snapshot's disk image is missing.");
    if (chainfiles::hasMark(bundle, snapshotID, Mark::merging))
        fail("The deletion of this snapshot was interrupted. Delete it again.");
    SnapshotChainLayout(*chainTool_, bundle).ancestors(node);
    const auto staged = chainfiles::restoringDisk(bundle);
    chainfiles::removeFileIfPossible(staged);
    try {
        chainTool_->createOverlay(staged, Node::live().backingPath(snapshotID));
        // It speaks of the disk that is given up here.
        chainfiles::removeFile(chainfiles::rebasingMark(bundle.qcow2Disk()));
        chainfiles::replaceFile(staged, bundle.qcow2Disk());
    } catch (...) {
        chainfiles::removeFileIfPossible(staged);
        throw;
    }
    logger_.info("Restored chain snapshot %{public}s", snapshotID.text());
}

void SnapshotChainStore::deleteSnapshot(const VMBundle& bundle, const UUID& snapshotID) const {
    const auto node = Node::snapshot(snapshotID);
    if (!isThere(node.diskURL(bundle))) {
        chainfiles::removeDirectory(bundle, snapshotID);
        return;
    }
    requireNoInterruptedRebase(bundle);
    const SnapshotChainLayout layout(*chainTool_, bundle);
    const auto ancestors = layout.ancestors(node);
    const auto parentID = ancestors.empty() ? std::nullopt : std::optional(ancestors.front());
    const auto standing = children(bundle, node);
    for (const auto& child : standing) layout.parent(child);
    if (standing.size() == 1) {
        collapse(bundle, snapshotID, standing.front(), parentID);
        return;
    }
    for (const auto& child : standing) rebase(bundle, child, snapshotID, parentID);
    chainfiles::removeDirectory(bundle, snapshotID);
}

/// The tool rewrites the header before the tables that say where the copied data lies are on disk: killed in
/// between, it leaves an image that has lost that data. Its former backing file still holds it.
void SnapshotChainStore::rebase(const VMBundle& bundle, const Node& child, const UUID& formerParentID,
                                const std::optional<UUID>& newParentID) const {
    const auto disk = child.diskURL(bundle);
    writeFileAtomically(chainfiles::rebasingMark(disk), child.backingPath(formerParentID));
    try {
        chainTool_->rebase(disk, backingPath(child, newParentID));
    } catch (...) {
        const auto failure = std::current_exception();
        try {
            undoRebase(bundle, child);
        } catch (...) {
            logger_.error("Could not put %{public}s back onto its backing file: %{public}s", disk.string(),
                          currentFailure());
        }
        std::rethrow_exception(failure);
    }
    chainfiles::removeFile(chainfiles::rebasingMark(disk));
}

void SnapshotChainStore::undoRebase(const VMBundle& bundle, const Node& child) const {
    const auto disk = child.diskURL(bundle);
    const auto mark = chainfiles::rebasingMark(disk);
    const auto former = readTextFile(mark, maximumBackingPathBytes);
    const auto parentID = Node::snapshotID(former);
    if (!parentID || former != child.backingPath(*parentID))
        throw DorvaneError(DorvaneError::Case::vmSnapshotFailed,
                           localized("%@ does not name a snapshot of this VM.", mark.string()));
    SnapshotChainLayout(*chainTool_, bundle).requireDisk(Node::snapshot(*parentID));
    chainTool_->retargetBackingUnsafe(disk, former);
    chainfiles::removeFile(mark);
}

/// A layer that a half rebased disk still needs may look like one that nothing stands on.
void SnapshotChainStore::requireNoInterruptedRebase(const VMBundle& bundle) const {
    const SnapshotChainLayout layout(*chainTool_, bundle);
    const auto check = [&](const Node& node) {
        if (isThere(chainfiles::rebasingMark(node.diskURL(bundle)))) layout.requireDisk(node);
    };
    check(Node::live());
    for (const auto& id : snapshotIDsOnDisk(bundle)) check(Node::snapshot(id));
}

/// The snapshot's file takes up the child's data and then its place. Until that last step the child reads its
/// own data over whatever has arrived below it, so that it is right at every moment; the snapshot isn't.
void SnapshotChainStore::collapse(const VMBundle& bundle, const UUID& snapshotID, const Node& child,
                                  const std::optional<UUID>& grandparentID) const {
    const auto node = Node::snapshot(snapshotID);
    const auto disk = node.diskURL(bundle);
    commitInto(bundle, snapshotID, child);
    const bool becomesLive = child.isLive() && grandparentID;
    try {
        if (becomesLive) chainTool_->retargetBackingUnsafe(disk, child.backingPath(*grandparentID));
        chainfiles::replaceFile(disk, child.diskURL(bundle));
    } catch (...) {
        if (becomesLive) rewriteHeaderIfPossible(disk, node.backingPath(*grandparentID));
        throw;
    }
    chainfiles::removeDirectory(bundle, snapshotID);
}

void SnapshotChainStore::commitInto(const VMBundle& bundle, const UUID& snapshotID, const Node& child) const {
    const auto disk = Node::snapshot(snapshotID).diskURL(bundle);
    const bool wasMerging = chainfiles::hasMark(bundle, snapshotID, Mark::merging);
    const Fingerprint before(disk);
    chainfiles::setMark(bundle, snapshotID, Mark::merging);
    try {
        chainTool_->commit(child.diskURL(bundle));
    } catch (...) {
        // A tool that gave up before it wrote anything has left a good snapshot.
        if (!wasMerging && Fingerprint(disk) == before)
            chainfiles::clearMark(bundle, snapshotID, Mark::merging);
        throw;
    }
}

std::vector<Node> SnapshotChainStore::children(const VMBundle& bundle, const Node& node) const {
    std::vector<Node> found;
    if (node.isLive()) return found;
    const auto addIfChild = [&](const Node& candidate) {
        const auto disk = candidate.diskURL(bundle);
        if (candidate == node || !isThere(disk)) return;
        const auto backing = chainTool_->backingPath(disk);
        if (backing && Node::snapshotID(*backing) == node.snapshotID()) found.push_back(candidate);
    };
    addIfChild(Node::live());
    for (const auto& id : snapshotIDsOnDisk(bundle)) addIfChild(Node::snapshot(id));
    return found;
}

std::vector<UUID> SnapshotChainStore::snapshotIDsOnDisk(const VMBundle& bundle) const {
    const auto folder = bundle.snapshotsDirectory();
    std::set<UUID> ids;
    if (!isThere(folder)) return {};
    std::error_code failure;
    fs::directory_iterator entry(folder, failure);
    for (; !failure && entry != fs::directory_iterator(); entry.increment(failure)) {
        const auto id = UUID::parse(entry->path().filename().string());
        if (id && chainfiles::isDirectory(entry->path())) ids.insert(*id);
    }
    if (failure) throw FileError("list", folder, failure.value());
    return {ids.begin(), ids.end()};
}

int SnapshotChainStore::depth(const VMBundle& bundle) const {
    auto node = Node::live();
    for (int count = 0; count < endlessDepth; ++count) {
        const auto backing = chainTool_->backingPath(node.diskURL(bundle));
        const auto id = backing ? Node::snapshotID(*backing) : std::nullopt;
        if (!id) return count;
        node = Node::snapshot(*id);
    }
    return endlessDepth;
}

void SnapshotChainStore::flattenLiveDisk(const VMBundle& bundle) const {
    const auto ancestors = SnapshotChainLayout(*chainTool_, bundle).ancestors(Node::live());
    if (!ancestors.empty()) rebase(bundle, Node::live(), ancestors.front(), std::nullopt);
}

}  // namespace dorvane
