// SPDX-License-Identifier: Apache-2.0
// Making good what a crash left of a snapshot operation, and bringing rows and directories in step.
#include <algorithm>
#include <map>

#include "snapshots/SnapshotChainRepair.h"
#include "snapshots/SnapshotFailure.h"
#include "snapshots/SnapshotIdentity.h"
#include "snapshots/SnapshotMetadata.h"
#include "snapshots/SnapshotRestoration.h"
#include "snapshots/VMSnapshotService.h"

namespace dorvane {
namespace {

namespace fs = std::filesystem;

constexpr int recoveryAttempts = 5;
constexpr auto recoveryPause = milliseconds(300);

bool hasEntries(const Path& directory) {
    std::error_code ignored;
    return fs::directory_iterator(directory, ignored) != fs::directory_iterator();
}

/// What a background thread found of one snapshot.
struct FoundSnapshot {
    UUID id;
    bool hasDisk = false;
    bool isDescribed = false;
    std::optional<SnapshotMetadata> metadata;
    /// What its layer really stands on; only for layers of a chain.
    std::optional<UUID> parentID = {};
};

FoundSnapshot examine(const VMBundle& bundle, VMOSType os, const UUID& id) {
    const SnapshotFiles files(bundle, id);
    FoundSnapshot found{id, isThere(files.disk(os)), isThere(files.metadata()), std::nullopt};
    try {
        if (found.isDescribed) found.metadata = SnapshotMetadata::read(files.metadata());
    } catch (const std::exception&) {
        // A later version's, or damaged: it stays as it is.
    }
    return found;
}

/// Whether the bundle has a snapshot that could be taken over while `original` has the same one.
bool isCopy(const VMBundle& bundle, VMOSType os, const UUID& id, const Path& original) {
    const auto own = SnapshotFiles(bundle, id).directory;
    std::error_code ignored;
    if (!isThere(own) || !isThere(original) || fs::equivalent(own, original, ignored)) return false;
    const auto found = examine(bundle, os, id);
    return found.hasDisk && found.metadata;
}

/// Descriptions tell whole seconds; within one, a layer is younger than what it stands on.
void orderWithinSeconds(const std::vector<VMSnapshotPointer>& newcomers,
                        const std::vector<VMSnapshotPointer>& rows) {
    const auto isBehind = [](const VMSnapshot& row, const VMSnapshot& parent) {
        using std::chrono::floor, std::chrono::seconds;
        return row.parentSnapshotID == parent.id && row.createdAt <= parent.createdAt &&
               floor<seconds>(row.createdAt) == floor<seconds>(parent.createdAt);
    };
    // Each round brings one more generation into its place.
    bool isOrdered = false;
    for (std::size_t round = 0; !isOrdered && round < newcomers.size(); ++round) {
        isOrdered = true;
        for (const auto& row : newcomers)
            for (const auto& parent : rows)
                if (isBehind(*row, *parent)) {
                    row->createdAt = parent->createdAt + Date::duration(1);
                    isOrdered = false;
                }
    }
}

const QCOW2ChainToolProtocol* toolOf(const SnapshotChainStore* chain) {
    return chain != nullptr ? &chain->chainTool() : nullptr;
}

std::vector<FoundSnapshot> examineAll(const VMBundle& bundle, VMOSType os, const SnapshotChainStore* chain) {
    // Rows are taken out on the word of this: what can't be read isn't gone.
    if (!isThere(bundle.directoryURL)) throw FileError("read", bundle.directoryURL, ENOENT);
    std::vector<FoundSnapshot> all;
    if (!isThere(bundle.snapshotsDirectory())) return all;
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(bundle.snapshotsDirectory())) {
        const auto id = UUID::parse(entry.path().filename().string());
        if (id && entry.is_directory(ignored)) all.push_back(examine(bundle, os, *id));
    }
    if (chain == nullptr) return all;
    for (auto& found : all) {
        if (!found.hasDisk) continue;
        const auto disk = SnapshotChainNode::snapshot(found.id).diskURL(bundle);
        found.parentID = SnapshotChainNode::snapshotID(chain->chainTool().backingPath(disk).value_or(""));
    }
    return all;
}

/// What a killed process was writing under a temporary name, and directories on their way out.
bool isLeftover(const Path& path) {
    const auto name = path.filename().string();
    return (name.starts_with('.') && name.ends_with(".tmp")) ||
           (path.extension() == ".deleted" && UUID::parse(path.stem().string()));
}

std::vector<Path> leftovers(const VMBundle& bundle) {
    std::vector<Path> folders{bundle.directoryURL, bundle.snapshotsDirectory()};
    std::vector<Path> found;
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(bundle.snapshotsDirectory(), ignored))
        if (entry.is_directory(ignored)) folders.push_back(entry.path());
    for (const auto& folder : folders)
        for (const auto& entry : fs::directory_iterator(folder, ignored))
            if (isLeftover(entry.path())) found.push_back(entry.path());
    return found;
}

void removeLeftovers(const VMBundle& bundle) {
    std::error_code ignored;
    for (const auto& path : leftovers(bundle)) fs::remove_all(path, ignored);
}

}  // namespace

Task<void> VMSnapshotService::recover(VMRecordPointer vm) {
    const auto id = vm->id;
    for (auto present = recovering_.find(id); present != recovering_.end(); present = recovering_.find(id)) {
        const auto ended = present->second;
        co_await ended.wait();
    }
    if (recovered_.contains(id) || !isDown(*vm)) co_return;
    const Event ended;
    recovering_.emplace(id, ended);
    bool isDone = false;
    std::exception_ptr failure;
    try {
        isDone = co_await recoverNow(vm);
    } catch (...) {
        failure = std::current_exception();
    }
    if (isDone) recovered_.insert(id);
    recovering_.erase(id);
    ended.set();
    if (failure) std::rethrow_exception(failure);
}

Task<bool> VMSnapshotService::recoverNow(VMRecordPointer vm) {
    const auto bundle = vm->bundle();
    const auto os = vm->osType;
    const auto look = [bundle, os]() -> std::optional<bool> {
        // On a drive that isn't there yet, say: nothing is known of it.
        if (!isThere(bundle.directoryURL)) return std::nullopt;
        return hasEntries(bundle.snapshotsDirectory()) || SnapshotRestoration::wasInterrupted(bundle, os) ||
               !isThere(bundle.systemDisk(os)) || !leftovers(bundle).empty();
    };
    // Nobody begins to start it from here on.
    const VMOperationGate::Hold hold(with_.gate, vm->id, vm->name);
    // It writes to the disk of a machine that shows no other sign of a crash as well.
    if (with_.endLeftoverEmulator && os == VMOSType::windows) co_await with_.endLeftoverEmulator(vm->id);
    const auto hasWork = co_await inBackground(vm, look);
    if (!hasWork.value_or(false)) co_return hasWork.has_value();
    co_await ignoreCancellation();
    // An emulator that is ending lets go of its locks a moment later.
    bool isSound = false;
    std::exception_ptr failure;
    const int attempts = lacksImageTool(*vm) ? 1 : recoveryAttempts;
    for (int attempt = 0; attempt < attempts; ++attempt) {
        if (attempt > 0) co_await with_.runtime.clock.sleep(recoveryPause);
        try {
            isSound = co_await mend(vm);
            failure = nullptr;
        } catch (...) {
            failure = std::current_exception();
        }
        if (isSound && !failure) co_return true;
    }
    if (failure) std::rethrow_exception(failure);
    logger_.error("The disk layers of VM %{public}s could not be put in order", vm->name);
    co_return false;
}

Task<bool> VMSnapshotService::mend(VMRecordPointer vm) {
    const auto* chain = chainStore(*vm);
    const auto finishRestore = [this, bundle = vm->bundle(), os = vm->osType, chain] {
        return SnapshotRestoration(copier_, chain, bundle, os).recover();
    };
    const bool hasRestored = co_await inBackground(vm, finishRestore);
    if (hasRestored) co_await syncDiskSizeAfterRestore(vm);
    // Any directory may hold a layer that the live disk stands on.
    if (lacksImageTool(*vm)) co_return false;
    const auto repair = [bundle = vm->bundle(), chain] {
        removeLeftovers(bundle);
        finishIdentityRotation(bundle, toolOf(chain));
        return chain == nullptr || SnapshotChainRepair(*chain).run(bundle);
    };
    const bool isSound = co_await inBackground(vm, repair);
    if (!isSound) co_return false;
    const auto failure = co_await outcome(alignRows(vm));
    if (failure)
        logger_.error("Could not bring the snapshots of VM %{public}s in step with its files: %{public}s",
                      vm->name, localizedDescription(failure));
    co_return !failure;
}

/// A copied bundle brings snapshots under the names that they have in its original. Those stay the
/// original's.
Task<void> VMSnapshotService::separateFromOriginals(VMRecordPointer vm) {
    const auto look = [bundle = vm->bundle()] { return snapshotIDs(bundle); };
    auto newcomers = co_await inBackground(vm, look);
    for (const auto& row : with_.modelContext.fetchSnapshots(vm->id)) newcomers.erase(row->id);
    // As always but after a copy or a move: nobody else's rows need be looked through.
    if (newcomers.empty()) co_return;
    std::map<UUID, Path> others;
    for (const auto& other : with_.modelContext.fetchRecords()) {
        if (other->id == vm->id) continue;
        for (const auto& row : with_.modelContext.fetchSnapshots(other->id))
            if (newcomers.contains(row->id))
                others.emplace(row->id, SnapshotFiles(other->bundle(), row->id).directory);
    }
    const auto separate = [bundle = vm->bundle(), os = vm->osType, chain = chainStore(*vm), &others] {
        std::set<UUID> shared;
        for (const auto& [id, directory] : others)
            if (isCopy(bundle, os, id, directory)) shared.insert(id);
        rotateSnapshotIdentities(bundle, toolOf(chain), shared);
    };
    co_await inBackground(vm, separate);
}

Task<void> VMSnapshotService::alignRows(VMRecordPointer vm) {
    co_await separateFromOriginals(vm);
    const auto* chain = chainStore(*vm);
    const auto look = [bundle = vm->bundle(), os = vm->osType, chain] {
        return examineAll(bundle, os, chain);
    };
    const auto all = co_await inBackground(vm, look);
    const auto rows = with_.modelContext.fetchSnapshots(vm->id);
    std::vector<VMSnapshotPointer> newcomers;
    for (const auto& row : rows) {
        const auto isIts = [&](const auto& found) { return found.id == row->id && found.hasDisk; };
        const auto found = std::ranges::find_if(all, isIts);
        if (found != all.end()) {
            if (row->storage() == VMSnapshotStorage::chain) co_await followLayer(row, vm, found->parentID);
            continue;
        }
        logger_.error("Snapshot '%{public}s' of VM %{public}s has lost its files", row->name, vm->name);
        co_await forget(row, vm);
    }
    for (const auto& found : all) {
        if (std::ranges::any_of(rows, [&](const auto& row) { return row->id == found.id; })) continue;
        if (found.metadata && found.hasDisk) {
            auto row = std::make_shared<VMSnapshot>();
            static_cast<VMSnapshotFields&>(*row) = found.metadata->row(vm->id);
            row->id = found.id;
            if (chain != nullptr) row->parentSnapshotID = found.parentID;
            with_.modelContext.insert(row);
            newcomers.push_back(row);
            logger_.info("Took over snapshot '%{public}s' of VM %{public}s from its files", row->name,
                         vm->name);
        } else if (!found.isDescribed) {
            const auto undo = [bundle = vm->bundle(), chain, &found] {
                undoUnfinished(bundle, chain, found.id);
            };
            co_await inBackground(vm, undo);
        } else {
            logger_.error("Left the unreadable snapshot %{public}s of VM %{public}s alone", found.id.text(),
                          vm->name);
        }
    }
    orderWithinSeconds(newcomers, with_.modelContext.fetchSnapshots(vm->id));
    with_.modelContext.save();
}

/// A deletion that was cut short may have put a layer on another one already.
Task<void> VMSnapshotService::followLayer(VMSnapshotPointer row, VMRecordPointer vm,
                                          std::optional<UUID> parentID) {
    if (row->parentSnapshotID == parentID) co_return;
    row->parentSnapshotID = parentID;
    const auto rewrite = [file = SnapshotMetadata::file(vm->bundle(), row->id),
                          fields = VMSnapshotFields(*row)] { SnapshotMetadata::of(fields).write(file); };
    co_await inBackground(vm, rewrite);
}

/// Nobody was told of it. A layer's data goes into what stands on it; one that nothing stands on is left
/// alone.
void VMSnapshotService::undoUnfinished(const VMBundle& bundle, const SnapshotChainStore* chain,
                                       const UUID& id) {
    if (chain == nullptr) return SnapshotFiles(bundle, id).remove();
    if (!chain->children(bundle, SnapshotChainNode::snapshot(id)).empty()) chain->deleteSnapshot(bundle, id);
}

}  // namespace dorvane
