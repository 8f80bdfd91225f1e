// SPDX-License-Identifier: Apache-2.0
#include "qemu/QEMUEngineScene.h"

#include <fstream>

#include "core/ConfigHash.h"

namespace dorvane::test {

QEMUEngineScene::QEMUEngineScene(std::function<void(QEMUEngineContext&)> change) {
    QEMUEngineContext context{.runtime = host.runtime(),
                              .processes = processes,
                              .defaults = defaults,
                              .adapter = adapter,
                              .capabilities = capabilities,
                              .keyStore = keyStore,
                              .guestTools = guestTools,
                              .fileServers = fileServers,
                              .resourceLocator = [this] { return locate(); },
                              .temporaryDirectory = work.path()};
    if (change) change(context);
    engine.emplace(std::move(context));
}

QEMUEngineScene::~QEMUEngineScene() {
    host.run(engine->shutdownAll(seconds(1)));
    EXPECT_TRUE(std::filesystem::is_empty(work / "dvn")) << "a runtime directory was left";
    EXPECT_TRUE(qemu.survivors().empty());
}

std::optional<QEMURuntimeResources> QEMUEngineScene::locate() const {
    return QEMURuntimeResources::locate({QEMURuntimeResources::packaged(qemu.root())}, {});
}

EngineMachine QEMUEngineScene::machine(const std::string& name,
                                       const std::function<void(DorvaneVMConfig&)>& change) const {
    EngineMachine made{.bundle = VMBundle(work / name)};
    std::filesystem::create_directory(made.bundle.directoryURL);
    DorvaneVMConfig config;
    config.cpuCount = 2;
    config.memoryBytes = 1ULL << 30;
    config.macAddress = "02:00:00:00:00:01";
    config.display = {1280, 800, 96};
    config.windowsPlatform = WindowsPlatformIdentity{"virt", false, true};
    config.windowsSSH = WindowsSSHConfig{false, 0};
    if (change) change(config);
    config.write(made.bundle.configFile());
    std::ofstream(made.bundle.qcow2Disk()) << "disk";
    return made;
}

void QEMUEngineScene::launch(const EngineMachine& vm) {
    host.run(engine->launch(vm.id, vm.bundle, vm.attachments));
}

DorvaneError QEMUEngineScene::failedLaunch(const EngineMachine& vm) {
    return errorOf([&] { launch(vm); });
}

void QEMUEngineScene::stop(const EngineMachine& vm, bool force) {
    host.run(engine->stop(vm.id, force));
    waitUntilGone(vm);
}

void QEMUEngineScene::waitUntilGone(const EngineMachine& vm) {
    host.driveUntil([&] { return !engine->status(vm.id); });
    EXPECT_FALSE(std::filesystem::exists(directory(vm)));
}

Path QEMUEngineScene::directory(const EngineMachine& vm) const { return work / "dvn" / vm.id.shortText(); }

void QEMUEngineScene::suspend(const EngineMachine& vm) {
    launch(vm);
    host.run(engine->pause(vm.id));
    host.driveUntil([&] { return engine->status(vm.id) == VMStatus::paused; });
    host.run(engine->saveState(vm.id, vm.bundle.savedState()));
    writeFileAtomically(vm.bundle.savedState(), "memory");
    writeFileAtomically(vm.bundle.savedStateHash(),
                        configHash(DorvaneVMConfig::read(vm.bundle.configFile())));
    stop(vm);
}

int QEMUEngineScene::launches() const { return qemu.count("qemu-system-aarch64 pid="); }

}  // namespace dorvane::test
