// SPDX-License-Identifier: Apache-2.0
// The supervisor with a real child that misbehaves as told, on virtual time.
#pragma once

#include <gmock/gmock.h>

#include "core/DorvaneError.h"
#include "qemu/QEMUProcessSupervisor.h"
#include "support/ErrorOf.h"
#include "support/FakeProcesses.h"
#include "support/FakeQEMUInstallation.h"
#include "support/LogCapture.h"
#include "support/TestRuntime.h"
#include "support/TimePump.h"

namespace dorvane::test {

struct QEMUSupervisorScene {
    using Words = std::vector<std::string>;

    explicit QEMUSupervisorScene(const Words& words = {}) {
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
    DorvaneError failedStart() {
        return errorOf([this] { start(); });
    }
    /// A start whose outcome the test looks at later.
    TaskHandle begin() {
        return spawn(host.runtime().main.executor(), deliver(supervisor->start(launch), outcome), "test");
    }
    void waitUntilPaused() {
        host.driveUntil([&] { return supervisor->status() == VMStatus::paused; });
    }
    void pause() {
        host.run(supervisor->pause());
        waitUntilPaused();
    }
    void save(Duration limit = seconds(900)) { host.run(supervisor->saveState(directory / "state", limit)); }
    void stop(bool force = true, double limit = 1) { host.run(supervisor->stop(force, seconds(limit))); }
    void waitForEnd() {
        host.driveUntil([&] { return supervisor->isTerminated(); });
        EXPECT_EQ(supervisor->status(), VMStatus::stopped);
        host.driveUntil([&] { return qemu.survivors().empty(); });
    }
    void kill() {
        stop();
        waitForEnd();
    }
    void driveUntilLogged(const std::string& text) {
        host.driveUntil([&] { return qemu.count(text) > 0; });
    }
    std::shared_ptr<QEMUProcessSupervisor> makeSupervisor() {
        return std::make_shared<QEMUProcessSupervisor>(host.runtime(), processes, UUID::random(),
                                                       DorvaneVMConfig{}, bundle);
    }

    TestRuntime host{TestRuntime::TimeMode::manual};
    TimePump pump{host.clock()};
    LogCapture log;
    FakeQEMUInstallation qemu;
    TemporaryDirectory directory;
    FakeProcesses processes;
    VMBundle bundle{directory / "Machine"};
    QEMULaunch launch;
    OneShot<void> outcome;
    std::shared_ptr<QEMUProcessSupervisor> supervisor = makeSupervisor();
};

}  // namespace dorvane::test
