// SPDX-License-Identifier: Apache-2.0
// The QEMU engine on this host, with the packaged QEMU and a folder of the test's own.
#pragma once

#include "platform/linux/LinuxProcesses.h"
#include "platform/linux/LinuxQEMUHostAdapter.h"
#include "qemu/QEMUEngine.h"
#include "qemu_tools/RealQEMU.h"
#include "support/EngineMachine.h"
#include "support/ErrorOf.h"
#include "support/FakeDefaultsStore.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"

namespace dorvane::test {

class EngineScene {
  public:
    EngineScene() {
        engine.emplace(QEMUEngineContext{.runtime = real.runtime(),
                                         .processes = processes,
                                         .defaults = defaults,
                                         .adapter = adapter,
                                         .capabilities = capabilities,
                                         .keyStore = keyStore,
                                         .guestTools = guestTools,
                                         .fileServers = fileServers,
                                         .resourceLocator = [this] { return std::optional(resources); },
                                         .temporaryDirectory = folder.path(),
                                         .environment = currentEnvironment()});
    }
    /// However a test ends, nothing of it stays.
    ~EngineScene() {
        for (const auto& id : engine->runningVMIDs()) run(engine->stop(id, true));
        run(engine->shutdownAll(seconds(1)));
        EXPECT_TRUE(std::filesystem::is_empty(folder / "dvn"));
        EXPECT_TRUE(children("").empty());
    }

    /// A Windows machine by its description, with an empty disk.
    EngineMachine machine(const std::string& name) {
        EngineMachine made{.bundle = VMBundle(folder / name)};
        std::filesystem::create_directory(made.bundle.directoryURL);
        windowsGuest({"virt-11.1", true, true}).write(made.bundle.configFile());
        imageTool({"create", "-q", "-f", "qcow2", made.bundle.qcow2Disk().string(), "64M"});
        return made;
    }
    template <typename T>
    T run(Task<T> task) {
        return real.run(std::move(task));
    }
    void launch(const EngineMachine& vm) { run(engine->launch(vm.id, vm.bundle, vm.attachments)); }
    bool waitFor(double limit, std::function<bool()> condition) {
        return run(pollUntil(real.runtime().clock, seconds(limit), milliseconds(50), std::move(condition)));
    }
    bool waitForStatus(const EngineMachine& vm, std::optional<VMStatus> status) {
        return waitFor(20, [&] { return engine->status(vm.id) == status; });
    }
    bool waitForConsole(const EngineMachine& vm, const std::string& text) {
        return waitFor(240, [&] { return console(vm).find(text) != std::string::npos; });
    }
    std::string console(const EngineMachine& vm) const {
        return std::filesystem::exists(vm.bundle.consoleLog()) ? readTextFile(vm.bundle.consoleLog())
                                                               : std::string();
    }
    /// This process's children whose name begins so.
    std::vector<int> children(const std::string& prefix) const {
        std::vector<int> found;
        const auto pids = processes.childPIDs(::getpid());
        for (const int pid : pids.value())
            if (processes.name(pid).value_or("").starts_with(prefix)) found.push_back(pid);
        return found;
    }
    Path directory(const EngineMachine& vm) const { return folder / "dvn" / vm.id.shortText(); }

    RealTime real;
    LogCapture log;
    TemporaryDirectory folder;
    QEMURuntimeResources resources = realQEMU();
    LinuxProcesses processes;
    FakeDefaultsStore defaults;
    LinuxQEMUHostAdapter adapter{LinuxQEMUHostFacts::probe(currentEnvironment())};
    QEMUCapabilitiesCache capabilities{real.runtime()};
    GuestKeyStore keyStore{real.runtime(), folder / "support"};
    GuestToolsRegistry guestTools;
    GuestFileServerRegistry fileServers;
    std::optional<QEMUEngine> engine;
};

}  // namespace dorvane::test
