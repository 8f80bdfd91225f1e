// SPDX-License-Identifier: Apache-2.0
#include "core/VMServiceHarness.h"

#include <fstream>

namespace dorvane::test {

std::map<std::string, std::string> contentsOf(const Path& folder) {
    std::map<std::string, std::string> contents;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
        auto& content = contents[entry.path().lexically_relative(folder).string()];
        if (!entry.is_regular_file()) continue;
        content = entry.file_size() > 65536 ? std::to_string(entry.file_size()) : readTextFile(entry.path());
    }
    return contents;
}

FakeScopedResources::Resolved FakeScopedResources::resolve(ByteView bookmark) {
    const std::string text(asText(bookmark));
    if (text.starts_with("stale:")) return {text.substr(6), true};
    if (!text.starts_with('/')) throw std::runtime_error("no bookmark");
    return {text, false};
}

void FakeDiskImageTool::createImage(const Path& path, std::uint64_t sizeBytes) const {
    if (fails) throw std::runtime_error("the tool failed");
    writeFileAtomically(path, "qcow2 " + std::to_string(sizeBytes));
}

bool FakeBootEvidence::diskShowsBootableSystem(const Path& disk) const {
    std::ifstream stream(disk);
    std::string start(9, '\0');
    stream.read(start.data(), 9);
    return start == "installed";
}

Task<bool> FakeClockSync::syncAfterRestore(VMRecordPointer vm, int port, std::function<bool()> isVMRunning,
                                           int attempts, Duration delay) {
    pushes.push_back(vm->name + ":" + std::to_string(port) + (isVMRunning() ? " running" : " stopped") + " " +
                     std::to_string(attempts) + "x" + std::to_string(delay / seconds(1)));
    co_return true;
}

Task<void> FakeRecovery::recover(VMRecordPointer vm) {
    if (work) {
        co_await ignoreCancellation();
        co_await work->wait();
    }
    action(*vm);
}

VMBundle VMServiceTest::makeBundle(const std::string& name, VMOSType os) const {
    const VMBundle bundle(storage / name);
    std::filesystem::create_directories(bundle.directoryURL);
    writeConfig(bundle, [&](DorvaneVMConfig& config) { config.os = os; });
    writeFileAtomically(bundle.systemDisk(os), "disk of " + name);
    return bundle;
}

void VMServiceTest::writeConfig(const VMBundle& bundle,
                                const std::function<void(DorvaneVMConfig&)>& change) const {
    DorvaneVMConfig config;
    config.os = VMOSType::linux;
    config.cpuCount = 2;
    config.memoryBytes = std::uint64_t{2048} << 20;
    config.diskSizeBytes = std::uint64_t{32} << 30;
    config.macAddress = "02:aa:aa:aa:aa:aa";
    config.display = {1024, 768, 80};
    if (std::filesystem::exists(bundle.configFile())) config = DorvaneVMConfig::read(bundle.configFile());
    change(config);
    config.write(bundle.configFile());
}

VMRecordPointer VMServiceTest::addVM(const std::string& name, VMOSType os) {
    makeBundle(name, os);
    run(service.refreshVMList());
    return named(name);
}

VMRecordPointer VMServiceTest::addRunningVM(const std::string& name, VMOSType os) {
    const auto vm = addVM(name, os);
    run(service.startVM(vm));
    engine.calls.clear();
    return vm;
}

VMRecordPointer VMServiceTest::named(const std::string& name) const {
    for (const auto& vm : service.vms())
        if (vm->name == name) return vm;
    return nullptr;
}

VMServiceCollaborators VMServiceTest::collaborators() {
    VMServiceCollaborators with{host.runtime(), engine, settings, gate,     operations,
                                files,          system, disposer, bookmarks};
    with.modelContext = &context;
    with.windowsSupport = &windows;
    with.diskFlattening = &flattening;
    with.bootEvidence = &evidence;
    with.clockSync = &clockSync;
    with.recovery = &recovery;
    return with;
}

}  // namespace dorvane::test
