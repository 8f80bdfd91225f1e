// SPDX-License-Identifier: Apache-2.0
#include "core/VMServiceHarness.h"

namespace dorvane::test {
namespace {

using testing::ElementsAre;

class VMRunControlTest : public VMServiceTest {
  protected:
    void allowPath(const VMRecordPointer& vm) {
        vm->setBookmark(toBytes("/media/disc.iso"), "/media/disc.iso");
    }
    TaskHandle begin(Task<void> task) {
        return spawn(host.runtime().main.executor(), std::move(task), "test");
    }
};

TEST_F(VMRunControlTest, startsAndStopsWithStatusDatesAndAccess) {
    const auto vm = addVM("alpha");
    allowPath(vm);
    host.clock().advance(seconds(5));
    run(service.startVM(vm));
    EXPECT_EQ(vm->status, VMStatus::running);
    EXPECT_EQ(vm->lastLaunchedAt, host.clock().date());
    EXPECT_EQ(resources.open.size(), 1u);
    EXPECT_TRUE(log.contains("Started VM: alpha"));

    run(service.stopVM(vm, false));
    EXPECT_EQ(vm->status, VMStatus::stopped);
    EXPECT_TRUE(resources.open.empty());
    EXPECT_TRUE(log.contains("Stopped VM: alpha"));
    EXPECT_FALSE(service.lastStopWasForced(*vm));
    EXPECT_THAT(engine.calls, ElementsAre("launch", "stop"));
}

TEST_F(VMRunControlTest, refusesByStatus) {
    const auto vm = addVM("alpha");
    const DorvaneError notRunning(Case::vmNotRunning, "alpha");
    EXPECT_EQ(failureOf(service.stopVM(vm, true)), notRunning);
    EXPECT_EQ(failureOf(service.pauseVM(vm)), notRunning);
    EXPECT_EQ(failureOf(service.restartVM(vm)), notRunning);
    allowPath(vm);
    run(service.startVM(vm));
    EXPECT_EQ(failureOf(service.resumeVM(vm)), notRunning);
    EXPECT_EQ(failureOf(service.startVM(vm)), DorvaneError(Case::vmAlreadyRunning, "alpha"));
    EXPECT_EQ(resources.open.size(), 1u) << "the running machine keeps its access";
    EXPECT_THAT(engine.calls, ElementsAre("launch"));
}

TEST_F(VMRunControlTest, everyOperationRefusesABusyMachine) {
    const auto vm = addRunningVM("alpha");
    gate.begin(vm->id, vm->name);
    const DorvaneError busy(Case::vmBusy, "alpha");
    EXPECT_EQ(failureOf(service.startVM(vm)), busy);
    EXPECT_EQ(failureOf(service.stopVM(vm, true)), busy);
    EXPECT_EQ(failureOf(service.restartVM(vm)), busy);
    EXPECT_EQ(failureOf(service.pauseVM(vm)), busy);
    EXPECT_EQ(failureOf(service.resumeVM(vm)), busy);
    EXPECT_EQ(failureOf(service.suspendVM(vm)), busy);
    EXPECT_EQ(failureOf(service.deleteVM(vm, true)), busy);
    EXPECT_TRUE(gate.isBusy(vm->id));
    EXPECT_TRUE(engine.calls.empty());
}

TEST_F(VMRunControlTest, aRecordLeftRunningByACrashStarts) {
    const auto vm = addVM("alpha");
    vm->status = VMStatus::running;
    run(service.startVM(vm));
    EXPECT_EQ(vm->status, VMStatus::running);
    EXPECT_THAT(engine.calls, ElementsAre("launch"));
}

TEST_F(VMRunControlTest, aGracefulStopOfAPausedMachineResumesItFirst) {
    const auto vm = addRunningVM("alpha");
    run(service.pauseVM(vm));
    EXPECT_EQ(vm->status, VMStatus::paused);
    run(service.stopVM(vm, false));
    EXPECT_THAT(engine.calls, ElementsAre("pause", "resume", "stop"));

    run(service.startVM(vm));
    run(service.pauseVM(vm));
    engine.calls.clear();
    run(service.stopVM(vm, true));
    EXPECT_THAT(engine.calls, ElementsAre("forced stop"));
    EXPECT_TRUE(service.lastStopWasForced(*vm));
}

TEST_F(VMRunControlTest, restartLeavesTheMachineStoppedWhenTheStartFails) {
    const auto vm = addRunningVM("alpha");
    run(service.restartVM(vm));
    EXPECT_EQ(vm->status, VMStatus::running);
    EXPECT_TRUE(log.contains("Restarted VM: alpha"));
    host.settle();
    EXPECT_EQ(vm->status, VMStatus::running) << "the end of the first run is not the end of the second";

    engine.failNext("launch");
    failureOf(service.restartVM(vm));
    EXPECT_EQ(vm->status, VMStatus::error);
    EXPECT_FALSE(engine.status(vm->id));
}

TEST_F(VMRunControlTest, aFailedStopLeavesTheRecordAsItWas) {
    const auto vm = addRunningVM("alpha");
    engine.failNext("stop", "it hangs");
    EXPECT_EQ(failureOf(service.stopVM(vm, false)).text(), "it hangs");
    EXPECT_EQ(vm->status, VMStatus::running);
}

TEST_F(VMRunControlTest, aStartThatFailsEarlyChangesNothingButEndsAccess) {
    const auto vm = addVM("alpha");
    allowPath(vm);
    vm->mountedImages = {{" ", "/nowhere/tools.iso "}};
    EXPECT_EQ(failureOf(service.startVM(vm)), refusal("Mounted image does not exist: /nowhere/tools.iso"));
    std::filesystem::remove(vm->bundle().rawDisk());
    EXPECT_EQ(failureOf(service.startVM(vm)),
              DorvaneError(Case::vmStartupFailed,
                           "The VM bundle at " + vm->vmPath + " is missing its config or system disk."));
    EXPECT_EQ(vm->status, VMStatus::stopped);
    EXPECT_TRUE(resources.open.empty());
    EXPECT_TRUE(engine.calls.empty());
}

TEST_F(VMRunControlTest, aFailedLaunchLeavesErrorAndTheOldLaunchDate) {
    const auto vm = addVM("alpha");
    allowPath(vm);
    engine.failNext("launch", "no accelerator");
    EXPECT_EQ(failureOf(service.startVM(vm)).text(), "no accelerator");
    EXPECT_EQ(vm->status, VMStatus::error);
    EXPECT_FALSE(vm->lastLaunchedAt);
    EXPECT_TRUE(resources.open.empty());
}

TEST_F(VMRunControlTest, aStoreThatFailsAfterTheStartCountsAsAFailedStart) {
    const auto vm = addVM("alpha");
    allowPath(vm);
    context.failNextSave = true;
    EXPECT_EQ(failureOf(service.startVM(vm)).text(), "the store can't be written");
    EXPECT_EQ(vm->status, VMStatus::error);
    EXPECT_TRUE(resources.open.empty());
    EXPECT_TRUE(engine.status(vm->id)) << "it may run all the same; the next refresh says so";
    run(service.refreshVMList());
    EXPECT_EQ(vm->status, VMStatus::running);
}

TEST_F(VMRunControlTest, aSecondStartDuringTheFirstIsRefusedAndDisturbsNothing) {
    const auto vm = addVM("alpha");
    allowPath(vm);
    const auto release = engine.hold("launch");
    const auto first = begin(service.startVM(vm));
    host.settle();
    EXPECT_EQ(failureOf(service.startVM(vm)), DorvaneError(Case::vmAlreadyRunning, "alpha"));
    EXPECT_EQ(failureOf(service.cloneVM(vm, "copy")),
              DorvaneError(Case::vmCloneFailed, "Shut down the VM before cloning it."));
    EXPECT_EQ(failureOf(service.updateVMConfiguration(vm, {})),
              refusal("Shut down the VM before changing its configuration."));
    EXPECT_EQ(resources.open.size(), 1u);
    release.set();
    host.driveUntil([&] { return first.isFinished(); });
    EXPECT_EQ(vm->status, VMStatus::running);
}

TEST_F(VMRunControlTest, aStartThatNobodyWaitsForIsGivenUpWhereverItStands) {
    const auto vm = addVM("alpha");
    allowPath(vm);
    const auto giveUp = [&](TaskHandle start) {
        start.cancel();
        if (recovery.work) recovery.work->set();
        host.driveUntil([&] { return start.isFinished(); });
        host.settle();
        EXPECT_FALSE(engine.hasRunningVMs());
        EXPECT_FALSE(service.isStarting(vm->id));
        EXPECT_TRUE(resources.open.empty());
    };
    recovery.work = Event();
    giveUp(begin(service.startVM(vm)));
    recovery.work.reset();
    giveUp(begin(service.startVM(vm)));
    EXPECT_EQ(vm->status, VMStatus::stopped);
    EXPECT_TRUE(engine.calls.empty());

    const auto release = engine.hold("launch");
    auto launching = begin(service.startVM(vm));
    host.settle();
    giveUp(std::move(launching));
    EXPECT_THAT(engine.calls, ElementsAre("launch", "forced stop"));

    release.set();
    run(service.startVM(vm));
    engine.calls.clear();
    recovery.work = Event();
    auto second = begin(service.startVM(vm));
    second.cancel();
    recovery.work->set();
    host.driveUntil([&] { return second.isFinished(); });
    host.settle();
    EXPECT_THAT(engine.calls, ElementsAre()) << "the machine that runs is another start's";
}

TEST_F(VMRunControlTest, aMachineDeletedDuringItsStartDoesNotComeBack) {
    const auto vm = addVM("alpha");
    const auto release = engine.hold("launch");
    const auto start = begin(service.startVM(vm));
    host.settle();
    run(service.deleteVM(vm, true));
    release.set();
    host.driveUntil([&] { return start.isFinished(); });
    EXPECT_FALSE(engine.hasRunningVMs());
    EXPECT_TRUE(service.vms().empty());
    EXPECT_TRUE(context.fetchRecords().empty());
}

TEST_F(VMRunControlTest, dropsTheInstallerOnceTheDiskBoots) {
    const auto vm = addVM("alpha");
    vm->pendingInstallerImagePath = "/nowhere/installer.iso";
    writeFileAtomically(vm->bundle().rawDisk(), "installed now");
    run(service.startVM(vm));
    EXPECT_FALSE(vm->pendingInstallerImagePath);
    EXPECT_FALSE(engine.lastAttachments->installerImagePath);
    EXPECT_TRUE(log.contains("Found an installed system on alpha; starting without the installer image"));
}

TEST_F(VMRunControlTest, aStopEndsTheInstallationThatTheGuestHasFinished) {
    const auto vm = addVM("alpha");
    const auto image = folder / "installer.iso";
    writeFileAtomically(image, "iso");
    vm->pendingInstallerImagePath = image.string();
    run(service.startVM(vm));
    EXPECT_EQ(engine.lastAttachments->installerImagePath, image.string());
    writeFileAtomically(vm->bundle().rawDisk(), "installed now");
    run(service.stopVM(vm, false));
    EXPECT_FALSE(vm->hasPendingInstallerImage());
    EXPECT_TRUE(log.contains("Automatically completed Linux installation for VM: alpha"));
}

TEST_F(VMRunControlTest, pushesTheClockOnlyIntoAWindowsGuestThatCameBack) {
    const auto vm = addVM("alpha", VMOSType::windows);
    writeConfig(vm->bundle(), [](DorvaneVMConfig& config) {
        config.windowsSSH = WindowsSSHConfig{true, 47105};
    });
    run(service.startVM(vm));
    run(service.suspendVM(vm));
    EXPECT_TRUE(clockSync.pushes.empty());

    run(service.startVM(vm));
    host.settle();
    EXPECT_THAT(clockSync.pushes, ElementsAre("alpha:47105 running 20x4"));

    run(service.suspendVM(vm));
    engine.consumesSavedState = false;
    run(service.startVM(vm));
    host.settle();
    EXPECT_EQ(clockSync.pushes.size(), 1u) << "a state that is still there was not resumed from";
}

TEST_F(VMRunControlTest, refreshStateFollowsTheEngine) {
    const auto vm = addVM("alpha");
    engine.adopt(vm->id, VMStatus::paused);
    run(service.refreshVMState(vm));
    EXPECT_EQ(vm->status, VMStatus::paused);
    engine.vanish(vm->id, VMStopReason::failure("QEMU crashed"));
    run(service.refreshVMState(vm));
    EXPECT_EQ(vm->status, VMStatus::stopped);
    EXPECT_EQ(service.lastFailureReason(*vm), "QEMU crashed");
}

}  // namespace
}  // namespace dorvane::test
