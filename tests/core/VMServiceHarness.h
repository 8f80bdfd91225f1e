// SPDX-License-Identifier: Apache-2.0
// A VMService on virtual time, over real bundles in a folder of the test's own.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/VMService.h"
#include "support/ErrorOf.h"
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
std::map<std::string, std::string> contentsOf(const Path& folder);

/// Permissions that count how many are open. A bookmark is its path's text; "stale:" before it makes one
/// stale, anything but a path can't be resolved.
class FakeScopedResources : public ScopedResources {
  public:
    Resolved resolve(ByteView bookmark) override;
    Bytes makeBookmark(const Path& path) override { return toBytes(path.string()); }
    bool startAccessing(const Path& path) override {
        open.insert(path);
        return true;
    }
    void stopAccessing(const Path& path) override { EXPECT_FALSE(open.extract(path).empty()); }

    std::multiset<Path> open;
};

/// qcow2 images as one line of text.
class FakeDiskImageTool : public DiskImageTool {
  public:
    void createImage(const Path& path, std::uint64_t sizeBytes) const override;
    void resizeImage(const Path& path, std::uint64_t sizeBytes) const override {
        createImage(path, sizeBytes);
    }

    bool fails = false;
};

class FakeWindowsGuestSupport : public WindowsGuestSupport {
  public:
    std::optional<std::string> unavailableReason() const override { return reason; }
    std::unique_ptr<const DiskImageTool> diskImageTool() const override {
        return hasTool ? std::make_unique<FakeDiskImageTool>(tool) : nullptr;
    }
    int pickFreeSharesPort() const override { return 47007; }
    std::string makeSharesToken() const override { return "secret"; }

    std::optional<std::string> reason;
    bool hasTool = true;
    FakeDiskImageTool tool;
};

/// Takes a disk for installed that says so in its first bytes.
class FakeBootEvidence : public LinuxBootEvidenceInspecting {
  public:
    bool diskShowsBootableSystem(const Path& disk) const override;
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
                                Duration delay) override;
    std::vector<std::string> pushes;
};

/// Nothing to make good, unless the test says otherwise.
class FakeRecovery : public VMBundleRecovering {
  public:
    Task<void> recover(VMRecordPointer vm) override;
    std::function<void(VMRecord&)> action = [](VMRecord&) {};
    /// Work to be waited for, which is deaf to a cancellation.
    std::optional<Event> work;
};

class VMServiceTest : public testing::Test {
  protected:
    VMServiceTest() { settings.setStoragePath(storage); }

    /// A complete bundle; the disk holds its name.
    VMBundle makeBundle(const std::string& name, VMOSType os = VMOSType::linux) const;
    void writeConfig(const VMBundle& bundle, const std::function<void(DorvaneVMConfig&)>& change) const;
    /// A machine of the library, as a refresh finds it.
    VMRecordPointer addVM(const std::string& name, VMOSType os = VMOSType::linux);
    VMRecordPointer addRunningVM(const std::string& name, VMOSType os = VMOSType::linux);
    VMRecordPointer named(const std::string& name) const;

    void run(Task<void> task) { host.run(std::move(task)); }
    template <typename T>
    T run(Task<T> task) {
        return host.run(std::move(task));
    }
    /// Runs a task that has to fail, and gives its error.
    template <typename T>
    DorvaneError failureOf(Task<T> task) {
        return errorOf([&] { run(std::move(task)); });
    }
    static DorvaneError refusal(const std::string& sentence) {
        return DorvaneError(Case::invalidConfiguration, sentence);
    }
    TaskHandle begin(Task<void> task) {
        return spawn(host.runtime().main.executor(), std::move(task), "test");
    }
    template <typename T>
    TaskHandle begin(Task<T> task) {
        return begin([](Task<T> work) -> Task<void> { co_await std::move(work); }(std::move(task)));
    }
    /// Runs until all of them have ended.
    void finish(const auto&... tasks) {
        host.driveUntil([&] { return (tasks.isFinished() && ...); });
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
    FakeRecovery recovery;

    VMServiceCollaborators collaborators();
    VMService service{collaborators()};
};

}  // namespace dorvane::test
