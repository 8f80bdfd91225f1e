// SPDX-License-Identifier: Apache-2.0
// A backup service over real files in a folder of the test's own.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/DorvaneError.h"
#include "core/DorvaneVMConfig.h"
#include "snapshots/ArchiveCrafting.h"
#include "snapshots/VMBackupService.h"
#include "support/ErrorOf.h"
#include "support/FakeDefaultsStore.h"
#include "support/FakeFileManager.h"
#include "support/FakeHostSystem.h"
#include "support/InMemoryModelContext.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"

namespace dorvane::test {

/// Every file below a folder with its content: what "nothing is left behind" and "untouched" are proved with.
inline std::map<std::string, std::string> everythingIn(const Path& folder) {
    std::map<std::string, std::string> contents;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder))
        contents[entry.path().lexically_relative(folder).string()] =
            entry.is_symlink()        ? "-> " + std::filesystem::read_symlink(entry.path()).string()
            : entry.is_regular_file() ? readTextFile(entry.path())
                                      : "";
    return contents;
}

inline DorvaneVMConfig backupConfig() {
    DorvaneVMConfig config;
    config.os = VMOSType::linux;
    config.cpuCount = 2;
    config.memoryBytes = std::uint64_t{2048} << 20;
    config.diskSizeBytes = std::uint64_t{8} << 20;
    config.macAddress = "02:aa:aa:aa:aa:aa";
    config.display = {1024, 768, 80};
    config.linuxPlatform = LinuxPlatformIdentity{toBytes("the source's identity")};
    return config;
}

/// The entries of a backup as another program might have made them.
inline std::vector<CraftedEntry> craftedBackup() {
    VMBackupManifest manifest;
    manifest.originalName = manifest.originalDirectoryName = "source";
    manifest.originalVMPath = "/vms/source";
    VMBackupRecordSnapshot record;
    record.name = "source";
    return {{"manifest.json", prettyJSON(manifest.encoded())},
            {"vm-record.json", prettyJSON(record.encoded())},
            {"source/config.json", prettyJSON(backupConfig().encoded())},
            {"source/disk.img", "the disk", true}};
}

/// `Host` gives a Runtime and runs tasks on it.
template <typename Host>
struct VMBackupScene {
    explicit VMBackupScene(Path root = {})
        : folder_(root.empty() ? std::optional<TemporaryDirectory>(std::in_place) : std::nullopt),
          root_(root.empty() ? folder_->path() : std::move(root)) {
        std::filesystem::create_directories(storage);
        std::filesystem::create_directories(backups);
        settings.setStoragePath(storage);
    }

    /// A bundle with everything that one may hold.
    VMBundle makeBundle(const std::string& name) {
        const VMBundle bundle(storage / name);
        std::filesystem::create_directories(bundle.snapshotsDirectory() / "one");
        backupConfig().write(bundle.configFile());
        writeFileAtomically(bundle.rawDisk(), "disk of " + name);
        truncateFile(bundle.rawDisk(), 8 << 20);
        writeFileAtomically(bundle.snapshotsDirectory() / "one" / "meta.json", "{}");
        for (const auto& file : {bundle.savedState(), bundle.savedStateHash(), bundle.savedStateDevices()})
            writeFileAtomically(file, "state");
        bundle.writeEphemeralMarker({});
        std::filesystem::create_symlink("one", bundle.snapshotsDirectory() / "latest");
        return bundle;
    }
    /// A stopped machine of the library; its bundle is made when there is none.
    VMRecordPointer addVM(const std::string& name) {
        const auto bundle = VMBundle(storage / name).isValid() ? VMBundle(storage / name) : makeBundle(name);
        const auto vm = std::make_shared<VMRecord>();
        vm->name = name;
        vm->vmPath = bundle.directoryURL.string();
        vm->osType = VMOSType::linux;
        vm->osVersionLabel = "Debian";
        vm->sharedFolders = {{UUID::random(), "/share", "share", true}};
        context.insert(vm);
        return vm;
    }
    VMBackupServiceCollaborators collaborators() {
        VMBackupServiceCollaborators with{host.runtime(), settings, gate, operations, files, system};
        with.modelContext = &context;
        with.appVersion = "1.0";
        with.engineVersion = "11.1";
        with.libraryChanged = [this] { ++libraryChanges; };
        with.step = [this](const std::string& name) {
            steps.push_back(name);
            if (onStep) onStep(name);
        };
        return with;
    }
    VMRecordPointer named(const std::string& name) {
        for (const auto& vm : context.fetchRecords())
            if (vm->name == name) return vm;
        return nullptr;
    }
    template <typename T>
    T run(Task<T> task) {
        return host.run(std::move(task));
    }
    template <typename T>
    DorvaneError failureOf(Task<T> task) {
        return errorOf([&] { host.run(std::move(task)); });
    }
    bool isIdle() const { return gate.busyVMIDs().empty() && operations.active().empty(); }

  private:
    std::optional<TemporaryDirectory> folder_;
    Path root_;

  public:
    Path storage = root_ / "VMs";
    Path backups = root_ / "backups";
    Path archive = backups / "backup.zip";
    LogCapture log;
    Host host;
    FakeDefaultsStore defaults;
    ApplicationDirectories directories;
    SettingsService settings{defaults, directories, "tester"};
    VMOperationGate gate;
    LongOperationRegistry operations;
    FakeFileManager files{root_ / "Trash"};
    FakeHostSystem system;
    InMemoryModelContext context;
    int libraryChanges = 0;
    std::vector<std::string> steps;
    std::function<void(const std::string&)> onStep;
    VMBackupService service{collaborators()};
};

}  // namespace dorvane::test
