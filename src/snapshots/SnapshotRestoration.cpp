// SPDX-License-Identifier: Apache-2.0
#include "snapshots/SnapshotRestoration.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>

#include "base/Localized.h"
#include "core/ConfigHash.h"
#include "core/DorvaneError.h"

namespace dorvane {
namespace {

namespace fs = std::filesystem;

constexpr auto journalName = ".dorvane-restoring";

/// Which file stands at the path; 0 when there is none.
std::uint64_t fileNumber(const Path& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

std::array<Path, 4> stagedFiles(const VMBundle& bundle, VMOSType os) {
    return {bundle.systemDisk(os), SnapshotFiles::nvramFile(bundle, os), bundle.savedState(),
            bundle.savedStateDevices()};
}

DorvaneError snapshotRestoreFailure(const std::string& reason) {
    return DorvaneError(DorvaneError::Case::vmSnapshotRestoreFailed, reason);
}

}  // namespace

/// What stands in the bundle while a restore is under way.
struct SnapshotRestoration::Journal {
    /// The live disk as it was before; another file in its place means that the swap has happened.
    std::uint64_t diskFileNumber = 0;
    /// Present when the memory comes back.
    std::optional<std::string> stateHash;

    static Path file(const VMBundle& bundle) { return bundle.directoryURL / journalName; }

    void write(const VMBundle& bundle) const {
        JSON value{{"disk", diskFileNumber}};
        if (stateHash) value["stateHash"] = *stateHash;
        writeFileAtomically(file(bundle), value.dump());
    }
    static Journal read(const VMBundle& bundle) {
        const auto value = parseJSON(readTextFile(file(bundle)));
        Journal journal{value.at("disk").get<std::uint64_t>(), std::nullopt};
        if (value.contains("stateHash")) journal.stateHash = value.at("stateHash").get<std::string>();
        return journal;
    }
    static void remove(const VMBundle& bundle) { fs::remove(file(bundle)); }
};

bool SnapshotRestoration::wasInterrupted(const VMBundle& bundle, VMOSType os) {
    const auto isStaged = [](const Path& file) { return isThere(SnapshotFileCopier::stagedCopy(file)); };
    return isThere(Journal::file(bundle)) || std::ranges::any_of(stagedFiles(bundle, os), isStaged);
}

bool SnapshotRestoration::restore(const VMSnapshot& snapshot) const {
    const SnapshotFiles files(bundle_, snapshot.id);
    if (!isThere(files.disk(os_)))
        throw snapshotRestoreFailure(localized("The snapshot's disk image is missing."));
    const bool withMemory = bringsMemoryBack(snapshot, files);
    Journal journal{fileNumber(bundle_.systemDisk(os_)), std::nullopt};
    if (withMemory) journal.stateHash = snapshot.configHash;
    try {
        stage(files, withMemory);
        journal.write(bundle_);
        swapDisk(snapshot, files);
    } catch (...) {
        const auto failure = std::current_exception();
        // Whatever the error, the disk says whether it came before or behind the swap.
        recover();
        std::rethrow_exception(failure);
    }
    finish(journal);
    return withMemory;
}

bool SnapshotRestoration::recover() const {
    if (!isThere(Journal::file(bundle_))) {
        discardStaged();
        return false;
    }
    const auto journal = Journal::read(bundle_);
    if (fileNumber(bundle_.systemDisk(os_)) != journal.diskFileNumber) {
        finish(journal);
        return true;
    }
    discardStaged();
    Journal::remove(bundle_);
    return false;
}

bool SnapshotRestoration::bringsMemoryBack(const VMSnapshot& snapshot, const SnapshotFiles& files) const {
    if (!snapshot.includesRAMState || !isThere(files.state())) return false;
    try {
        return configHash(DorvaneVMConfig::read(files.config())) == snapshot.configHash;
    } catch (const std::exception&) {
        // The memory belongs to a machine that can't be told any more.
        return false;
    }
}

void SnapshotRestoration::stage(const SnapshotFiles& files, bool withMemory) const {
    const auto nvram = files.nvram(os_);
    if (isThere(nvram)) copier_.stage(nvram, SnapshotFiles::nvramFile(bundle_, os_));
    if (!withMemory) return;
    copier_.stage(files.state(), bundle_.savedState());
    if (isThere(files.stateDevices())) copier_.stage(files.stateDevices(), bundle_.savedStateDevices());
}

void SnapshotRestoration::discardStaged() const {
    for (const auto& file : stagedFiles(bundle_, os_)) SnapshotFileCopier::discardStaged(file);
}

void SnapshotRestoration::swapDisk(const VMSnapshot& snapshot, const SnapshotFiles& files) const {
    if (snapshot.storage() != VMSnapshotStorage::chain)
        return copier_.replaceFile(bundle_.systemDisk(os_), files.disk(os_));
    if (chain_ == nullptr)
        throw snapshotRestoreFailure(localized("The disk image tool is missing from this build."));
    chain_->restore(bundle_, snapshot.id);
}

/// May be begun anew at any point of it. A suspended state of the machine is meaningless from here on.
void SnapshotRestoration::finish(const Journal& journal) const {
    SnapshotFileCopier::commitStaged(SnapshotFiles::nvramFile(bundle_, os_));
    const bool isStateStaged = isThere(SnapshotFileCopier::stagedCopy(bundle_.savedState()));
    if (!journal.stateHash || isStateStaged) {
        bundle_.discardSavedState();
        // On another disk it would do harm; the journal stays until it is gone.
        if (bundle_.hasSavedState()) throw FileError("remove", bundle_.savedState(), EBUSY);
    }
    if (journal.stateHash) {
        SnapshotFileCopier::commitStaged(bundle_.savedState());
        writeFileAtomically(bundle_.savedStateHash(), *journal.stateHash);
        SnapshotFileCopier::commitStaged(bundle_.savedStateDevices());
    }
    Journal::remove(bundle_);
}

}  // namespace dorvane
