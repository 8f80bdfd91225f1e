// SPDX-License-Identifier: Apache-2.0
// The QEMU engine with real machines.
#include <gmock/gmock.h>

#include <csignal>

#include "core/ConfigHash.h"
#include "engine/EngineScene.h"

namespace dorvane {
namespace {

using test::EngineMachine;
using test::EngineScene;
using testing::HasSubstr;
using Case = DorvaneError::Case;

/// Runs a command in the guest with the VM's own key, trying for as long as the guest needs to let it in.
std::string runInGuest(EngineScene& scene, const EngineMachine& vm, const std::string& command) {
    const auto port = DorvaneVMConfig::read(vm.bundle.configFile()).windowsSSH->hostPort;
    const auto key = scene.run(scene.keyStore.keyPair(vm.id)).privateKey;
    std::string answer;
    scene.waitFor(120, [&] {
        ProcessCommand ssh{.executable = "/usr/bin/ssh",
                           .arguments = {"-i", key.string(), "-p", std::to_string(port), "-F", "/dev/null",
                                         "-o", "BatchMode=yes", "-o", "StrictHostKeyChecking=no", "-o",
                                         "UserKnownHostsFile=/dev/null", "-o", "ConnectTimeout=10",
                                         "root@127.0.0.1", command}};
        const auto output = runBlocking(std::move(ssh));
        answer = trimmed(asText(output.standardOutput));
        return output.status.isSuccess();
    });
    return answer;
}

/// What the suspending service does around the engine's part.
void suspend(EngineScene& scene, const EngineMachine& vm) {
    scene.run(scene.engine->pause(vm.id));
    ASSERT_TRUE(scene.waitForStatus(vm, VMStatus::paused));
    scene.run(scene.engine->saveState(vm.id, vm.bundle.savedState()));
    writeFileAtomically(vm.bundle.savedStateHash(),
                        configHash(DorvaneVMConfig::read(vm.bundle.configFile())));
    scene.run(scene.engine->stop(vm.id, true));
    ASSERT_TRUE(scene.waitForStatus(vm, std::nullopt));
}

TEST(RealEngine, RunsSuspendsResumesAndStopsAGuest) {
    EngineScene scene;
    const auto vm = scene.demoMachine("Demo, with a comma");
    scene.launch(vm);
    ASSERT_TRUE(scene.waitForConsole(vm, "DORVANE DEMO SECURE BOOT")) << scene.console(vm);
    ASSERT_TRUE(scene.waitForConsole(vm, "DORVANE DEMO KEY")) << scene.console(vm);
    EXPECT_EQ(runInGuest(scene, vm, "hostname"), "dorvane-demo");

    suspend(scene, vm);
    EXPECT_TRUE(scene.children("").empty());
    scene.launch(vm);
    EXPECT_EQ(scene.engine->status(vm.id), VMStatus::running);
    EXPECT_FALSE(vm.bundle.hasSavedState());
    EXPECT_EQ(runInGuest(scene, vm, "hostname"), "dorvane-demo");
    EXPECT_THAT(scene.console(vm), testing::Not(HasSubstr("READY"))) << "it went on and did not boot";

    scene.run(scene.engine->stop(vm.id, false));
    ASSERT_TRUE(scene.waitForStatus(vm, std::nullopt));
    EXPECT_EQ(scene.engine->stopReason(vm.id), VMStopReason::requested());
    EXPECT_FALSE(std::filesystem::exists(scene.directory(vm)));
    EXPECT_TRUE(scene.children("").empty()) << "neither QEMU nor the TPM's emulator";
}

TEST(RealEngine, ABrokenStateBootsColdInTheSameLaunch) {
    EngineScene scene;
    const auto vm = scene.machine("Machine");
    scene.launch(vm);
    suspend(scene, vm);
    std::filesystem::resize_file(vm.bundle.savedState(),
                                 std::filesystem::file_size(vm.bundle.savedState()) / 2);
    scene.launch(vm);
    EXPECT_EQ(scene.engine->status(vm.id), VMStatus::running);
    EXPECT_FALSE(vm.bundle.hasSavedState());
    EXPECT_TRUE(scene.log.contains("丢弃并冷启动 Machine"));
}

TEST(RealEngine, AKilledChildIsAFailure) {
    EngineScene scene;
    const auto vm = scene.machine("Machine");
    scene.launch(vm);
    const auto pids = scene.children("qemu-system");
    ASSERT_EQ(pids.size(), 1U);
    ::kill(pids.front(), SIGKILL);
    ASSERT_TRUE(scene.waitForStatus(vm, std::nullopt));
    EXPECT_EQ(scene.engine->stopReason(vm.id),
              VMStopReason::failure("The virtual machine exited with status 9."));
    EXPECT_TRUE(scene.waitFor(10, [&] { return scene.children("").empty(); }))
        << "the TPM's emulator goes too";
    scene.launch(vm);
    EXPECT_EQ(scene.engine->status(vm.id), VMStatus::running) << "and it starts again";
}

TEST(RealEngine, QEMUsOwnWordsReachTheUser) {
    EngineScene scene;
    const auto first = scene.machine("First"), second = scene.machine("Second");
    std::filesystem::remove(second.bundle.qcow2Disk());
    std::filesystem::create_hard_link(first.bundle.qcow2Disk(), second.bundle.qcow2Disk());
    scene.launch(first);
    const auto locked = scene.failedLaunch(second).text();
    EXPECT_THAT(locked, testing::StartsWith("The virtual machine exited during startup with status 1.\n"));
    EXPECT_THAT(locked, HasSubstr("Failed to get \"write\" lock"));
    EXPECT_THAT(locked, testing::Not(HasSubstr("qemu-system")));

    scene.resources.firmwareCode = second.bundle.configFile();
    EXPECT_THAT(scene.failedLaunch(second).text(), HasSubstr("exited during startup with status 1.\n"));
    EXPECT_EQ(scene.engine->status(first.id), VMStatus::running) << "the other machine goes on";
}

TEST(RealEngine, ClearsAStaleQEMUWhetherItAnswersOrNot) {
    for (const bool answers : {true, false}) {
        EngineScene scene;
        const auto vm = scene.machine("Machine");
        std::filesystem::create_directories(scene.directory(vm));
        const auto socket = scene.directory(vm) / "q.sock";
        test::RealQEMUChild stale(scene.resources, {"-machine", "none", "-display", "none", "-qmp",
                                                    "unix:" + socket.string() + ",server=on,wait=off"});
        ASSERT_TRUE(scene.waitFor(20, [&] { return std::filesystem::exists(socket); }));
        if (!answers) stale.process().signal(SIGSTOP);
        scene.launch(vm);
        EXPECT_FALSE(stale.process().isRunning());
        EXPECT_EQ(scene.log.contains("不响应 QMP,按 pid 停掉"), !answers);
        EXPECT_EQ(scene.engine->status(vm.id), VMStatus::running);
    }
}

}  // namespace
}  // namespace dorvane
