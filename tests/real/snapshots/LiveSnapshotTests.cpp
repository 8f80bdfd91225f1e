// SPDX-License-Identifier: Apache-2.0
// Snapshots of the demo guest while it runs, writes to its disk and counts the seconds.
#include <gmock/gmock.h>

#include <csignal>
#include <thread>

#include "snapshots/SnapshotScene.h"
#include "support/ErrorOf.h"

namespace dorvane {
namespace {

using test::SnapshotScene;
using testing::HasSubstr;
using Case = DorvaneError::Case;

struct Scene : SnapshotScene {
    /// Runs a command in the guest, trying for as long as it needs to let the user in.
    std::string inGuest(const VMRecordPointer& vm, const std::string& command) {
        const auto port = DorvaneVMConfig::read(vm->bundle().configFile()).windowsSSH->hostPort;
        const auto key = run(keyStore.keyPair(vm->id)).privateKey;
        std::string answer;
        const bool answered = waitFor(180, [&] {
            const auto output =
                runBlocking({.executable = "/usr/bin/ssh",
                             .arguments = {"-i", key.string(), "-p", std::to_string(port), "-F", "/dev/null",
                                           "-o", "BatchMode=yes", "-o", "StrictHostKeyChecking=no", "-o",
                                           "UserKnownHostsFile=/dev/null", "-o", "ConnectTimeout=10",
                                           "root@127.0.0.1", command}});
            answer = trimmed(asText(output.standardOutput));
            return output.status.isSuccess();
        });
        EXPECT_TRUE(answered) << command;
        return answer;
    }
};

TEST(LiveSnapshots, ARunningGuestIsCapturedGoesOnAndComesBack) {
    Scene scene;
    const auto vm = scene.demoRecord("Demo");
    scene.start(vm);
    ASSERT_TRUE(scene.waitForConsole(scene.handle(vm), "DORVANE DEMO KEY"))
        << scene.console(scene.handle(vm));
    scene.inGuest(vm, "mark one");
    // Something that never stops writing.
    scene.inGuest(vm, "(while true; do date > /disk/busy; sync; done) >/dev/null 2>&1 </dev/null &");
    const auto first = scene.take(vm, "first");
    EXPECT_TRUE(first->takenWhileRunning());
    EXPECT_EQ(scene.engine->status(vm->id), VMStatus::running);
    EXPECT_EQ(scene.inGuest(vm, "mark"), "one");
    scene.inGuest(vm, "mark two");
    scene.inGuest(vm, "echo remembered > /run/remembered");
    const auto second = scene.take(vm, "second", true);
    EXPECT_TRUE(second->includesRAMState);
    EXPECT_EQ(second->parentSnapshotID, first->id);
    EXPECT_EQ(scene.inGuest(vm, "cat /run/remembered"), "remembered");
    scene.inGuest(vm, "mark three");
    const auto third = scene.take(vm, "third");
    const auto fourth = scene.take(vm, "fourth");
    EXPECT_EQ(fourth->parentSnapshotID, third->id);
    const auto refused = test::errorOf([&] { scene.run(scene.service.deleteSnapshot(second, vm)); });
    EXPECT_EQ(refused.which(), Case::vmSnapshotDeleteFailed);
    EXPECT_THAT(refused.text(), HasSubstr("Later snapshots are built on top of it"));
    const auto notNow = test::errorOf([&] { scene.run(scene.service.restoreSnapshot(first, vm)); });
    EXPECT_EQ(notNow.text(), "Shut down the VM before restoring a snapshot.");

    scene.stop(vm, false);
    scene.expectSoundChain(vm);
    const auto contentOfFirst = scene.content(scene.disk(vm, first));
    const auto contentOfSecond = scene.content(scene.disk(vm, second));
    const auto contentOfLive = scene.content(vm->bundle().qcow2Disk());

    scene.run(scene.service.deleteSnapshot(third, vm));
    EXPECT_EQ(fourth->parentSnapshotID, second->id);
    scene.run(scene.service.deleteSnapshot(fourth, vm));
    EXPECT_EQ(scene.content(vm->bundle().qcow2Disk()), contentOfLive);
    EXPECT_EQ(scene.content(scene.disk(vm, second)), contentOfSecond);
    scene.expectSoundChain(vm);

    // The memory comes back with its disk: the guest goes on where it was, and its mark is that of then.
    scene.run(scene.service.restoreSnapshot(second, vm));
    ASSERT_TRUE(vm->hasSuspendedState());
    std::filesystem::remove(vm->bundle().consoleLog());
    scene.start(vm);
    EXPECT_FALSE(vm->hasSuspendedState());
    EXPECT_EQ(scene.inGuest(vm, "cat /run/remembered"), "remembered");
    EXPECT_EQ(scene.inGuest(vm, "mark"), "two");
    EXPECT_THAT(scene.console(scene.handle(vm)), testing::Not(HasSubstr("READY"))) << "it did not boot";
    scene.stop(vm, true);

    scene.run(scene.service.restoreSnapshot(first, vm));
    EXPECT_EQ(scene.content(vm->bundle().qcow2Disk()), contentOfFirst);
    EXPECT_FALSE(vm->hasSuspendedState());
    scene.expectSoundChain(vm);
}

TEST(LiveSnapshots, APausedMachineStaysPausedAndAnEmulatorThatDiesMeanwhileLosesNothing) {
    Scene scene;
    const auto vm = scene.record(scene.machine("Empty"));
    scene.start(vm);
    scene.run(scene.engine->pause(vm->id));
    ASSERT_TRUE(scene.waitForStatus(scene.handle(vm), VMStatus::paused));
    vm->status = VMStatus::paused;
    for (const bool memory : {false, true, false, true}) {
        const auto taken = scene.take(vm, memory ? "with memory" : "disk only", memory);
        EXPECT_EQ(taken->includesRAMState, memory);
        EXPECT_EQ(scene.engine->status(vm->id), VMStatus::paused);
    }
    EXPECT_EQ(scene.chain.depth(vm->bundle()), 4);
    scene.run(scene.engine->resume(vm->id));
    EXPECT_TRUE(scene.waitForStatus(scene.handle(vm), VMStatus::running));
    vm->status = VMStatus::running;

    const auto kept = scene.run(scene.service.listSnapshots(vm));
    const auto pids = scene.children("qemu-system");
    ASSERT_EQ(pids.size(), 1U);
    // It can't answer any more, and is gone before the switch can be taken back.
    ::kill(pids.front(), SIGSTOP);
    std::thread killer([&] {
        std::this_thread::sleep_for(milliseconds(500));
        ::kill(pids.front(), SIGKILL);
    });
    const auto error = test::errorOf([&] { scene.take(vm, "lost"); });
    killer.join();
    EXPECT_EQ(error.which(), Case::vmSnapshotFailed) << error.what();
    ASSERT_TRUE(scene.waitForStatus(scene.handle(vm), std::nullopt));
    vm->status = VMStatus::stopped;
    scene.run(scene.service.recover(vm));
    EXPECT_EQ(scene.run(scene.service.listSnapshots(vm)), kept);
    scene.expectSoundChain(vm);
    scene.start(vm);
    EXPECT_EQ(scene.engine->status(vm->id), VMStatus::running);
    scene.stop(vm, true);
    scene.expectSoundChain(vm);
}

}  // namespace
}  // namespace dorvane
