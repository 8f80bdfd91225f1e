// SPDX-License-Identifier: Apache-2.0
// The supervisor with a real child that misbehaves as told, on virtual time.
#include "qemu/QEMUProcessSupervisor.h"

#include <gmock/gmock.h>

#include "core/DorvaneError.h"
#include "support/ErrorOf.h"
#include "support/FakeProcesses.h"
#include "support/FakeQEMUInstallation.h"
#include "support/LogCapture.h"
#include "support/TestRuntime.h"
#include "support/TimePump.h"

namespace dorvane {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using Words = std::vector<std::string>;
using Case = DorvaneError::Case;

struct SupervisorScene {
    explicit SupervisorScene(const Words& words = {}) {
        std::filesystem::create_directory(bundle.directoryURL);
        qemu.script("qemu-system-aarch64", words);
        launch.paths.executable = qemu.emulator();
        launch.paths.qmpSocket = directory / "q.sock";
        launch.arguments = {"-qmp", "unix:" + launch.paths.qmpSocket.string() + ",server=on,wait=off"};
    }

    void useTPM(const Words& words = {}) {
        qemu.script("swtpm", words);
        launch.paths.swtpmExecutable = qemu.helpers() / "swtpm";
        launch.paths.swtpmSocket = directory / "t.sock";
    }
    void start() { host.run(supervisor->start(launch)); }
    /// The error of a start that must fail.
    DorvaneError failedStart() {
        return test::errorOf([this] { start(); });
    }
    TaskHandle begin(Task<void> task) {
        return spawn(host.runtime().main.executor(), std::move(task), "test");
    }
    void waitForEnd() {
        host.driveUntil([&] { return supervisor->isTerminated(); });
        expectNothingLeft();
    }
    void expectNothingLeft() {
        EXPECT_EQ(supervisor->status(), VMStatus::stopped);
        host.driveUntil([&] { return qemu.survivors().empty(); });
    }
    void driveUntilLogged(const std::string& text) {
        host.driveUntil([&] { return qemu.count(text) > 0; });
    }

    test::TestRuntime host{test::TestRuntime::TimeMode::manual};
    test::TimePump pump{host.clock()};
    test::LogCapture log;
    test::FakeQEMUInstallation qemu;
    test::TemporaryDirectory directory;
    test::FakeProcesses processes;
    VMBundle bundle{directory / "Machine"};
    QEMULaunch launch;
    std::shared_ptr<QEMUProcessSupervisor> supervisor = std::make_shared<QEMUProcessSupervisor>(
        host.runtime(), processes, UUID::random(), DorvaneVMConfig{}, bundle);
};

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
    EXPECT_THAT(scene.qemu.log(), HasSubstr("swtpm pid="));
    EXPECT_THAT(
        scene.qemu.log(),
        HasSubstr(" socket --tpm2 --tpmstate dir=" + (scene.bundle.directoryURL / "tpm").string() +
                  " --ctrl type=unixio,path=" + (scene.directory / "t.sock").string() + ",terminate\n"));
    scene.host.run(scene.supervisor->pause());
    scene.host.driveUntil([&] { return scene.supervisor->status() == VMStatus::paused; });
    scene.host.run(scene.supervisor->resume());
    scene.host.run(scene.supervisor->sendKey("spc"));
    EXPECT_EQ(scene.qemu.count(R"("down":true,"key":{"data":"spc","type":"qcode"})"), 1);
    EXPECT_EQ(scene.qemu.count(R"("down":false,"key":{"data":"spc","type":"qcode"})"), 1);
    scene.host.run(scene.supervisor->stop(false, seconds(30)));
    EXPECT_TRUE(scene.supervisor->isTerminated());
    EXPECT_EQ(scene.supervisor->stopReason(), VMStopReason::requested());
    scene.expectNothingLeft();
    EXPECT_THAT(scene.host.run(collect(std::move(stream))),
                ElementsAre(VMStatus::stopped, VMStatus::starting, VMStatus::running, VMStatus::paused,
                            VMStatus::running, VMStatus::stopped));
    EXPECT_THAT(scene.host.run(collect(scene.supervisor->statusUpdates())), ElementsAre(VMStatus::stopped));
    scene.host.run(scene.supervisor->stop(true, seconds(30)));
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
        {{"mute"}, "The VM did not respond to the control command \"qmp_capabilities\" in time."},
        {{"refuse=qmp_capabilities"}, "no qmp_capabilities"},
    };
    for (const auto& [words, reason] : table) {
        SCOPED_TRACE(words.front());
        SupervisorScene scene(words);
        scene.useTPM();
        const auto error = scene.failedStart();
        EXPECT_EQ(error.which(), Case::vmStartupFailed);
        EXPECT_THAT(error.text(), testing::StartsWith(reason));
        scene.waitForEnd();
    }
}

TEST(QEMUProcessSupervisor, AStubbornChildIsKilledAfterAFailedStart) {
    SupervisorScene scene({"noSocket", "stubborn"});
    EXPECT_EQ(scene.failedStart().which(), Case::vmStartupFailed);
    scene.waitForEnd();
    EXPECT_TRUE(scene.log.contains("启动失败后 5 秒仍未退出，发送 SIGKILL"));
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
        SCOPED_TRACE(words.front());
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
    scene.host.run(scene.supervisor->stop(true, seconds(1)));
    EXPECT_EQ(scene.supervisor->stopReason(), VMStopReason::forced());
    scene.expectNothingLeft();
}

TEST(QEMUProcessSupervisor, ADeafGuestIsForcedAndAStubbornOneKilled) {
    for (const auto& [word, force] : {std::pair("deaf", false), {"stubborn", false}, {"stubborn", true}}) {
        SCOPED_TRACE(word);
        SupervisorScene scene({word});
        scene.start();
        scene.host.run(scene.supervisor->stop(force, seconds(1)));
        scene.waitForEnd();
        EXPECT_EQ(scene.supervisor->stopReason(), VMStopReason::forced());
        EXPECT_EQ(scene.log.contains("忽略了优雅关机请求,强制停止"), !force);
        EXPECT_EQ(scene.log.contains("在 SIGTERM 后 5 秒仍未退出,发送 SIGKILL"),
                  std::string(word) == "stubborn");
    }
    SupervisorScene refusing({"refuse=system_powerdown"});
    refusing.start();
    refusing.host.run(refusing.supervisor->stop(false, seconds(30)));
    refusing.waitForEnd();
    EXPECT_EQ(refusing.supervisor->stopReason(), VMStopReason::forced());
}

TEST(QEMUProcessSupervisor, LivesOnWithoutItsConnection) {
    SupervisorScene scene({"hangup", "garbage"});
    scene.start();
    scene.host.driveUntil([&] { return scene.log.contains("的 QMP 连接已断开"); });
    EXPECT_EQ(scene.supervisor->status(), VMStatus::running);
    EXPECT_THROW(scene.host.run(scene.supervisor->pause()), QMPConnection::ConnectionError);
    scene.host.run(scene.supervisor->stop(false, seconds(30)));
    scene.waitForEnd();
}

TEST(QEMUProcessSupervisor, AStopDuringTheStartWins) {
    SupervisorScene tpm;
    tpm.useTPM({"noSocket"});
    auto starting = tpm.begin([](SupervisorScene& scene) -> Task<void> {
        try {
            co_await scene.supervisor->start(scene.launch);
            ADD_FAILURE() << "the start succeeded";
        } catch (const DorvaneError& error) {
            EXPECT_EQ(error.text(), "The VM was stopped while it was starting.");
        }
    }(tpm));
    tpm.driveUntilLogged("swtpm pid=");
    tpm.host.run(tpm.supervisor->stop(false, seconds(30)));
    tpm.host.driveUntil([&] { return starting.isFinished(); });
    tpm.waitForEnd();
    EXPECT_EQ(tpm.qemu.count("qemu-system-aarch64 pid="), 0);

    SupervisorScene child({"noSocket"});
    auto connecting = child.begin([](SupervisorScene& scene) -> Task<void> {
        EXPECT_THROW(co_await scene.supervisor->start(scene.launch), DorvaneError);
    }(child));
    child.driveUntilLogged("qemu-system-aarch64 pid=");
    child.host.run(child.supervisor->stop(false, seconds(30)));
    EXPECT_TRUE(child.supervisor->isTerminated());
    EXPECT_EQ(child.supervisor->stopReason(), VMStopReason::forced());
    child.host.driveUntil([&] { return connecting.isFinished(); });
    child.waitForEnd();
}

TEST(QEMUProcessSupervisor, ACancelledStartCleansUp) {
    SupervisorScene scene({"noSocket"});
    scene.useTPM();
    auto starting = scene.begin(scene.supervisor->start(scene.launch));
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

TEST(QEMUProcessSupervisor, ANewTPMIsSetUpOnceAndAFailureOfThatIsNone) {
    for (const bool fails : {false, true}) {
        SupervisorScene scene;
        scene.useTPM();
        scene.qemu.add("swtpm_setup");
        if (fails) scene.qemu.script("swtpm_setup", {"fails"});
        scene.start();
        EXPECT_EQ(scene.qemu.count("--pcr-banks sha256"), 1);
        EXPECT_EQ(scene.log.contains("PCR banks could not be set up"), fails);
        scene.host.run(scene.supervisor->stop(true, seconds(1)));
        auto again = std::make_shared<QEMUProcessSupervisor>(scene.host.runtime(), scene.processes,
                                                             UUID::random(), DorvaneVMConfig{}, scene.bundle);
        scene.host.run(again->start(scene.launch));
        EXPECT_EQ(scene.qemu.count("--pcr-banks sha256"), 1) << "the state is there";
        scene.host.run(again->stop(true, seconds(1)));
        scene.expectNothingLeft();
    }
}

TEST(QEMUProcessSupervisor, AStateFileIsWholeOrGone) {
    const std::pair<std::string, std::string> table[] = {{"completed", ""},
                                                         {"fails", "bad stream"},
                                                         {"cancelled", "Saving the VM state failed."},
                                                         {"dies", "The VM control connection was closed."}};
    for (const auto& [outcome, failure] : table) {
        SCOPED_TRACE(outcome);
        SupervisorScene scene({"migrate=" + outcome});
        const auto file = scene.directory / "state";
        scene.supervisor->setSuspendFingerprint({"d", "e"});
        scene.start();
        EXPECT_THROW(scene.host.run(scene.supervisor->saveState(file, seconds(900))), DorvaneError)
            << "not paused";
        scene.host.run(scene.supervisor->pause());
        scene.host.driveUntil([&] { return scene.supervisor->status() == VMStatus::paused; });
        writeFileAtomically(file, "from the child");
        std::string reason;
        try {
            scene.host.run(scene.supervisor->saveState(file, seconds(900)));
            EXPECT_EQ(readTextFile(scene.directory / "state.devices"), "devices=d\nengine=e\n");
        } catch (const DorvaneError& error) {
            EXPECT_EQ(error.which(), Case::vmSnapshotFailed);
            reason = error.text();
            EXPECT_FALSE(std::filesystem::exists(file));
        }
        EXPECT_EQ(reason, failure);
        if (!scene.supervisor->isTerminated()) scene.host.run(scene.supervisor->stop(true, seconds(1)));
        scene.waitForEnd();
    }
}

TEST(QEMUProcessSupervisor, AStateThatFailsBehindItsMigrationIsLeftBeforeTheNextOne) {
    for (const bool isSidecarInTheWay : {true, false}) {
        SupervisorScene scene;
        scene.supervisor->setSuspendFingerprint({"d", "e"});
        scene.start();
        scene.host.run(scene.supervisor->pause());
        scene.host.driveUntil([&] { return scene.supervisor->status() == VMStatus::paused; });
        const auto sidecar = scene.directory / "state.devices";
        if (isSidecarInTheWay) std::filesystem::create_directories(sidecar / "occupied");
        // The short limit passes in the very moment in which the migration ends.
        const auto limit = isSidecarInTheWay ? seconds(900) : seconds(0.1);
        const auto save = [&](Duration timeout) {
            scene.host.run(scene.supervisor->saveState(scene.directory / "state", timeout));
        };
        EXPECT_EQ(test::errorOf([&] { save(limit); }).which(), Case::vmSnapshotFailed);
        std::filesystem::remove_all(sidecar);
        EXPECT_EQ(scene.qemu.count(R"("execute":"cont")"), 0);
        save(seconds(900));
        EXPECT_EQ(scene.qemu.count(R"("execute":"cont")"), 1) << "QEMU has handed its disks over";
        scene.host.run(scene.supervisor->stop(true, seconds(1)));
        scene.waitForEnd();
    }
}

TEST(QEMUProcessSupervisor, AGuestThatCouldNotBePausedAgainIsToldOnceMore) {
    // The first "stop" is the pause, the second comes behind "cont".
    SupervisorScene scene({"refuseSecond=stop"});
    scene.start();
    scene.host.run(scene.supervisor->pause());
    const auto isPaused = [&] { return scene.supervisor->status() == VMStatus::paused; };
    const auto save = [&] {
        scene.host.run(scene.supervisor->saveState(scene.directory / "state", seconds(900)));
    };
    scene.host.driveUntil(isPaused);
    save();
    EXPECT_EQ(test::errorOf(save).text(), "no stop");
    EXPECT_EQ(scene.qemu.count(R"("execute":"stop")"), 3);
    scene.host.driveUntil(isPaused);
    save();
    scene.host.run(scene.supervisor->stop(true, seconds(1)));
    scene.waitForEnd();
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
        if (succeeds) scene.host.run(scene.supervisor->stop(true, seconds(1)));
        scene.waitForEnd();
    }
    SupervisorScene stopped({"migrate=never"});
    stopped.launch.restoringFrom = stopped.directory / "state";
    auto starting = stopped.begin(stopped.supervisor->start(stopped.launch));
    stopped.driveUntilLogged("query-migrate");
    stopped.host.run(stopped.supervisor->stop(true, seconds(1)));
    stopped.host.driveUntil([&] { return starting.isFinished(); });
    EXPECT_FALSE(stopped.supervisor->restoreRejectedState()) << "a stop says nothing about the file";
    stopped.waitForEnd();
}

TEST(QEMUProcessSupervisor, AsksTheProbeOnlyWithARenderServer) {
    SupervisorScene plain;
    plain.start();
    const auto contexts = [](std::optional<int> count) {
        return [count](int, const Path&) { return count; };
    };
    const auto later = [](SupervisorScene& scene, double time) {
        return scene.host.clock().now() + seconds(time);
    };
    EXPECT_FALSE(plain.supervisor->acceleratedDriverStatus(later(plain, 0), contexts(1)));
    plain.host.run(plain.supervisor->stop(true, seconds(1)));
    plain.waitForEnd();

    SupervisorScene scene;
    scene.launch.paths.renderServer = "/render";
    scene.start();
    using Status = AcceleratedDriverStatus;
    EXPECT_EQ(scene.supervisor->acceleratedDriverStatus(later(scene, 0), contexts(std::nullopt)),
              Status::unknown);
    EXPECT_EQ(scene.supervisor->acceleratedDriverStatus(later(scene, 0), contexts(0)), Status::unknown);
    EXPECT_EQ(scene.supervisor->acceleratedDriverStatus(later(scene, 90), contexts(0)), Status::notInUse);
    EXPECT_EQ(scene.supervisor->acceleratedDriverStatus(later(scene, 90), contexts(2)), Status::active);
    scene.host.run(scene.supervisor->stop(true, seconds(1)));
    EXPECT_FALSE(scene.supervisor->acceleratedDriverStatus(later(scene, 0), contexts(1)));
    scene.waitForEnd();
}

TEST(QEMUProcessSupervisor, ADroppedOneEndsItsChild) {
    SupervisorScene scene;
    scene.start();
    scene.supervisor.reset();
    scene.host.driveUntil([&] { return scene.qemu.survivors().empty(); });
}

}  // namespace
}  // namespace dorvane
