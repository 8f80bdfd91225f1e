// SPDX-License-Identifier: Apache-2.0
// The engine with the scripted stand-in for every program, on virtual time.
#pragma once

#include <gmock/gmock.h>

#include <fstream>

#include "core/ConfigHash.h"
#include "core/DorvaneError.h"
#include "qemu/QEMUEngine.h"
#include "support/EngineMachine.h"
#include "support/ErrorOf.h"
#include "support/FakeDefaultsStore.h"
#include "support/FakeProcesses.h"
#include "support/FakeQEMUInstallation.h"
#include "support/LogCapture.h"
#include "support/TestRuntime.h"
#include "support/TimePump.h"

namespace dorvane::test {

/// Leaves all as it is but what a host without OpenGL can't show.
struct FakeHostAdapter : IdentityHostAdapter {
    std::vector<std::string> adapt(std::vector<std::string> arguments,
                                   const QEMUCapabilities&) const override {
        for (auto& argument : arguments)
            if (!hasGL && argument.starts_with("virtio-gpu-gl-pci")) argument = "virtio-gpu-pci";
        return arguments;
    }

    bool hasGL = true;
};

struct QEMUEngineScene {
    explicit QEMUEngineScene(const std::function<void(QEMUEngineContext&)>& change = {}) {
        QEMUEngineContext context{.runtime = host.runtime(),
                                  .processes = processes,
                                  .defaults = defaults,
                                  .adapter = adapter,
                                  .capabilities = capabilities,
                                  .keyStore = keyStore,
                                  .guestTools = guestTools,
                                  .fileServers = fileServers,
                                  .resourceLocator =
                                      [package = QEMURuntimeResources::packaged(qemu.root())] {
                                          return QEMURuntimeResources::locate({package}, {});
                                      },
                                  .temporaryDirectory = work.path()};
        if (change) change(context);
        engine.emplace(std::move(context));
    }
    ~QEMUEngineScene() {
        host.run(engine->shutdownAll(seconds(1)));
        EXPECT_TRUE(std::filesystem::is_empty(work / "dvn")) << "a runtime directory was left";
        EXPECT_TRUE(qemu.survivors().empty());
    }

    EngineMachine machine(const std::string& name = "Machine",
                          const std::function<void(DorvaneVMConfig&)>& change = {}) const {
        EngineMachine made{.bundle = VMBundle(work / name)};
        std::filesystem::create_directory(made.bundle.directoryURL);
        auto config = windowsGuest({"virt", false, true});
        config.windowsSSH = WindowsSSHConfig{false, 0};
        if (change) change(config);
        config.write(made.bundle.configFile());
        std::ofstream(made.bundle.qcow2Disk()) << "disk";
        return made;
    }
    DorvaneVMConfig config(const EngineMachine& vm) const {
        return DorvaneVMConfig::read(vm.bundle.configFile());
    }
    TaskHandle begin(Task<void> task) {
        return spawn(host.runtime().main.executor(), std::move(task), "test");
    }
    void launch(const EngineMachine& vm) { host.run(engine->launch(vm.id, vm.bundle, vm.attachments)); }
    DorvaneError failedLaunch(const EngineMachine& vm) {
        return errorOf([&] { launch(vm); });
    }
    void stop(const EngineMachine& vm, bool force = true) {
        host.run(engine->stop(vm.id, force));
        host.driveUntil([&] { return !engine->status(vm.id); });
        EXPECT_FALSE(std::filesystem::exists(directory(vm)));
    }
    Path directory(const EngineMachine& vm) const { return work / "dvn" / vm.id.shortText(); }
    /// A suspended state as the suspending service leaves it, over what the engine itself wrote.
    void suspend(const EngineMachine& vm) {
        launch(vm);
        host.run(engine->pause(vm.id));
        host.driveUntil([&] { return engine->status(vm.id) == VMStatus::paused; });
        host.run(engine->saveState(vm.id, vm.bundle.savedState()));
        writeFileAtomically(vm.bundle.savedState(), "memory");
        writeFileAtomically(vm.bundle.savedStateHash(), configHash(config(vm)));
        stop(vm);
    }
    int launches() const { return qemu.count("qemu-system-aarch64 pid="); }

    TestRuntime host{TestRuntime::TimeMode::manual};
    TimePump pump{host.clock()};
    LogCapture log;
    FakeQEMUInstallation qemu;
    TemporaryDirectory work;
    FakeProcesses processes;
    FakeDefaultsStore defaults;
    FakeHostAdapter adapter;
    QEMUCapabilitiesCache capabilities{host.runtime()};
    GuestKeyStore keyStore{host.runtime(), work / "support"};
    GuestToolsRegistry guestTools;
    GuestFileServerRegistry fileServers;
    std::optional<QEMUEngine> engine;
};

}  // namespace dorvane::test
