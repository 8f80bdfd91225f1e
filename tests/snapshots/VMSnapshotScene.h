// SPDX-License-Identifier: Apache-2.0
// A snapshot service over fake engines and layers, and machines for it.
#pragma once

#include <gtest/gtest.h>

#include "snapshots/FakeChainTool.h"
#include "snapshots/SnapshotMetadata.h"
#include "snapshots/VMSnapshotService.h"
#include "support/ErrorOf.h"
#include "support/FakeEngine.h"
#include "support/FakeFileManager.h"
#include "support/InMemoryModelContext.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"
#include "support/TestRuntime.h"

namespace dorvane::test {

class VMSnapshotScene : public testing::Test {
  protected:
    VMRecordPointer machine(VMOSType os, const std::string& name = "Machine") {
        auto vm = std::make_shared<VMRecord>();
        vm->name = name;
        vm->osType = os;
        vm->vmPath = (storage / name).string();
        const auto bundle = vm->bundle();
        std::filesystem::create_directory(bundle.directoryURL);
        config.os = os;
        config.write(bundle.configFile());
        if (os == VMOSType::windows)
            FakeChainTool::createDisk(bundle.qcow2Disk());
        else
            writeFileAtomically(bundle.rawDisk(), "disk");
        writeFileAtomically(SnapshotFiles::nvramFile(bundle, os), "variables");
        context.insert(vm);
        return vm;
    }
    /// A machine whose bundle is a copy of the other one's.
    VMRecordPointer copyOf(const VMRecordPointer& vm, const std::string& name) {
        const auto copy = machine(vm->osType, name);
        std::filesystem::remove_all(copy->vmPath);
        std::filesystem::copy(vm->vmPath, copy->vmPath, std::filesystem::copy_options::recursive);
        return copy;
    }
    void setStatus(const VMRecordPointer& vm, VMStatus status) {
        vm->status = status;
        engine.adopt(vm->id, status);
    }
    VMSnapshotPointer take(const VMRecordPointer& vm, const std::string& name, bool memory = false,
                           VMSnapshotKind kind = VMSnapshotKind::manual) {
        clock.advance(milliseconds(100));
        return host.run(service.takeSnapshot(vm, name, memory, kind));
    }
    template <typename T>
    std::string refusalOf(Task<T> operation) {
        const auto error = errorOf([&] { host.run(std::move(operation)); });
        return error.text().empty() ? error.what() : error.text();
    }
    std::string refusalToTake(const VMRecordPointer& vm, const std::string& name, bool memory = false) {
        return refusalOf(service.takeSnapshot(vm, name, memory, VMSnapshotKind::manual));
    }
    std::vector<std::string> names(const VMRecordPointer& vm) {
        std::vector<std::string> all;
        for (const auto& row : host.run(service.listSnapshots(vm))) all.push_back(row->name);
        return all;
    }
    std::set<std::string> directories(const VMRecordPointer& vm) const {
        std::set<std::string> all;
        if (std::filesystem::exists(vm->bundle().snapshotsDirectory()))
            for (const auto& entry : std::filesystem::directory_iterator(vm->bundle().snapshotsDirectory()))
                all.insert(entry.path().filename().string());
        return all;
    }
    Task<void> endEmulator(UUID id) {
        EXPECT_TRUE(gate.isBusy(id));
        endedEmulators.push_back(id);
        co_return;
    }

    TestRuntime host;
    VirtualClock& clock = host.clock();
    LogCapture log;
    TemporaryDirectory storage;
    FakeEngine engine;
    FakeFileManager fileManager{storage / "trash"};
    InMemoryModelContext context;
    SecurityScopedBookmarkStore bookmarks;
    VMOperationGate gate;
    DorvaneVMConfig config;
    const std::shared_ptr<FakeChainTool> tool = std::make_shared<FakeChainTool>();
    const SnapshotChainStore chain{tool};
    std::set<UUID> starting;
    std::vector<UUID> endedEmulators;
    VMSnapshotServiceCollaborators with{
        .runtime = host.runtime(),
        .gate = gate,
        .fileManager = fileManager,
        .bookmarks = bookmarks,
        .modelContext = context,
        .engine = &engine,
        .chainStore = &chain,
        .isStarting = [this](const UUID& id) { return starting.contains(id); },
        .endLeftoverEmulator = [this](UUID id) { return endEmulator(id); }};
    VMSnapshotService service{with};
};

}  // namespace dorvane::test
