// SPDX-License-Identifier: Apache-2.0
// A VMService on virtual time, over real bundles in a folder of the test's own.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include "core/VMService.h"
#include "support/FakeDefaultsStore.h"
#include "support/FakeEngine.h"
#include "support/FakeFileManager.h"
#include "support/FakeHostSystem.h"
#include "support/InMemoryModelContext.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"
#include "support/TestRuntime.h"

namespace dorvane::test {

using Case = DorvaneError::Case;

/// Every file below a folder with its content (of a grown disk the size): what "nothing is left behind" and
/// "untouched" are proved with.
inline std::map<std::string, std::string> contentsOf(const Path& folder) {
    std::map<std::string, std::string> contents;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
        auto& content = contents[entry.path().lexically_relative(folder).string()];
        if (!entry.is_regular_file()) continue;
        content = entry.file_size() > 65536 ? std::to_string(entry.file_size()) : readTextFile(entry.path());
    }
    return contents;
}

/// Permissions that count how many are open.
class FakeScopedResources : public ScopedResources {
  public:
    Resolved resolve(ByteView bookmark) override { return {Path(asText(bookmark)), isStale}; }
    Bytes makeBookmark(const Path& path) override { return toBytes("fresh:" + path.string()); }
    bool startAccessing(const Path& path) override {
        open.insert(path);
        return true;
    }
    void stopAccessing(const Path& path) override { open.erase(open.find(path)); }

    bool isStale = false;
    std::multiset<Path> open;
};

/// qcow2 images as one line of text.
class FakeDiskImageTool : public DiskImageTool {
  public:
    void createImage(const Path& path, std::uint64_t sizeBytes) const override {
        if (fails) throw std::runtime_error("the tool failed");
        writeFileAtomically(path, "qcow2 " + std::to_string(sizeBytes));
    }
    void resizeImage(const Path& path, std::uint64_t sizeBytes) const override {
        createImage(path, sizeBytes);
    }

    bool fails = false;
};

class FakeWindowsGuestSupport : public WindowsGuestSupport {
  public:
    std::optional<std::string> unavailableReason() const override { return reason; }
    const DiskImageTool* diskImageTool() const override { return hasTool ? &tool : nullptr; }
    int pickFreeSharesPort() const override { return 47007; }
    std::string makeSharesToken() const override { return "secret"; }

    std::optional<std::string> reason;
    bool hasTool = true;
    FakeDiskImageTool tool;
};

/// Takes a disk for installed that says so in its first bytes.
class FakeBootEvidence : public LinuxBootEvidenceInspecting {
  public:
    bool diskShowsBootableSystem(const Path& disk) const override {
        std::ifstream stream(disk);
        std::string start(9, '\0');
        stream.read(start.data(), 9);
        return start == "installed";
    }
};

class FakeFlattening : public LiveDiskFlattening {
  public:
    void flattenLiveDisk(const VMBundle& bundle) const override { action(bundle); }
    std::function<void(const VMBundle&)> action = [](const VMBundle& bundle) {
        writeFileAtomically(bundle.qcow2Disk(), "flat");
    };
};

class FakeClockSync : public GuestClockSyncing {
  public:
    Task<bool> syncAfterRestore(VMRecordPointer vm, int port, std::function<bool()> isVMRunning, int attempts,
                                Duration delay) override {
        pushes.push_back(vm->name + ":" + std::to_string(port) + (isVMRunning() ? " running" : " stopped") +
                         " " + std::to_string(attempts) + "x" + std::to_string(delay / seconds(1)));
        co_return true;
    }
    std::vector<std::string> pushes;
};

class VMServiceTest : public testing::Test {
  protected:
    VMServiceTest() { settings.setStoragePath(storage); }

    /// A complete bundle; the disk holds its name.
    VMBundle makeBundle(const std::string& name, VMOSType os = VMOSType::linux) const {
        const VMBundle bundle(storage / name);
        std::filesystem::create_directories(bundle.directoryURL);
        writeConfig(bundle, [&](DorvaneVMConfig& config) { config.os = os; });
        writeFileAtomically(bundle.systemDisk(os), "disk of " + name);
        return bundle;
    }
    template <typename Change>
    void writeConfig(const VMBundle& bundle, Change change) const {
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
    /// A machine of the library, as a refresh finds it.
    VMRecordPointer addVM(const std::string& name, VMOSType os = VMOSType::linux) {
        makeBundle(name, os);
        run(service.refreshVMList());
        return named(name);
    }
    VMRecordPointer addRunningVM(const std::string& name, VMOSType os = VMOSType::linux) {
        const auto vm = addVM(name, os);
        run(service.startVM(vm));
        engine.calls.clear();
        return vm;
    }
    VMRecordPointer named(const std::string& name) const {
        for (const auto& vm : service.vms())
            if (vm->name == name) return vm;
        return nullptr;
    }

    template <typename T>
    T run(Task<T> task) {
        return host.run(std::move(task));
    }
    /// Runs a task that has to fail, and gives its error.
    template <typename T>
    DorvaneError failureOf(Task<T> task) {
        try {
            run(std::move(task));
        } catch (const DorvaneError& error) {
            return error;
        } catch (const std::exception& error) {
            return DorvaneError(Case::unknown, error.what());
        }
        return DorvaneError(Case::unknown, "nothing was thrown");
    }
    static DorvaneError refusal(const std::string& sentence) {
        return DorvaneError(Case::invalidConfiguration, sentence);
    }

    LogCapture log;
    TemporaryDirectory folder;
    Path storage = folder / "VMs";
    TestRuntime host;
    FakeDefaultsStore defaults;
    ApplicationDirectories directories;
    SettingsService settings{defaults, directories, "tester"};
    FakeEngine engine;
    VMOperationGate gate;
    LongOperationRegistry operations;
    FakeFileManager files{folder / "Trash"};
    FakeHostSystem system;
    FileManagerDirectoryDisposer disposer{files};
    FakeScopedResources resources;
    SecurityScopedBookmarkStore bookmarks{&resources};
    InMemoryModelContext context;
    FakeWindowsGuestSupport windows;
    FakeFlattening flattening;
    FakeBootEvidence evidence;
    FakeClockSync clockSync;

    VMServiceCollaborators collaborators() {
        VMServiceCollaborators with{host.runtime(), engine, settings, gate,     operations,
                                    files,          system, disposer, bookmarks};
        with.modelContext = &context;
        with.windowsSupport = &windows;
        with.diskFlattening = &flattening;
        with.bootEvidence = &evidence;
        with.clockSync = &clockSync;
        return with;
    }
    VMService service{collaborators()};
};

}  // namespace dorvane::test
