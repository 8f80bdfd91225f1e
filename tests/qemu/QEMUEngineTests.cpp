// SPDX-License-Identifier: Apache-2.0
// The engine from launch request to clean-up.
#include "qemu/QEMUEngineScene.h"
#include "runtime/Sockets.h"

namespace dorvane {
namespace {

namespace fs = std::filesystem;
using test::EngineMachine;
using Scene = test::QEMUEngineScene;
using testing::ElementsAre;
using testing::HasSubstr;
using Case = DorvaneError::Case;

Task<void> launchThatIsStopped(Scene& scene, EngineMachine vm) {
    try {
        co_await scene.engine->launch(vm.id, vm.bundle, vm.attachments);
        ADD_FAILURE() << "the launch succeeded";
    } catch (const DorvaneError& error) {
        EXPECT_EQ(error.text(), "The VM was stopped while it was starting.");
    }
}

TEST(QEMUEngine, RunsAMachineFromLaunchToCleanUp) {
    Scene scene;
    const auto vm = scene.machine();
    scene.launch(vm);
    EXPECT_EQ(scene.engine->status(vm.id), VMStatus::running);
    EXPECT_THAT(scene.engine->runningVMIDs(), ElementsAre(vm.id));
    EXPECT_EQ(scene.engine->macAddress(vm.id), "02:00:00:00:00:01");
    const auto directory = scene.directory(vm);
    EXPECT_EQ(fs::read_symlink(directory / "sys-0.qcow2"), vm.bundle.qcow2Disk());
    EXPECT_TRUE(readTextFile(directory / "sh/Dorvane-Graphics.txt").starts_with("basic\n"));
    EXPECT_FALSE(fs::exists(directory / "boot"));
    const auto handle = scene.engine->displayHandle(vm.id);
    ASSERT_TRUE(handle);
    EXPECT_EQ(handle->source, (GuestDisplaySource::Kind(GuestDisplaySource::VNC{
                                  (directory / "v.sock").string(), (directory / "a.sock").string()})));
    EXPECT_TRUE(handle->sharesClipboard && handle->acceptsFileDrops && !handle->acceleratedDriverStatus);
    const auto agent = [&] { scene.host.run(scene.engine->connectToGuestAgent(vm.id)); };
    EXPECT_THROW(agent(), DorvaneError);
    EXPECT_EQ(scene.failedLaunch(vm).which(), Case::vmAlreadyRunning);
    scene.stop(vm, false);
    EXPECT_EQ(scene.engine->stopReason(vm.id), VMStopReason::requested());
    EXPECT_FALSE(scene.engine->displayHandle(vm.id) || scene.engine->hasRunningVMs());
    scene.host.run(scene.engine->stop(vm.id, false));
    EXPECT_THROW(scene.host.run(scene.engine->pause(vm.id)), DorvaneError);
    scene.launch(vm);
    EXPECT_EQ(scene.qemu.count("convert -f raw -O qcow2"), 1) << "the firmware's storage is made once";
}

TEST(QEMUEngine, ARestartOfAStubbornGuestWaitsForItsEnd) {
    Scene scene;
    const auto vm = scene.machine();
    scene.qemu.script("qemu-system-aarch64", {"stubborn"});
    scene.launch(vm);
    scene.qemu.script("qemu-system-aarch64", {});
    scene.host.run(scene.engine->stop(vm.id, false));
    ASSERT_TRUE(scene.engine->hasRunningVMs()) << "the kill is still to come";
    scene.launch(vm);
    EXPECT_EQ(scene.engine->status(vm.id), VMStatus::running);
    EXPECT_EQ(scene.qemu.survivors().size(), 1u);
    EXPECT_EQ(scene.engine->stopReason(vm.id), VMStopReason::forced());
}

TEST(QEMUEngine, ASecondLaunchDoesNotDisturbTheFirst) {
    Scene scene;
    const auto vm = scene.machine();
    const auto first = scene.begin(scene.engine->launch(vm.id, vm.bundle, {}));
    scene.host.settle();
    EXPECT_EQ(scene.failedLaunch(vm).which(), Case::vmAlreadyRunning);
    scene.host.driveUntil([&] { return first.isFinished(); });
    EXPECT_EQ(scene.engine->status(vm.id), VMStatus::running);
    EXPECT_EQ(scene.launches(), 1);
}

TEST(QEMUEngine, ARelaunchRightAfterTheEndKeepsItsOwnDirectory) {
    Scene scene;
    const auto vm = scene.machine();
    const auto first = scene.begin(scene.engine->launch(vm.id, vm.bundle, {}));
    // Watches from before the engine itself does, and so hears of the end first.
    scene.host.driveUntil([&] { return scene.engine->status(vm.id).has_value(); });
    const auto relaunch = scene.begin([](Scene& s, EngineMachine m) -> Task<void> {
        auto updates = *s.engine->statusUpdates(m.id);
        for (auto status = VMStatus::starting; status != VMStatus::stopped;) {
            const auto next = co_await updates.next();
            status = next.value_or(VMStatus::stopped);
        }
        co_await s.engine->launch(m.id, m.bundle, m.attachments);
    }(scene, vm));
    scene.host.driveUntil([&] { return first.isFinished(); });
    scene.host.run(scene.engine->stop(vm.id, true));
    scene.host.driveUntil([&] { return relaunch.isFinished(); });
    EXPECT_EQ(scene.engine->status(vm.id), VMStatus::running);
    EXPECT_TRUE(fs::exists(scene.directory(vm) / "sys-0.qcow2"));
    EXPECT_EQ(scene.engine->stopReason(vm.id), VMStopReason::forced());
}

TEST(QEMUEngine, AFailureOnTheWayLeavesNothing) {
    {
        Scene scene(
            [](QEMUEngineContext& context) { context.resourceLocator = [] { return std::nullopt; }; });
        fs::create_directory(scene.work / "dvn");
        EXPECT_EQ(scene.failedLaunch(scene.machine()).text(),
                  "The Windows virtualization components are missing from this build.");
    }
    Scene scene;
    fs::remove(scene.qemu.helpers() / "swtpm");
    const auto wantsTPM = [](DorvaneVMConfig& config) { config.windowsPlatform->hasTPM = true; };
    EXPECT_EQ(scene.failedLaunch(scene.machine("TPM", wantsTPM)).text(),
              "This VM requires a virtual TPM, but the TPM component is missing.");
    scene.qemu.script("qemu-img", {"fails"});
    const auto vm = scene.machine();
    EXPECT_EQ(scene.failedLaunch(vm),
              DorvaneError(Case::vmCreationFailed, "Could not prepare the VM firmware storage."));
    EXPECT_FALSE(fs::exists(vm.bundle.nvram())) << "half a file would pass for a whole one";
    EXPECT_TRUE(fs::is_empty(scene.work / "dvn"));
    scene.qemu.script("qemu-img", {});
    scene.qemu.script("qemu-system-aarch64",
                      {"exit=1", "stderr=qemu-system-aarch64: Failed to get \"write\" lock"});
    EXPECT_THAT(scene.failedLaunch(vm).text(), HasSubstr("\nFailed to get \"write\" lock"));
    ASSERT_TRUE(scene.engine->stopReason(vm.id));
    EXPECT_THAT(scene.engine->stopReason(vm.id)->message, HasSubstr("\nFailed to get \"write\" lock"));
    EXPECT_FALSE(scene.engine->status(vm.id));
    EXPECT_TRUE(fs::is_empty(scene.work / "dvn"));
    fs::remove(vm.bundle.configFile());
    EXPECT_THROW(scene.launch(vm), FileError);
}

TEST(QEMUEngine, AStopBeforeThereIsAChildIsHeard) {
    Scene scene;
    const auto vm = scene.machine();
    const auto starting = scene.begin(launchThatIsStopped(scene, vm));
    const auto stopping = scene.begin(scene.engine->stop(vm.id, false));
    scene.host.driveUntil([&] { return starting.isFinished() && stopping.isFinished(); });
    EXPECT_EQ(scene.launches(), 0);
    EXPECT_EQ(scene.engine->stopReason(vm.id), VMStopReason::forced());
    scene.launch(vm);
    EXPECT_EQ(scene.engine->status(vm.id), VMStatus::running) << "the next launch isn't meant";
}

TEST(QEMUEngine, ChangedHardwareKeepsTheSuspendedStateAndARejectedOneBootsCold) {
    Scene scene;
    auto vm = scene.machine();
    scene.suspend(vm);
    vm.attachments.usbStorageDevices = {"/stick.img"};
    EXPECT_EQ(scene.failedLaunch(vm), DorvaneError(Case::suspendedStateHardwareChanged, "Machine"));
    EXPECT_TRUE(vm.bundle.hasSavedState());
    EXPECT_TRUE(fs::is_empty(scene.work / "dvn"));
    vm.attachments.usbStorageDevices.clear();
    const int before = scene.launches();
    scene.qemu.script("qemu-system-aarch64", {"migrate=fails"});
    scene.launch(vm);
    EXPECT_EQ(scene.launches(), before + 2) << "both in the same launch";
    EXPECT_EQ(scene.engine->status(vm.id), VMStatus::running);
    EXPECT_FALSE(vm.bundle.hasSavedState());
}

TEST(QEMUEngine, ShutsEverythingDownAtOnce) {
    Scene scene;
    const auto first = scene.machine("First"), second = scene.machine("Second");
    scene.launch(first);
    scene.qemu.script("qemu-system-aarch64", {"stubborn"});
    scene.launch(second);
    const auto preparing = scene.machine("Preparing"), late = scene.machine("Late");
    const auto starting = scene.begin(launchThatIsStopped(scene, preparing));
    // A second of real time, for a guest that obeys on a busy machine.
    scene.host.run(scene.engine->shutdownAll(seconds(10)));
    EXPECT_TRUE(starting.isFinished()) << "what it began must not outlive it";
    scene.host.run(launchThatIsStopped(scene, late));
    EXPECT_EQ(scene.launches(), 2);
    EXPECT_FALSE(scene.engine->hasRunningVMs());
    EXPECT_TRUE(scene.qemu.survivors().empty()) << "the kill timers have had their time";
    EXPECT_EQ(scene.engine->stopReason(first.id), VMStopReason::requested());
}

/// A leftover that answers is ended in the tests on a real QEMU.
TEST(QEMUEngine, AStrangerOnTheSocketIsLeftAloneAndTheLaunchGoesOn) {
    Scene scene;
    const auto vm = scene.machine();
    const auto socket = scene.directory(vm) / "q.sock";
    fs::create_directories(scene.directory(vm));
    const auto foreign = listenUnixSocket(socket.string());
    scene.processes.peer = 4711;
    scene.processes.table[4711].name = "bash";
    scene.launch(vm);
    EXPECT_TRUE(scene.log.contains("遗留的 QEMU(pid 4711)不响应 QMP,按 pid 停掉"));
    EXPECT_EQ(scene.engine->status(vm.id), VMStatus::running);
}

}  // namespace
}  // namespace dorvane
