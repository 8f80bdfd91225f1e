// SPDX-License-Identifier: Apache-2.0
// Taking, restoring, deleting and pruning snapshots over fake engines and layers.
#include <gmock/gmock.h>

#include "core/ConfigHash.h"
#include "snapshots/VMSnapshotScene.h"

namespace dorvane {
namespace {

namespace fs = std::filesystem;
using test::FakeChainTool;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Case = DorvaneError::Case;

class VMSnapshotServiceTest : public test::VMSnapshotScene {};

TEST_F(VMSnapshotServiceTest, RefusesBeforeAnythingIsTouched) {
    const auto windows = machine(VMOSType::windows);
    const auto linux = machine(VMOSType::linux, "Native");
    EXPECT_EQ(refusalToTake(windows, " \n\t"), "Enter a name for the snapshot.");
    setStatus(linux, VMStatus::running);
    EXPECT_EQ(refusalToTake(linux, "x"), "Shut down the VM before taking a disk-only snapshot.");
    windows->usbStorageDevices = {"/dev/usb"};
    setStatus(windows, VMStatus::running);
    EXPECT_THAT(refusalToTake(windows, "x", true), HasSubstr("while a USB storage device is attached"));
    windows->usbStorageDevices.reset();
    engine.canSave = false;
    EXPECT_THAT(refusalToTake(windows, "x", true), HasSubstr("while this Mac is unlocked. Unlock it, or"));
    config.os = VMOSType::windows;
    config.windowsGraphics = WindowsGraphicsMode::accelerated;
    config.write(windows->bundle().configFile());
    EXPECT_THAT(refusalToTake(windows, "x", true), HasSubstr("while graphics acceleration is on"));
    writeFileAtomically(windows->bundle().configFile(), "{");
    EXPECT_EQ(refusalToTake(windows, "x"), "Could not read the VM configuration.");
    fs::remove(windows->bundle().configFile());
    EXPECT_EQ(refusalToTake(windows, "x"), "The VM bundle is incomplete at " + windows->vmPath + ".");
    EXPECT_THAT(engine.calls, IsEmpty());
    EXPECT_THAT(names(windows), IsEmpty());
    EXPECT_THAT(directories(windows), IsEmpty());
    EXPECT_FALSE(gate.isBusy(windows->id));
}

TEST_F(VMSnapshotServiceTest, OneOperationAtATime) {
    const auto vm = machine(VMOSType::windows);
    const auto row = take(vm, "x");
    {
        const VMOperationGate::Hold hold(gate, vm->id, vm->name);
        EXPECT_EQ(refusalToTake(vm, "y"), vm->name);
        EXPECT_EQ(refusalOf(service.restoreSnapshot(row, vm)), vm->name);
        EXPECT_EQ(refusalOf(service.deleteSnapshot(row, vm)), vm->name);
    }
    starting.insert(vm->id);
    EXPECT_EQ(refusalToTake(vm, "y"), vm->name);
    EXPECT_THAT(names(vm), ElementsAre("x"));
}

TEST_F(VMSnapshotServiceTest, AStoppedMachinesSnapshotIsALayerOrAClone) {
    const auto windows = machine(VMOSType::windows);
    const auto first = take(windows, " first ");
    const auto second = take(windows, "second", true);
    EXPECT_EQ(first->name, "first");
    EXPECT_EQ(first->storage(), VMSnapshotStorage::chain);
    EXPECT_EQ(second->parentSnapshotID, first->id);
    EXPECT_FALSE(second->includesRAMState) << "a machine that is down has no memory";
    EXPECT_EQ(second->configHash, configHash(config));
    EXPECT_EQ(second->logicalDiskSizeBytes, 64);
    const SnapshotFiles files(windows->bundle(), second->id);
    EXPECT_EQ(readTextFile(files.nvram(VMOSType::windows)), "variables");
    EXPECT_TRUE(fs::exists(files.config()));
    EXPECT_EQ(SnapshotMetadata::read(files.metadata()).parentSnapshotID, first->id);
    EXPECT_THAT(names(windows), ElementsAre("second", "first"));

    const auto linux = machine(VMOSType::linux, "Native");
    const auto clone = take(linux, "clone");
    EXPECT_EQ(clone->storage(), VMSnapshotStorage::clone);
    EXPECT_FALSE(clone->storageRaw);
    EXPECT_EQ(readTextFile(SnapshotFiles(linux->bundle(), clone->id).disk(VMOSType::linux)), "disk");
    writeFileAtomically(linux->bundle().rawDisk(), "changed");
    host.run(service.restoreSnapshot(clone, linux));
    EXPECT_EQ(readTextFile(linux->bundle().rawDisk()), "disk");
    host.run(service.deleteSnapshot(clone, linux));
    EXPECT_THAT(directories(linux), IsEmpty());
}

TEST_F(VMSnapshotServiceTest, ARunningGuestIsPausedOnlyForTheSwitchAndItsMemory) {
    const auto vm = machine(VMOSType::windows);
    setStatus(vm, VMStatus::running);
    const auto disk = take(vm, "disk");
    EXPECT_THAT(engine.calls, ElementsAre("pause", "overlay", "resume"));
    EXPECT_TRUE(disk->takenWhileRunning());
    engine.calls.clear();
    const auto memory = take(vm, "memory", true);
    EXPECT_THAT(engine.calls, ElementsAre("pause", "overlay", "save", "resume"));
    EXPECT_TRUE(memory->includesRAMState);
    EXPECT_EQ(memory->parentSnapshotID, disk->id);
    setStatus(vm, VMStatus::paused);
    engine.calls.clear();
    take(vm, "paused");
    EXPECT_THAT(engine.calls, ElementsAre("overlay")) << "it stays as it was";

    const auto native = machine(VMOSType::macOS, "Native");
    setStatus(native, VMStatus::running);
    engine.calls.clear();
    EXPECT_TRUE(take(native, "all", true)->includesRAMState);
    EXPECT_THAT(engine.calls, ElementsAre("pause", "save", "resume"));
}

TEST_F(VMSnapshotServiceTest, AFailedCaptureLeavesNothingAndTheGuestGoesOn) {
    const auto vm = machine(VMOSType::windows);
    setStatus(vm, VMStatus::running);
    for (const std::string step : {"pause", "overlay"}) {
        SCOPED_TRACE(step);
        engine.calls.clear();
        engine.failNext(step);
        EXPECT_EQ(refusalToTake(vm, "x", true), "the engine failed");
        EXPECT_THAT(directories(vm), IsEmpty());
        EXPECT_EQ(tool->backingPath(vm->bundle().qcow2Disk()), std::nullopt);
    }
    EXPECT_EQ(engine.calls.back(), "resume");
    engine.failNext("save", "no room");
    EXPECT_EQ(refusalToTake(vm, "half", true),
              "The disk was captured, but the memory could not be saved (no room). A disk-only snapshot was "
              "kept.");
    const auto kept = host.run(service.listSnapshots(vm)).front();
    EXPECT_FALSE(kept->includesRAMState);
    EXPECT_FALSE(fs::exists(SnapshotFiles(vm->bundle(), kept->id).state()));
    EXPECT_TRUE(log.contains("内存迁移失败,快照降级为仅磁盘: no room"));
    EXPECT_EQ(engine.status(vm->id), VMStatus::running);
    engine.failNext("overlay", std::make_exception_ptr(DorvaneError::vmNotFound(vm->id)));
    EXPECT_EQ(test::errorOf([&] { take(vm, "x"); }).which(), Case::vmSnapshotFailed);

    const auto stopped = machine(VMOSType::windows, "Stopped");
    context.failNextSave = true;
    EXPECT_EQ(refusalToTake(stopped, "x"), "the store can't be written");
    EXPECT_THAT(directories(stopped), IsEmpty());
    EXPECT_THAT(names(stopped), IsEmpty());
}

TEST_F(VMSnapshotServiceTest, TheChainHasALimit) {
    const auto vm = machine(VMOSType::windows);
    for (int layer = 0; layer < 16; ++layer) take(vm, "layer");
    EXPECT_EQ(test::errorOf([&] { take(vm, "one too many"); }), DorvaneError::snapshotChainTooDeep(16));
    EXPECT_EQ(names(vm).size(), 16U);
    EXPECT_EQ(directories(vm).size(), 16U);
}

TEST_F(VMSnapshotServiceTest, MemoryComesBackOnlyWithTheMachineItBelongsTo) {
    const auto vm = machine(VMOSType::windows);
    setStatus(vm, VMStatus::running);
    const auto row = take(vm, "memory", true);
    EXPECT_EQ(refusalOf(service.restoreSnapshot(row, vm)), "Shut down the VM before restoring a snapshot.");
    engine.vanish(vm->id, VMStopReason::requested());
    vm->status = VMStatus::stopped;
    const SnapshotFiles files(vm->bundle(), row->id);
    writeFileAtomically(files.stateDevices(), "devices");
    host.run(service.restoreSnapshot(row, vm));
    EXPECT_EQ(readTextFile(vm->bundle().savedState()), "memory");
    EXPECT_EQ(readTextFile(vm->bundle().savedStateHash()), row->configHash);
    EXPECT_EQ(readTextFile(vm->bundle().savedStateDevices()), "devices");

    auto other = config;
    other.cpuCount += 1;
    other.write(files.config());
    host.run(service.restoreSnapshot(row, vm));
    EXPECT_FALSE(vm->hasSuspendedState()) << "the suspended state belongs to another disk now";

    const auto stranger = machine(VMOSType::windows, "Stranger");
    EXPECT_EQ(refusalOf(service.restoreSnapshot(row, stranger)),
              "This snapshot does not belong to the selected VM.");
    fs::remove(files.disk(VMOSType::windows));
    EXPECT_EQ(refusalOf(service.restoreSnapshot(row, vm)), "The snapshot's disk image is missing.");
}

TEST_F(VMSnapshotServiceTest, ADeletedSnapshotsChildrenStandOnItsParent) {
    const auto vm = machine(VMOSType::windows);
    const auto a = take(vm, "a"), b = take(vm, "b"), c = take(vm, "c");
    setStatus(vm, VMStatus::running);
    EXPECT_THAT(refusalOf(service.deleteSnapshot(b, vm)),
                HasSubstr("Later snapshots are built on top of it"));
    engine.vanish(vm->id, VMStopReason::requested());
    vm->status = VMStatus::stopped;
    host.run(service.deleteSnapshot(b, vm));
    EXPECT_EQ(c->parentSnapshotID, a->id);
    EXPECT_EQ(SnapshotMetadata::read(SnapshotMetadata::file(vm->bundle(), c->id)).parentSnapshotID, a->id);
    EXPECT_EQ(directories(vm), (std::set{a->id.text(), c->id.text()}));
    EXPECT_NE(refusalOf(service.deleteSnapshot(b, vm)), "no refusal");
    context.failNextSave = true;
    EXPECT_EQ(test::errorOf([&] { host.run(service.deleteSnapshot(a, vm)); }).which(),
              Case::vmSnapshotDeleteFailed);
    EXPECT_EQ(SnapshotMetadata::read(SnapshotMetadata::file(vm->bundle(), c->id)).parentSnapshotID,
              std::nullopt);
    const auto saves = context.saveCount;
    EXPECT_THAT(names(vm), ElementsAre("c"));
    EXPECT_GT(context.saveCount, saves) << "made good with the next use";
}

TEST_F(VMSnapshotServiceTest, ALayerWithoutARowIsMergedOnceTheMachineIsDown) {
    const auto vm = machine(VMOSType::windows);
    setStatus(vm, VMStatus::running);
    FakeChainTool::guestWrites(vm->bundle().qcow2Disk(), "1", "before");
    context.failNextSave = true;
    EXPECT_EQ(refusalToTake(vm, "x"), "the store can't be written");
    EXPECT_EQ(directories(vm).size(), 1U) << "the guest runs on it";
    engine.vanish(vm->id, VMStopReason::requested());
    vm->status = VMStatus::stopped;
    EXPECT_THAT(names(vm), IsEmpty());
    EXPECT_THAT(directories(vm), IsEmpty());
    EXPECT_EQ(FakeChainTool::content(vm->bundle().qcow2Disk()), (FakeChainTool::Content{{"1", "before"}}));
}

TEST_F(VMSnapshotServiceTest, PruningKeepsTheNewestAndEveryManualOne) {
    const auto vm = machine(VMOSType::windows);
    take(vm, "mine");
    for (const auto* name : {"1", "2", "3"}) take(vm, name, false, VMSnapshotKind::automatic);
    EXPECT_EQ(host.run(service.pruneAutomaticSnapshots(vm, 2)), 1);
    EXPECT_THAT(names(vm), ElementsAre("3", "2", "mine"));
    {
        const VMOperationGate::Hold hold(gate, vm->id, vm->name);
        EXPECT_EQ(host.run(service.pruneAutomaticSnapshots(vm, 0)), 0);
        EXPECT_TRUE(log.contains("VM Machine 进入忙碌"));
    }
    starting.insert(vm->id);
    EXPECT_EQ(host.run(service.pruneAutomaticSnapshots(vm, 0)), 0);
    EXPECT_FALSE(log.contains("Failed to prune"));
    starting.clear();
    EXPECT_EQ(host.run(service.pruneAutomaticSnapshots(vm, 0)), 2);
    EXPECT_THAT(names(vm), ElementsAre("mine"));
}

}  // namespace
}  // namespace dorvane
