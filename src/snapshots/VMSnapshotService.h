// SPDX-License-Identifier: Apache-2.0
// The one way to take, list, restore and delete snapshots: rows, files and disk layers in step.
#pragma once

#include <map>
#include <set>

#include "core/DorvaneError.h"
#include "core/SecurityScopedBookmarkStore.h"
#include "core/VMBundleRecovering.h"
#include "core/VMEngineProtocol.h"
#include "core/VMOperationGate.h"
#include "platform/FileManager.h"
#include "runtime/Logger.h"
#include "runtime/Runtime.h"
#include "snapshots/SnapshotChainStore.h"
#include "snapshots/SnapshotFiles.h"
#include "snapshots/VMSnapshotServiceProtocol.h"

namespace dorvane {

/// All of it outlives the service.
struct VMSnapshotServiceCollaborators {
    const Runtime& runtime;
    VMOperationGate& gate;
    FileManager& fileManager;
    SecurityScopedBookmarkStore& bookmarks;
    ModelContext& modelContext;
    /// Null: only stopped machines can be captured.
    VMEngineProtocol* engine = nullptr;
    /// Null: this build has no disk image tool.
    const SnapshotChainStore* chainStore = nullptr;
    /// Whether a machine is being started at this moment. Empty: none ever is.
    std::function<bool(const UUID&)> isStarting = {};
    /// Ends an emulator that an earlier process left on a machine's disk. Empty: there can be none.
    std::function<Task<void>(UUID)> endLeftoverEmulator = {};
};

/// Main thread only. A native guest's snapshot is a clone of its files; a QEMU guest's is a layer in the
/// disk's chain. A failure undoes what had been done; what a crash leaves is made good by `recover`, which
/// every operation on a stopped machine awaits first.
class VMSnapshotService : public VMSnapshotServiceProtocol, public VMBundleRecovering {
  public:
    /// A chain with more layers than this below the live disk takes no further one.
    static constexpr int maximumChainDepth = 15;

    explicit VMSnapshotService(VMSnapshotServiceCollaborators collaborators)
        : with_(std::move(collaborators)), copier_(with_.fileManager) {}

    Task<std::vector<VMSnapshotPointer>> listSnapshots(VMRecordPointer vm) override;
    Task<VMSnapshotPointer> takeSnapshot(VMRecordPointer vm, std::string name, bool includeRAM,
                                         VMSnapshotKind kind) override;
    Task<void> restoreSnapshot(VMSnapshotPointer snapshot, VMRecordPointer vm) override;
    Task<void> deleteSnapshot(VMSnapshotPointer snapshot, VMRecordPointer vm) override;
    Task<int> pruneAutomaticSnapshots(VMRecordPointer vm, int keeping) override;

    Task<void> recover(VMRecordPointer vm) override;

  private:
    struct Capture;

    /// `which` is the case of the operation's own failures.
    Task<void> beginOperation(VMRecordPointer vm, DorvaneError::Case which);
    bool isStarting(const VMRecord& vm) const { return with_.isStarting && with_.isStarting(vm.id); }
    /// The machine's files are in nobody's hands.
    bool isDown(const VMRecord& vm) const;
    /// What its disk stands on can't be told.
    bool lacksImageTool(const VMRecord& vm) const {
        return vm.osType == VMOSType::windows && with_.chainStore == nullptr;
    }
    const SnapshotChainStore* chainStore(const VMRecord& vm) const {
        return vm.osType == VMOSType::windows ? with_.chainStore : nullptr;
    }
    /// On a background thread, with access to the machine's files.
    template <typename Work>
    auto inBackground(VMRecordPointer vm, Work work) const -> Task<decltype(work())>;

    Task<VMSnapshotPointer> takeSnapshotLocked(VMRecordPointer vm, std::string name, bool includeRAM,
                                               VMSnapshotKind kind);
    void requireCapturable(const Capture& of) const;
    Task<void> capture(Capture* of);
    Task<void> captureStopped(Capture* of);
    Task<void> takeLiveQEMUSnapshot(Capture* of);
    Task<void> switchToNewLayer(Capture* of);
    Task<void> saveMemory(Capture* of);
    Task<void> captureLiveSnapshot(Capture* of);
    Task<void> requireRoomInChain(const Capture& of) const;
    Task<std::exception_ptr> resumed(const Capture& of) const;
    Task<void> undo(Capture* of);
    Task<void> keep(Capture* of);

    Task<void> restoreSnapshotLocked(VMSnapshotPointer snapshot, VMRecordPointer vm);
    Task<void> syncDiskSizeAfterRestore(VMRecordPointer vm);

    Task<void> deleteSnapshotLocked(VMSnapshotPointer snapshot, VMRecordPointer vm);
    Task<void> forget(VMSnapshotPointer snapshot, VMRecordPointer vm);

    /// Whether everything is in order.
    Task<bool> recoverNow(VMRecordPointer vm);
    Task<bool> mend(VMRecordPointer vm);
    Task<void> separateFromOriginals(VMRecordPointer vm);
    Task<void> alignRows(VMRecordPointer vm);
    Task<void> followLayer(VMSnapshotPointer row, VMRecordPointer vm, std::optional<UUID> parentID);
    static void undoUnfinished(const VMBundle& bundle, const SnapshotChainStore* chain, const UUID& id);

    const VMSnapshotServiceCollaborators with_;
    const SnapshotFileCopier copier_;
    const Logger logger_{"VMSnapshotService"};
    /// Machines that this process has seen to, and those that it is seeing to.
    std::set<UUID> recovered_;
    std::map<UUID, Event> recovering_;
};

template <typename Work>
auto VMSnapshotService::inBackground(VMRecordPointer vm, Work work) const -> Task<decltype(work())> {
    const auto token = with_.bookmarks.beginAccess(vm->bookmarksByPath.value_or(Bookmarks()));
    co_return co_await with_.runtime.background.run(work);
}

}  // namespace dorvane
