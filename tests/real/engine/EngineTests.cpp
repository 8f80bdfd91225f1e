// SPDX-License-Identifier: Apache-2.0
// The QEMU engine with real machines.
#include <gmock/gmock.h>

#include "core/ConfigHash.h"
#include "engine/EngineScene.h"

namespace dorvane {
namespace {

using test::EngineScene;
using testing::HasSubstr;

TEST(RealEngine, ABrokenStateBootsColdInTheSameLaunchAndAKilledChildIsAFailure) {
    EngineScene scene;
    const auto vm = scene.machine("Machine");
    scene.launch(vm);
    // What the suspending service does around the engine's part.
    scene.run(scene.engine->pause(vm.id));
    ASSERT_TRUE(scene.waitForStatus(vm, VMStatus::paused));
    const auto state = vm.bundle.savedState();
    scene.run(scene.engine->saveState(vm.id, state));
    writeFileAtomically(vm.bundle.savedStateHash(),
                        configHash(DorvaneVMConfig::read(vm.bundle.configFile())));
    scene.run(scene.engine->stop(vm.id, true));
    ASSERT_TRUE(scene.waitForStatus(vm, std::nullopt));
    EXPECT_TRUE(scene.children("").empty()) << "neither QEMU nor the TPM's emulator";

    std::filesystem::resize_file(state, std::filesystem::file_size(state) / 2);
    scene.launch(vm);
    EXPECT_EQ(scene.engine->status(vm.id), VMStatus::running);
    EXPECT_FALSE(vm.bundle.hasSavedState());
    EXPECT_TRUE(scene.log.contains("丢弃并冷启动 Machine"));

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
    const auto failure = [&] { return test::errorOf([&] { scene.launch(second); }).text(); };
    const auto locked = failure();
    EXPECT_THAT(locked, testing::StartsWith("The virtual machine exited during startup with status 1.\n"));
    EXPECT_THAT(locked, HasSubstr("Failed to get \"write\" lock"));
    EXPECT_THAT(locked, testing::Not(HasSubstr("qemu-system")));

    scene.resources.firmwareCode = second.bundle.configFile();
    EXPECT_THAT(failure(), HasSubstr("exited during startup with status 1.\n"));
    EXPECT_EQ(scene.engine->status(first.id), VMStatus::running) << "the other machine goes on";
}

TEST(RealEngine, ClearsAStaleQEMUWhetherItAnswersOrNot) {
    for (const bool answers : {true, false}) {
        EngineScene scene;
        const auto vm = scene.machine("Machine");
        std::filesystem::create_directories(scene.directory(vm));
        const auto socket = scene.directory(vm) / "q.sock";
        test::RealQEMUChild stale({"-machine", "none", "-display", "none", "-qmp",
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
