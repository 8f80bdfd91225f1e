// SPDX-License-Identifier: Apache-2.0
#include "qemu/QEMUSupervisorScene.h"

namespace dorvane {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using SupervisorScene = test::QEMUSupervisorScene;
using Words = SupervisorScene::Words;
using Case = DorvaneError::Case;

Task<std::vector<VMStatus>> collect(AsyncStream<VMStatus> stream) {
    std::vector<VMStatus> seen;
    for (;;) {
        const auto status = co_await stream.next();
        if (!status) break;
        seen.push_back(*status);
    }
    co_return seen;
}

TEST(QEMUProcessSupervisor, RunsPausesAndStopsOnRequest) {
    SupervisorScene scene;
    scene.useTPM();
    auto stream = scene.supervisor->statusUpdates();
    scene.start();
    EXPECT_EQ(scene.supervisor->status(), VMStatus::running);
    EXPECT_THAT(
        scene.qemu.log(),
        HasSubstr(" socket --tpm2 --tpmstate dir=" + (scene.bundle.directoryURL / "tpm").string() +
                  " --ctrl type=unixio,path=" + (scene.directory / "t.sock").string() + ",terminate\n"));
    scene.pause();
    scene.host.run(scene.supervisor->resume());
    scene.host.run(scene.supervisor->sendKey("spc"));
    EXPECT_EQ(scene.qemu.count(R"("down":true,"key":{"data":"spc","type":"qcode"})"), 1);
    EXPECT_EQ(scene.qemu.count(R"("down":false,"key":{"data":"spc","type":"qcode"})"), 1);
    scene.stop(false, 30);
    EXPECT_TRUE(scene.supervisor->isTerminated());
    EXPECT_EQ(scene.supervisor->stopReason(), VMStopReason::requested());
    scene.waitForEnd();
    EXPECT_THAT(scene.host.run(collect(std::move(stream))),
                ElementsAre(VMStatus::stopped, VMStatus::starting, VMStatus::running, VMStatus::paused,
                            VMStatus::running, VMStatus::stopped));
    EXPECT_THAT(scene.host.run(collect(scene.supervisor->statusUpdates())), ElementsAre(VMStatus::stopped));
    scene.stop();
    EXPECT_EQ(scene.supervisor->stopReason(), VMStopReason::requested())
        << "a stop after the end does nothing";
    EXPECT_THROW(scene.host.run(scene.supervisor->pause()), DorvaneError);
    EXPECT_EQ(scene.failedStart().which(), Case::vmAlreadyRunning) << "used once";
}

TEST(QEMUProcessSupervisor, AChildThatCannotStartLeavesNothingBehind) {
    const std::pair<Words, std::string> table[] = {
        {{"exit=1", "stderr=qemu-system-aarch64: -foo: invalid option"},
         "The virtual machine exited during startup with status 1.\n-foo: invalid option"},
        {{"exit=0"}, "The virtual machine exited during startup with status 0."},
        {{"signal=9"}, "The virtual machine was terminated by signal 9 during startup."},
        {{"flood=300000", "exit=2"}, "The virtual machine exited during startup with status 2.\nxxx"},
        {{"orphan", "exit=3", "stderr=gone"},
         "The virtual machine exited during startup with status 3.\ngone"},
        {{"noSocket"}, "Could not connect to the VM control socket at "},
        {{"noSocket", "stubborn"}, "Could not connect to the VM control socket at "},
        {{"mute"}, "The VM did not respond to the control command \"qmp_capabilities\" in time."},
        {{"refuse=qmp_capabilities"}, "no qmp_capabilities"},
    };
    for (const auto& [words, reason] : table) {
        SCOPED_TRACE(testing::PrintToString(words));
        SupervisorScene scene(words);
        scene.useTPM();
        const auto error = scene.failedStart();
        EXPECT_EQ(error.which(), Case::vmStartupFailed);
        EXPECT_THAT(error.text(), testing::StartsWith(reason));
        scene.waitForEnd();
        const bool wasKilled = scene.log.contains("启动失败后 5 秒仍未退出，发送 SIGKILL");
        EXPECT_TRUE(wasKilled || words.back() != "stubborn");
    }
}

TEST(QEMUProcessSupervisor, APathThatIsTooLongIsNotTheChildsFault) {
    SupervisorScene scene;
    scene.launch.paths.qmpSocket = scene.directory / std::string(120, 'q');
    EXPECT_THAT(scene.failedStart().text(), HasSubstr("limit 104"));
    scene.waitForEnd();
    SupervisorScene missing;
    missing.launch.paths.executable = "/nowhere/qemu";
    EXPECT_THAT(missing.failedStart().text(), HasSubstr("No such file"));
    EXPECT_TRUE(missing.supervisor->isTerminated());
}

TEST(QEMUProcessSupervisor, TellsWhyTheMachineWentDown) {
    const std::pair<Words, VMStopReason> table[] = {
        {{"powersOff"}, VMStopReason::guestInitiated()},
        {{"resets"}, VMStopReason::failure("QEMU reported an unexpected shutdown")},
        {{"thenExit=1"}, VMStopReason::failure("The virtual machine exited with status 1.")},
        {{"thenExit=1", "stderr=qemu-system-aarch64: disk full"}, VMStopReason::failure("disk full")},
        {{"thenExit=0"}, VMStopReason::guestInitiated()},
    };
    for (const auto& [words, reason] : table) {
        SCOPED_TRACE(testing::PrintToString(words));
        SupervisorScene scene(words);
        // The child may be gone before the start has seen it run; why it went is known either way.
        try {
            scene.start();
        } catch (const DorvaneError&) {
        }
        scene.waitForEnd();
        EXPECT_EQ(scene.supervisor->stopReason(), reason) << describe(*scene.supervisor->stopReason());
    }
}

TEST(QEMUProcessSupervisor, APanickedGuestStaysForItsOwner) {
    SupervisorScene scene({"panics"});
    scene.start();
    scene.host.driveUntil([&] { return scene.supervisor->status() == VMStatus::error; });
    EXPECT_EQ(scene.supervisor->stopReason(), VMStopReason::failure("The guest operating system crashed."));
    scene.kill();
    EXPECT_EQ(scene.supervisor->stopReason(), VMStopReason::forced());
}

TEST(QEMUProcessSupervisor, ADeafGuestIsForcedAndAStubbornOneKilled) {
    struct Row {
        std::string word;
        bool force, isIgnored;
        double limit = 1;
    };
    const Row table[] = {{"deaf", false, true},
                         {"stubborn", false, true},
                         {"stubborn", true, false},
                         {"refuse=system_powerdown", false, false, 30}};
    for (const auto& [word, force, isIgnored, limit] : table) {
        SCOPED_TRACE(word);
        SupervisorScene scene({word});
        scene.start();
        scene.stop(force, limit);
        scene.waitForEnd();
        EXPECT_EQ(scene.supervisor->stopReason(), VMStopReason::forced());
        EXPECT_EQ(scene.log.contains("忽略了优雅关机请求,强制停止"), isIgnored);
        EXPECT_EQ(scene.log.contains("在 SIGTERM 后 5 秒仍未退出,发送 SIGKILL"), word == "stubborn");
    }
}

TEST(QEMUProcessSupervisor, LivesOnWithoutItsConnection) {
    SupervisorScene scene({"hangup", "garbage"});
    scene.start();
    scene.host.driveUntil([&] { return scene.log.contains("的 QMP 连接已断开"); });
    EXPECT_EQ(scene.supervisor->status(), VMStatus::running);
    EXPECT_THROW(scene.host.run(scene.supervisor->pause()), QMPConnection::ConnectionError);
    scene.stop(false, 30);
    scene.waitForEnd();
}

TEST(QEMUProcessSupervisor, AStopDuringTheStartWins) {
    for (const bool hasChild : {false, true}) {
        SupervisorScene scene({"noSocket"});
        if (!hasChild) scene.useTPM({"noSocket"});
        const auto starting = scene.begin();
        scene.driveUntilLogged(hasChild ? "qemu-system-aarch64 pid=" : "swtpm pid=");
        scene.stop(false, 30);
        EXPECT_EQ(scene.supervisor->stopReason(), VMStopReason::forced());
        EXPECT_TRUE(!hasChild || scene.supervisor->isTerminated());
        scene.host.driveUntil([&] { return starting.isFinished(); });
        const auto error = test::errorOf([&] { scene.outcome.take(); });
        EXPECT_EQ(error.which(), Case::vmStartupFailed);
        EXPECT_TRUE(hasChild || error.text() == "The VM was stopped while it was starting.") << error.text();
        scene.waitForEnd();
        EXPECT_EQ(scene.qemu.count("qemu-system-aarch64 pid="), hasChild ? 1 : 0);
    }
}

TEST(QEMUProcessSupervisor, ACancelledStartCleansUp) {
    SupervisorScene scene({"noSocket"});
    scene.useTPM();
    auto starting = scene.begin();
    scene.driveUntilLogged("qemu-system-aarch64 pid=");
    starting.cancel();
    scene.host.driveUntil([&] { return starting.isFinished(); });
    scene.waitForEnd();
}

TEST(QEMUProcessSupervisor, AVirtualTPMThatFailsStopsTheStart) {
    for (const auto* word : {"exit=1", "noSocket"}) {
        SupervisorScene scene;
        scene.useTPM({word});
        EXPECT_EQ(scene.failedStart().text(), "The virtual TPM did not start. Try starting the VM again.");
        scene.waitForEnd();
    }
    SupervisorScene missing;
    missing.launch.paths.swtpmSocket = missing.directory / "t.sock";
    EXPECT_EQ(missing.failedStart().text(), "Virtual TPM was requested but the swtpm binary is missing.");
    EXPECT_TRUE(missing.supervisor->isTerminated());
}

TEST(QEMUProcessSupervisor, AnOldVirtualTPMIsAskedInItsOwnWords) {
    SupervisorScene scene;
    scene.useTPM({"old"});
    scene.start();
    EXPECT_EQ(scene.qemu.count("t.sock,terminate\n"), 1);
    EXPECT_EQ(scene.qemu.count("t.sock --terminate\n"), 1);
    scene.kill();
}

TEST(QEMUProcessSupervisor, ANewTPMIsSetUpOnceAndAFailureOfThatIsNone) {
    for (const bool fails : {false, true}) {
        SupervisorScene scene;
        scene.useTPM();
        scene.qemu.add("swtpm_setup");
        if (fails) scene.qemu.script("swtpm_setup", {"fails"});
        for (const auto* reason : {"it is new", "the state is there"}) {
            scene.start();
            EXPECT_EQ(scene.qemu.count("--pcr-banks sha256"), 1) << reason;
            EXPECT_EQ(scene.log.contains("PCR banks could not be set up"), fails);
            scene.kill();
            scene.supervisor = scene.makeSupervisor();
        }
    }
}

TEST(QEMUProcessSupervisor, AStateFileIsWholeOrGone) {
    const std::pair<std::string, std::string> table[] = {
        {"completed", ""},
        {"fails", "bad stream"},
        {"cancelled", "Saving the VM state failed."},
        {"dies", "The VM control connection was closed."},
        {"old",
         "The installed QEMU is too old to save a running machine (State blocked by non-migratable device "
         "'nvme')."}};
    for (const auto& [outcome, failure] : table) {
        SCOPED_TRACE(outcome);
        SupervisorScene scene({"migrate=" + outcome});
        const auto file = scene.directory / "state";
        scene.supervisor->setSuspendFingerprint({"d", "e"});
        scene.start();
        EXPECT_THROW(scene.save(), DorvaneError) << "not paused";
        scene.pause();
        writeFileAtomically(file, "from the child");
        if (failure.empty()) {
            scene.save();
            EXPECT_EQ(readTextFile(scene.directory / "state.devices"), "devices=d\nengine=e\n");
        } else {
            const auto error = test::errorOf([&] { scene.save(); });
            EXPECT_EQ(error.which(), Case::vmSnapshotFailed);
            EXPECT_EQ(error.text(), failure);
            EXPECT_FALSE(std::filesystem::exists(file));
        }
        scene.kill();
    }
}

TEST(QEMUProcessSupervisor, AStateThatFailsBehindItsMigrationIsLeftBeforeTheNextOne) {
    for (const bool isSidecarInTheWay : {true, false}) {
        SupervisorScene scene;
        scene.supervisor->setSuspendFingerprint({"d", "e"});
        scene.start();
        scene.pause();
        const auto sidecar = scene.directory / "state.devices";
        if (isSidecarInTheWay) std::filesystem::create_directories(sidecar / "occupied");
        // The short limit passes in the very moment in which the migration ends.
        const auto limit = isSidecarInTheWay ? seconds(900) : seconds(0.1);
        EXPECT_EQ(test::errorOf([&] { scene.save(limit); }).which(), Case::vmSnapshotFailed);
        std::filesystem::remove_all(sidecar);
        EXPECT_EQ(scene.qemu.count(R"("execute":"cont")"), 0);
        scene.save();
        EXPECT_EQ(scene.qemu.count(R"("execute":"cont")"), 1) << "QEMU has handed its disks over";
        scene.kill();
    }
}

TEST(QEMUProcessSupervisor, AGuestThatCouldNotBePausedAgainIsToldOnceMore) {
    // The first "stop" is the pause, the second comes behind "cont".
    SupervisorScene scene({"refuseSecond=stop"});
    scene.start();
    scene.pause();
    scene.save();
    EXPECT_EQ(test::errorOf([&] { scene.save(); }).text(), "no stop");
    EXPECT_EQ(scene.qemu.count(R"("execute":"stop")"), 3);
    scene.waitUntilPaused();
    scene.save();
    scene.kill();
}

TEST(QEMUProcessSupervisor, ARestoreTellsABadStateFromAnythingElse) {
    const std::tuple<std::string, bool, bool> table[] = {
        {"migrate=completed", true, false}, {"migrate=fails", false, true},
        {"migrate=dies", false, true},      {"refuse=migrate-incoming", false, false},
        {"refuse=cont", false, false},
    };
    for (const auto& [word, succeeds, rejects] : table) {
        SCOPED_TRACE(word);
        SupervisorScene scene({word});
        scene.launch.restoringFrom = scene.directory / "state";
        if (succeeds)
            scene.start();
        else
            EXPECT_EQ(scene.failedStart().which(), Case::vmStartupFailed);
        EXPECT_EQ(scene.supervisor->restoreRejectedState(), rejects);
        EXPECT_EQ(scene.qemu.count(R"("transport":"file")"), 1);
        if (succeeds) scene.stop();
        scene.waitForEnd();
    }
    SupervisorScene stopped({"migrate=never"});
    stopped.launch.restoringFrom = stopped.directory / "state";
    const auto starting = stopped.begin();
    stopped.driveUntilLogged("query-migrate");
    stopped.stop();
    stopped.host.driveUntil([&] { return starting.isFinished(); });
    EXPECT_FALSE(stopped.supervisor->restoreRejectedState()) << "a stop says nothing about the file";
    stopped.waitForEnd();
}

TEST(QEMUProcessSupervisor, AsksTheProbeOnlyWithARenderServer) {
    using Status = AcceleratedDriverStatus;
    const auto statusAfter = [](SupervisorScene& scene, double time, std::optional<int> contexts) {
        return scene.supervisor->acceleratedDriverStatus(scene.host.clock().now() + seconds(time),
                                                         [&](int, const Path&) { return contexts; });
    };
    SupervisorScene plain;
    plain.start();
    EXPECT_FALSE(statusAfter(plain, 0, 1));
    plain.kill();

    SupervisorScene scene;
    scene.launch.paths.renderServer = "/render";
    scene.start();
    EXPECT_EQ(statusAfter(scene, 0, std::nullopt), Status::unknown);
    EXPECT_EQ(statusAfter(scene, 0, 0), Status::unknown);
    EXPECT_EQ(statusAfter(scene, 90, 0), Status::notInUse);
    EXPECT_EQ(statusAfter(scene, 90, 2), Status::active);
    scene.kill();
    EXPECT_FALSE(statusAfter(scene, 0, 1));
}

TEST(QEMUProcessSupervisor, ADroppedOneEndsItsChild) {
    SupervisorScene scene;
    scene.start();
    scene.supervisor.reset();
    scene.host.driveUntil([&] { return scene.qemu.survivors().empty(); });
}

}  // namespace
}  // namespace dorvane
