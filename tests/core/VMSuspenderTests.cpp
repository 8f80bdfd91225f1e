// SPDX-License-Identifier: Apache-2.0
#include "core/ConfigHash.h"
#include "core/VMServiceHarness.h"

namespace dorvane::test {
namespace {

using testing::ElementsAre;

class VMSuspenderTest : public VMServiceTest {
  protected:
    VMRecordPointer vm = addRunningVM("alpha", VMOSType::windows);
    VMBundle bundle = vm->bundle();
};

TEST_F(VMSuspenderTest, writesStateAndHashAndPowersOff) {
    run(service.suspendVM(vm));
    EXPECT_EQ(vm->status, VMStatus::stopped);
    EXPECT_TRUE(vm->hasSuspendedState());
    EXPECT_EQ(readTextFile(bundle.savedStateHash()), configHash(DorvaneVMConfig::read(bundle.configFile())));
    EXPECT_THAT(engine.calls, ElementsAre("pause", "save", "forced stop"));
    EXPECT_FALSE(gate.isBusy(vm->id));
    EXPECT_TRUE(log.contains("Suspended VM to disk: alpha"));

    run(service.discardSuspendedState(vm));
    EXPECT_FALSE(vm->hasSuspendedState());
    EXPECT_TRUE(log.contains("Discarded suspended state of alpha at the user's request"));
}

TEST_F(VMSuspenderTest, refusesInItsOrderAndLetsTheGateGo) {
    const auto expectRefusal = [&](const DorvaneError& expected) {
        EXPECT_EQ(failureOf(service.suspendVM(vm)), expected);
        EXPECT_FALSE(gate.isBusy(vm->id));
    };
    writeConfig(bundle, [](auto& config) { config.windowsGraphics = WindowsGraphicsMode::accelerated; });
    expectRefusal(refusal("VMs with graphics acceleration can't be suspended. Shut the VM down instead."));
    writeFileAtomically(bundle.configFile(), "garbage");
    expectRefusal(refusal("Could not read the VM configuration."));
    std::filesystem::remove(bundle.configFile());
    expectRefusal(DorvaneError(Case::vmStartupFailed,
                               "The VM bundle at " + vm->vmPath + " is missing its config or system disk."));
    engine.canSave = false;
    expectRefusal(refusal("VMs can only be suspended while this Mac is unlocked."));
    vm->status = VMStatus::stopped;
    expectRefusal(DorvaneError(Case::vmNotRunning, "alpha"));
    vm->pendingInstallerImagePath = "/installer.iso";
    expectRefusal(refusal("Finish the installation before suspending this VM."));
    EXPECT_TRUE(engine.calls.empty());
}

TEST_F(VMSuspenderTest, holdsTheGateWhileItSaves) {
    const auto release = engine.hold("save");
    const auto suspend = spawn(host.runtime().main.executor(), service.suspendVM(vm), "test");
    host.settle();
    EXPECT_EQ(failureOf(service.stopVM(vm, true)), DorvaneError(Case::vmBusy, "alpha"));
    release.set();
    host.driveUntil([&] { return suspend.isFinished(); });
    EXPECT_FALSE(gate.isBusy(vm->id));
}

TEST_F(VMSuspenderTest, aGuestThatPowersItselfOffBeforehandStaysOff) {
    const auto suspend = spawn(host.runtime().main.executor(), service.suspendVM(vm), "test");
    engine.vanish(vm->id, VMStopReason::guestInitiated());
    host.driveUntil([&] { return suspend.isFinished(); });
    host.settle();
    EXPECT_EQ(vm->status, VMStatus::stopped);
    EXPECT_TRUE(engine.calls.empty());
    EXPECT_FALSE(vm->hasSuspendedState());
}

TEST_F(VMSuspenderTest, aFailureOnTheWayBringsTheGuestBack) {
    for (const std::string step : {"save", "forced stop"}) {
        engine.calls.clear();
        engine.failNext(step, "no space");
        EXPECT_EQ(failureOf(service.suspendVM(vm)).text(), "no space") << step;
        EXPECT_FALSE(vm->hasSuspendedState());
        EXPECT_FALSE(std::filesystem::exists(bundle.savedStateHash()));
        EXPECT_EQ(engine.calls.back(), "resume");
        EXPECT_EQ(vm->status, VMStatus::running);
        EXPECT_FALSE(gate.isBusy(vm->id));
    }
}

TEST_F(VMSuspenderTest, aHashThatCannotBeWrittenCountsAsAFailedSave) {
    std::filesystem::create_directories(bundle.savedStateHash() / "in the way");
    EXPECT_NE(failureOf(service.suspendVM(vm)).text(), "nothing was thrown");
    EXPECT_FALSE(vm->hasSuspendedState());
    EXPECT_THAT(engine.calls, ElementsAre("pause", "save", "resume"));
    EXPECT_EQ(vm->status, VMStatus::running);
}

TEST_F(VMSuspenderTest, aPausedGuestIsNotResumedWhenSavingFails) {
    run(service.pauseVM(vm));
    engine.calls.clear();
    engine.failNext("save");
    failureOf(service.suspendVM(vm));
    EXPECT_THAT(engine.calls, ElementsAre("save"));
    EXPECT_EQ(vm->status, VMStatus::running);
}

TEST_F(VMSuspenderTest, aCallerThatGivesUpStillGetsItsGuestBack) {
    const auto release = engine.hold("save");
    auto suspend = spawn(host.runtime().main.executor(), service.suspendVM(vm), "test");
    host.settle();
    suspend.cancel();
    host.driveUntil([&] { return suspend.isFinished(); });
    EXPECT_EQ(engine.status(vm->id), VMStatus::running);
    EXPECT_EQ(vm->status, VMStatus::running);
    EXPECT_FALSE(vm->hasSuspendedState());
    EXPECT_FALSE(gate.isBusy(vm->id));
}

}  // namespace
}  // namespace dorvane::test
