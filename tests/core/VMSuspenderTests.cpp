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
    writeConfig(bundle, [](auto& config) { config.windowsGraphics = WindowsGraphicsMode::basic; });
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

TEST_F(VMSuspenderTest, aGuestThatPowersItselfOffBeforehandStaysOff) {
    const auto suspend = begin(service.suspendVM(vm));
    engine.vanish(vm->id, VMStopReason::guestInitiated());
    finish(suspend);
    host.settle();
    EXPECT_EQ(vm->status, VMStatus::stopped);
    EXPECT_TRUE(engine.calls.empty());
    EXPECT_FALSE(vm->hasSuspendedState());
}

TEST_F(VMSuspenderTest, aFailureOnTheWayBringsTheGuestBack) {
    const auto failure = [&](const std::vector<std::string>& calls) {
        engine.calls.clear();
        const auto error = failureOf(service.suspendVM(vm));
        EXPECT_EQ(engine.calls, calls);
        EXPECT_FALSE(vm->hasSuspendedState());
        EXPECT_EQ(vm->status, VMStatus::running);
        EXPECT_FALSE(gate.isBusy(vm->id));
        return error.text();
    };
    engine.failNext("save", "no space");
    EXPECT_EQ(failure({"pause", "save", "resume"}), "no space");
    engine.failNext("forced stop", "it hangs");
    EXPECT_EQ(failure({"pause", "save", "forced stop", "resume"}), "it hangs");
    EXPECT_FALSE(std::filesystem::exists(bundle.savedStateHash()));
    std::filesystem::create_directories(bundle.savedStateHash() / "in the way");
    EXPECT_NE(failure({"pause", "save", "resume"}), "nothing was thrown");
    run(service.pauseVM(vm));
    engine.failNext("save", "no space");
    EXPECT_EQ(failure({"save"}), "no space") << "one that was paused before is not resumed";
}

TEST_F(VMSuspenderTest, holdsTheGateUntilACallerThatGivesUpHasItsGuestBack) {
    const auto release = engine.hold("save");
    auto suspend = begin(service.suspendVM(vm));
    host.settle();
    EXPECT_EQ(failureOf(service.stopVM(vm, true)), DorvaneError(Case::vmBusy, "alpha"));
    suspend.cancel();
    finish(suspend);
    EXPECT_EQ(engine.status(vm->id), VMStatus::running);
    EXPECT_EQ(vm->status, VMStatus::running);
    EXPECT_FALSE(vm->hasSuspendedState());
    EXPECT_FALSE(gate.isBusy(vm->id));
}

}  // namespace
}  // namespace dorvane::test
