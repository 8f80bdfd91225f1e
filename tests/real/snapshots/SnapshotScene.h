// SPDX-License-Identifier: Apache-2.0
// The snapshot service over the real engine, the real disk tool and a real store.
#pragma once

#include "base/SHA256.h"
#include "core/SQLiteModelContext.h"
#include "engine/EngineScene.h"
#include "platform/linux/LinuxFileManager.h"
#include "qemu/QEMUImageChainTool.h"
#include "snapshots/VMSnapshotService.h"

namespace dorvane::test {

class SnapshotScene : public EngineScene {
  public:
    SnapshotScene()
        : chain(std::make_shared<QEMUImageChainTool>(*QEMUImageChainTool::locate(resources))),
          context(folder / "library.store"),
          service({.runtime = real.runtime(),
                   .gate = gate,
                   .fileManager = files,
                   .bookmarks = bookmarks,
                   .modelContext = context,
                   .engine = &*engine,
                   .chainStore = &chain,
                   .endLeftoverEmulator = [this](UUID id) { return engine->endLeftoverEmulator(id); }}) {}

    /// A record of a machine whose disk is a copy of the demo guest's.
    VMRecordPointer demoRecord(const std::string& name) {
        auto made = machine(name);
        std::filesystem::copy_file(demoDisk(), made.bundle.qcow2Disk(),
                                   std::filesystem::copy_options::overwrite_existing);
        return record(made);
    }
    VMRecordPointer record(const EngineMachine& made) {
        auto config = DorvaneVMConfig::read(made.bundle.configFile());
        config.diskSizeBytes = chain.chainTool().virtualSize(made.bundle.qcow2Disk());
        config.write(made.bundle.configFile());
        auto vm = std::make_shared<VMRecord>();
        vm->id = made.id;
        vm->name = made.bundle.name();
        vm->vmPath = made.bundle.directoryURL.string();
        vm->createdAt = real.runtime().clock.date();
        context.insert(vm);
        context.save();
        return vm;
    }

    EngineMachine handle(const VMRecordPointer& vm) const { return {vm->id, vm->bundle(), {}}; }
    /// As the status watcher of the library keeps it.
    void start(const VMRecordPointer& vm) {
        run(service.recover(vm));
        launch(handle(vm));
        vm->status = VMStatus::running;
    }
    void stop(const VMRecordPointer& vm, bool force) {
        run(engine->stop(vm->id, force));
        ASSERT_TRUE(waitForStatus(handle(vm), std::nullopt));
        vm->status = VMStatus::stopped;
    }
    VMSnapshotPointer take(const VMRecordPointer& vm, const std::string& name, bool memory = false) {
        return run(service.takeSnapshot(vm, name, memory, VMSnapshotKind::manual));
    }

    /// The digest of what a guest reads from this disk: of its data in a file of one layer, since most of the
    /// disk is empty.
    std::string content(const Path& disk) const {
        const auto flat = folder / "flat.qcow2";
        imageTool({"convert", "-U", "-O", "qcow2", disk.string(), flat.string()});
        const auto digest = SHA256::hex(readFile(flat, std::size_t{4} << 30));
        std::filesystem::remove(flat);
        return digest;
    }
    Path disk(const VMRecordPointer& vm, const VMSnapshotPointer& snapshot) const {
        return SnapshotFiles(vm->bundle(), snapshot->id).disk(VMOSType::windows);
    }
    /// Every layer is sound, every backing path relative.
    void expectSoundChain(const VMRecordPointer& vm) const {
        const auto live = vm->bundle().qcow2Disk();
        imageTool({"check", "-q", live.string()});
        const auto layers = parseJSON(imageTool({"info", "--backing-chain", "--output=json", live.string()}));
        for (const auto& layer : layers) {
            imageTool({"check", "-q", layer.at("filename").get<std::string>()});
            EXPECT_NE(layer.value("backing-filename", std::string("none")).front(), '/');
        }
    }

    LinuxFileManager files{folder / "trash"};
    SecurityScopedBookmarkStore bookmarks;
    VMOperationGate gate;
    SnapshotChainStore chain;
    SQLiteModelContext context;
    VMSnapshotService service;
};

}  // namespace dorvane::test
