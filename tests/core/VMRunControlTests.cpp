// SPDX-License-Identifier: Apache-2.0
#include "core/VMServiceHarness.h"

namespace dorvane::test {
namespace {

using testing::ElementsAre;

class VMRunControlTest : public VMServiceTest {
  protected:
    VMRunControlTest() { vm->setBookmark(toBytes("/media/disc.iso"), "/media/disc.iso"); }
    void startUnheard() {
        run(service.startVM(vm));
        engine.calls.clear();
    }

    VMRecordPointer vm = addVM("alpha");
};

TEST_F(VMRunControlTest, startsAndStopsWithStatusDatesAndAccess) {
    vm->status = VMStatus::running;  // A crash left it so; the engine knows better.
    host.clock().advance(seconds(5));
    run(service.startVM(vm));
    EXPECT_EQ(vm->status, VMStatus::running);
    EXPECT_EQ(vm->lastLaunchedAt, host.clock().date());
    EXPECT_EQ(resources.open.size(), 1u);
    EXPECT_TRUE(log.contains("Started VM: alpha"));

    engine.failNext("stop", "it hangs");
    EXPECT_EQ(failureOf(service.stopVM(vm, false)).text(), "it hangs");
    EXPECT_EQ(vm->status, VMStatus::running);

    run(service.stopVM(vm, false));
    EXPECT_EQ(vm->status, VMStatus::stopped);
    EXPECT_TRUE(resources.open.empty());
    EXPECT_TRUE(log.contains("Stopped VM: alpha"));
    EXPECT_FALSE(service.lastStopWasForced(*vm));
    EXPECT_THAT(engine.calls, ElementsAre("launch", "stop", "stop"));
}

TEST_F(VMRunControlTest, refusesByStatusAndWhileTheMachineIsBusy) {
    const DorvaneError notRunning(Case::vmNotRunning, "alpha"), busy(Case::vmBusy, "alpha");
    EXPECT_EQ(failureOf(service.stopVM(vm, true)), notRunning);
    EXPECT_EQ(failureOf(service.pauseVM(vm)), notRunning);
    EXPECT_EQ(failureOf(service.restartVM(vm)), notRunning);
    run(service.startVM(vm));
    EXPECT_EQ(failureOf(service.resumeVM(vm)), notRunning);
    EXPECT_EQ(failureOf(service.startVM(vm)), DorvaneError(Case::vmAlreadyRunning, "alpha"));
    EXPECT_EQ(resources.open.size(), 1u) << "the running machine keeps its access";

    gate.begin(vm->id, vm->name);
    EXPECT_EQ(failureOf(service.startVM(vm)), busy);
    EXPECT_EQ(failureOf(service.stopVM(vm, true)), busy);
    EXPECT_EQ(failureOf(service.restartVM(vm)), busy);
    EXPECT_EQ(failureOf(service.pauseVM(vm)), busy);
    EXPECT_EQ(failureOf(service.resumeVM(vm)), busy);
    EXPECT_EQ(failureOf(service.suspendVM(vm)), busy);
    EXPECT_EQ(failureOf(service.deleteVM(vm, true)), busy);
    EXPECT_TRUE(gate.isBusy(vm->id));
    EXPECT_THAT(engine.calls, ElementsAre("launch"));
}

TEST_F(VMRunControlTest, aGracefulStopOfAPausedMachineResumesItFirst) {
    const std::map<bool, std::vector<std::string>> table{{false, {"pause", "resume", "stop"}},
                                                         {true, {"pause", "forced stop"}}};
    for (const auto& [force, calls] : table) {
        startUnheard();
        run(service.pauseVM(vm));
        EXPECT_EQ(vm->status, VMStatus::paused);
        run(service.stopVM(vm, force));
        EXPECT_EQ(engine.calls, calls);
        EXPECT_EQ(service.lastStopWasForced(*vm), force);
    }
}

TEST_F(VMRunControlTest, restartLeavesTheMachineStoppedWhenTheStartFails) {
    startUnheard();
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

TEST_F(VMRunControlTest, aStartThatFailsEarlyChangesNothingButEndsAccess) {
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

TEST_F(VMRunControlTest, aStartThatFailsLateLeavesErrorAndEndsAccess) {
    const auto expectFailure = [&](const std::string& words) {
        EXPECT_EQ(failureOf(service.startVM(vm)).text(), words);
        EXPECT_EQ(vm->status, VMStatus::error);
        EXPECT_TRUE(resources.open.empty());
    };
    engine.failNext("launch", "no accelerator");
    expectFailure("no accelerator");
    EXPECT_FALSE(vm->lastLaunchedAt);
    context.failNextSave = true;
    expectFailure("the store can't be written");
    EXPECT_TRUE(engine.status(vm->id)) << "it may run all the same; the next refresh says so";
    run(service.refreshVMList());
    EXPECT_EQ(vm->status, VMStatus::running);
}

TEST_F(VMRunControlTest, aSecondStartDuringTheFirstIsRefusedAndDisturbsNothing) {
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
    finish(first);
    EXPECT_EQ(vm->status, VMStatus::running);
}

TEST_F(VMRunControlTest, aStartThatNobodyWaitsForIsGivenUpWhereverItStands) {
    const auto giveUp = [&](TaskHandle start) {
        start.cancel();
        if (recovery.work) recovery.work->set();
        finish(start);
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
    finish(second);
    host.settle();
    EXPECT_THAT(engine.calls, ElementsAre()) << "the machine that runs is another start's";
}

TEST_F(VMRunControlTest, aMachineDeletedDuringItsStartDoesNotComeBack) {
    const auto release = engine.hold("launch");
    const auto start = begin(service.startVM(vm));
    host.settle();
    run(service.deleteVM(vm, true));
    release.set();
    finish(start);
    EXPECT_FALSE(engine.hasRunningVMs());
    EXPECT_TRUE(service.vms().empty());
    EXPECT_TRUE(context.fetchRecords().empty());
}

TEST_F(VMRunControlTest, dropsTheInstallerOnceTheDiskBoots) {
    const auto image = folder / "installer.iso";
    writeFileAtomically(image, "iso");
    vm->pendingInstallerImagePath = image.string();
    run(service.startVM(vm));
    EXPECT_EQ(engine.lastAttachments->installerImagePath, image.string());
    writeFileAtomically(vm->bundle().rawDisk(), "installed now");
    run(service.stopVM(vm, false));
    EXPECT_FALSE(vm->hasPendingInstallerImage());
    EXPECT_TRUE(log.contains("Automatically completed Linux installation for VM: alpha"));
    host.settle();

    vm->pendingInstallerImagePath = "/nowhere/installer.iso";
    run(service.startVM(vm));
    EXPECT_FALSE(vm->pendingInstallerImagePath);
    EXPECT_FALSE(engine.lastAttachments->installerImagePath);
    EXPECT_TRUE(log.contains("Found an installed system on alpha; starting without the installer image"));
}

TEST_F(VMRunControlTest, pushesTheClockOnlyIntoAWindowsGuestThatCameBack) {
    const auto win = addVM("win", VMOSType::windows);
    writeConfig(win->bundle(), [](DorvaneVMConfig& config) {
        config.windowsSSH = WindowsSSHConfig{true, 47105};
    });
    run(service.startVM(win));
    run(service.suspendVM(win));
    EXPECT_TRUE(clockSync.pushes.empty());

    run(service.startVM(win));
    host.settle();
    EXPECT_THAT(clockSync.pushes, ElementsAre("win:47105 running 20x4"));

    run(service.suspendVM(win));
    engine.consumesSavedState = false;
    run(service.startVM(win));
    host.settle();
    EXPECT_EQ(clockSync.pushes.size(), 1u) << "a state that is still there was not resumed from";
}

TEST_F(VMRunControlTest, refreshStateFollowsTheEngine) {
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
