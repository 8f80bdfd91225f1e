// SPDX-License-Identifier: Apache-2.0
// What an earlier process, a copy or a move of the bundle leaves is put in order.
#include <gmock/gmock.h>

#include "snapshots/VMSnapshotScene.h"

namespace dorvane {
namespace {

namespace fs = std::filesystem;
using test::FakeChainTool;
using testing::ElementsAre;
using testing::IsEmpty;
using Case = DorvaneError::Case;

class VMSnapshotRecoveryTest : public test::VMSnapshotScene {};

TEST_F(VMSnapshotRecoveryTest, RowsFollowTheFilesOfAMovedBundle) {
    const auto vm = machine(VMOSType::windows);
    const auto a = take(vm, "a"), b = take(vm, "b", false, VMSnapshotKind::automatic);
    const auto moved = copyOf(vm, "Moved");
    fs::remove_all(vm->vmPath);
    // Described by a later version: nothing is known about it, and so nothing is done to it.
    const auto later = UUID::random();
    fs::create_directory(SnapshotFiles(moved->bundle(), later).directory);
    writeFileAtomically(SnapshotFiles(moved->bundle(), later).metadata(), R"({"formatVersion": 99})");
    host.run(service.recover(moved));
    EXPECT_THAT(names(moved), testing::UnorderedElementsAre("a", "b"));
    for (const auto& row : host.run(service.listSnapshots(moved))) EXPECT_EQ(row->vmID, moved->id);
    EXPECT_EQ(directories(moved), (std::set{a->id.text(), b->id.text(), later.text()}));
}

TEST_F(VMSnapshotRecoveryTest, AnEmulatorThatACrashLeftEndsWithoutAnyOtherSignOfTheCrash) {
    const auto vm = machine(VMOSType::windows), linux = machine(VMOSType::linux, "Native");
    setStatus(vm, VMStatus::running);
    host.run(service.recover(vm));
    EXPECT_THAT(endedEmulators, IsEmpty()) << "this process's own";
    setStatus(vm, VMStatus::stopped);
    for (const auto& each : {vm, linux, vm}) host.run(service.recover(each));
    EXPECT_THAT(endedEmulators, ElementsAre(vm->id));
    EXPECT_FALSE(gate.isBusy(vm->id));
}

/// Whichever call of the disk tool fails while the copy's layers get other names.
TEST_F(VMSnapshotRecoveryTest, ACopiedBundleLeavesTheOriginalItsSnapshots) {
    const auto vm = machine(VMOSType::windows);
    FakeChainTool::guestWrites(vm->bundle().qcow2Disk(), "1", "a");
    take(vm, "a");
    FakeChainTool::guestWrites(vm->bundle().qcow2Disk(), "2", "b");
    take(vm, "b");
    const auto content = FakeChainTool::content(vm->bundle().qcow2Disk());
    const auto rows = host.run(service.listSnapshots(vm));
    const auto original = directories(vm);
    int call = 0;
    do {
        SCOPED_TRACE(++call);
        const auto copy = copyOf(vm, "Copy");
        tool->startCounting(call, FakeChainTool::Failure::midway);
        host.run(service.recover(copy));
        EXPECT_THAT(names(copy), ElementsAre("b", "a"));
        EXPECT_EQ(host.run(service.listSnapshots(vm)), rows);
        EXPECT_EQ(directories(vm), original);
        for (const auto& id : directories(copy)) EXPECT_FALSE(original.contains(id));
        EXPECT_EQ(FakeChainTool::content(copy->bundle().qcow2Disk()), content);
        const auto copied = host.run(service.listSnapshots(copy));
        EXPECT_EQ(copied.front()->parentSnapshotID, copied.back()->id);
        EXPECT_EQ(SnapshotMetadata::read(SnapshotMetadata::file(copy->bundle(), copied.front()->id))
                      .parentSnapshotID,
                  copied.back()->id);
        EXPECT_FALSE(fs::exists(copy->bundle().directoryURL / ".dorvane-renaming"));
        for (const auto& row : copied) context.remove(row);
        context.remove(copy);
    } while (tool->hasFailed() && !HasFailure());
    EXPECT_GT(call, 5);
}

TEST_F(VMSnapshotRecoveryTest, WithoutTheDiskToolNoLayerIsTouched) {
    const auto vm = machine(VMOSType::windows);
    const auto a = take(vm, "a"), b = take(vm, "b"), unfinished = take(vm, "unfinished");
    context.remove(unfinished);
    fs::remove(SnapshotFiles(vm->bundle(), unfinished->id).metadata());
    const auto before = directories(vm);
    auto withoutTool = with;
    withoutTool.chainStore = nullptr;
    VMSnapshotService bare(withoutTool);
    host.run(bare.recover(vm));
    EXPECT_EQ(directories(vm), before);
    EXPECT_EQ(b->parentSnapshotID, a->id);
    EXPECT_EQ(SnapshotMetadata::read(SnapshotMetadata::file(vm->bundle(), b->id)).parentSnapshotID, a->id);
    VMSnapshotService next(with);
    host.run(next.recover(vm));
    EXPECT_EQ(directories(vm), (std::set{a->id.text(), b->id.text()}));
}

TEST_F(VMSnapshotRecoveryTest, ARestoreThatRecoveryFinishesBringsItsDiskSize) {
    const auto vm = machine(VMOSType::linux);
    const auto size = fs::file_size(vm->bundle().rawDisk());
    // What a process leaves that dies with the restored disk in place already.
    writeFileAtomically(vm->bundle().directoryURL / ".dorvane-restoring", R"({"disk": 1})");
    // Not to be had at first: nothing is known of it then.
    fs::rename(vm->vmPath, storage / "away");
    host.run(service.recover(vm));
    fs::rename(storage / "away", vm->vmPath);
    host.run(service.recover(vm));
    EXPECT_EQ(DorvaneVMConfig::read(vm->bundle().configFile()).diskSizeBytes, size);
    EXPECT_EQ(vm->diskSizeBytes, static_cast<std::int64_t>(size));
}

TEST_F(VMSnapshotRecoveryTest, AMachineOnItsWayUpIsNotRecovered) {
    const auto vm = machine(VMOSType::linux);
    const auto left = SnapshotFiles(vm->bundle(), UUID::random()).directory;
    fs::create_directories(left);
    starting.insert(vm->id);
    host.run(service.recover(vm));
    EXPECT_TRUE(fs::exists(left));
    starting.clear();
    host.run(service.recover(vm));
    EXPECT_FALSE(fs::exists(left));
}

TEST_F(VMSnapshotRecoveryTest, WhatRecoveryMeetsIsSaidInTheOperationsOwnWords) {
    const auto vm = machine(VMOSType::linux);
    const auto row = take(vm, "x");
    const auto caseOf = [&](auto operation) {
        return test::errorOf([&] { host.run(std::move(operation)); }).which();
    };
    // It says what to do with the disk, and can't be read.
    writeFileAtomically(vm->bundle().directoryURL / ".dorvane-restoring", "{");
    VMSnapshotService next(with);
    EXPECT_EQ(caseOf(next.takeSnapshot(vm, "y", false, VMSnapshotKind::manual)), Case::vmSnapshotFailed);
    EXPECT_EQ(caseOf(next.restoreSnapshot(row, vm)), Case::vmSnapshotRestoreFailed);
    EXPECT_EQ(caseOf(next.deleteSnapshot(row, vm)), Case::vmSnapshotDeleteFailed);
    fs::remove(vm->bundle().directoryURL / ".dorvane-restoring");

    context.failNextSave = true;
    EXPECT_NO_THROW(host.run(next.recover(vm))) << "rows out of step keep no machine from starting";
    EXPECT_TRUE(log.contains("Could not bring the snapshots of VM"));
    EXPECT_THAT(names(vm), ElementsAre("x"));
}

}  // namespace
}  // namespace dorvane
