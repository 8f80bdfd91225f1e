// SPDX-License-Identifier: Apache-2.0
#include "core/VMServiceHarness.h"

namespace dorvane::test {
namespace {

class VMLibraryRefresherTest : public VMServiceTest {
  protected:
    void refresh() { run(service.refreshVMList()); }
    VMRecordPointer insert(const std::string& name, const Path& path) {
        const auto vm = std::make_shared<VMRecord>();
        vm->name = name;
        vm->vmPath = path.string();
        context.insert(vm);
        return vm;
    }
    /// Refreshes with a service whose scan is followed by `meanwhile` before anything else happens.
    void refreshWith(std::function<void()> meanwhile) {
        auto with = collaborators();
        with.bundleScanner = [meanwhile](const Path& path) {
            auto bundles = VMBundle::scanBundles(path);
            meanwhile();
            return bundles;
        };
        VMService interrupted(std::move(with));
        run(interrupted.refreshVMList());
    }
};

TEST_F(VMLibraryRefresherTest, aBundlePutThereByHandBecomesAMachine) {
    const auto bundle = makeBundle("vm2", VMOSType::windows);
    writeConfig(bundle, [](auto& config) { config.cpuCount = 6; });
    refresh();
    ASSERT_EQ(service.vms().size(), 1u);
    const auto vm = service.vms().front();
    EXPECT_EQ(vm->name, "vm2");
    EXPECT_EQ(vm->osType, VMOSType::windows);
    EXPECT_EQ(vm->cpuCount, 6);
    EXPECT_EQ(vm->memoryMB, 2048);
    EXPECT_EQ(vm->diskSizeBytes, std::int64_t{32} << 30);
    EXPECT_EQ(vm->displayResolution, (DisplayResolution{1024, 768}));
    EXPECT_EQ(vm->status, VMStatus::stopped);
    EXPECT_EQ(vm->createdAt, host.clock().date());
    EXPECT_TRUE(files.isExcludedFromBackup(bundle.directoryURL));
    EXPECT_TRUE(
        log.contains("Refreshed VM list across 1 storage path(s): 1 VM(s), 0 unreachable, 0 unreadable"));

    const auto saves = context.saveCount;
    const VMRecordFields before = *vm;
    host.clock().advance(seconds(60));
    refresh();
    EXPECT_EQ(context.saveCount, saves) << "a warm refresh saves nothing";
    EXPECT_EQ(static_cast<const VMRecordFields&>(*vm), before);
}

TEST_F(VMLibraryRefresherTest, theConfigurationWinsForHardwareAndTheRecordForTheRest) {
    const auto vm = addVM("alpha");
    vm->name = "Renamed";
    vm->tags = {"work"};
    writeConfig(vm->bundle(), [](auto& config) { config.cpuCount = 8; });
    engine.adopt(vm->id, VMStatus::paused);
    host.clock().advance(seconds(60));
    refresh();
    ASSERT_EQ(service.vms().size(), 1u);
    EXPECT_EQ(vm->cpuCount, 8);
    EXPECT_EQ(vm->status, VMStatus::paused);
    EXPECT_EQ(vm->name, "Renamed");
    EXPECT_EQ(vm->tags, std::vector<std::string>{"work"});
    EXPECT_EQ(vm->updatedAt, host.clock().date());
}

TEST_F(VMLibraryRefresherTest, aCorruptConfigurationChangesNothingOnItsRecord) {
    const auto vm = addVM("alpha");
    const VMRecordFields before = *vm;
    makeBundle("beta");
    writeFileAtomically(vm->bundle().configFile(), "{\"version\": true}");
    refresh();
    EXPECT_EQ(static_cast<const VMRecordFields&>(*vm), before);
    EXPECT_TRUE(named("beta")) << "one bad bundle stops nothing else";
}

TEST_F(VMLibraryRefresherTest, aMachineOutOfReachKeepsItsSettingsAndTurnsStopped) {
    const auto vm = addVM("alpha");
    vm->tags = {"work"};
    vm->status = VMStatus::running;
    std::filesystem::rename(storage, folder / "unplugged");
    refresh();
    EXPECT_EQ(vm->status, VMStatus::stopped);
    EXPECT_EQ(vm->tags.size(), 1u);
    EXPECT_TRUE(log.contains("Skipping unreadable storage path " + storage.string()));
    EXPECT_TRUE(log.contains("bundle unreachable at " + vm->vmPath + "; status running -> stopped"));
    EXPECT_TRUE(log.contains("1 VM(s), 1 unreachable, 1 unreadable path(s)"));
    std::filesystem::rename(folder / "unplugged", storage);
    refresh();
    EXPECT_EQ(service.vms().size(), 1u);
}

TEST_F(VMLibraryRefresherTest, aMovedMachineKeepsItsFolderScanned) {
    makeBundle("alpha");
    const auto elsewhere = folder / "elsewhere";
    std::filesystem::create_directories(elsewhere);
    std::filesystem::rename(storage / "alpha", elsewhere / "alpha");
    const auto vm = insert("alpha", elsewhere / "alpha");
    std::filesystem::copy(elsewhere / "alpha", elsewhere / "beta");
    settings.setStoragePath(storage.string() + "/");
    refresh();
    EXPECT_EQ(service.vms().size(), 2u);
    EXPECT_EQ(vm->cpuCount, 2);
    EXPECT_TRUE(log.contains("across 2 storage path(s): 2 VM(s), 0 unreachable"));
}

TEST_F(VMLibraryRefresherTest, ofTwoRecordsOfOnePathTheFirstIsKeptInStep) {
    makeBundle("alpha");
    const auto first = insert("first", storage / "alpha");
    const auto second = insert("second", storage / "alpha");
    refresh();
    EXPECT_EQ(service.vms().size(), 2u);
    EXPECT_EQ(first->cpuCount, 2);
    EXPECT_EQ(second->cpuCount, 0);
}

TEST_F(VMLibraryRefresherTest, overlappingRefreshesConverge) {
    makeBundle("alpha");
    makeBundle("beta");
    const auto first = begin(service.refreshVMList()), second = begin(service.refreshVMList());
    finish(first, second);
    EXPECT_EQ(service.vms().size(), 2u);
    EXPECT_EQ(context.fetchRecords().size(), 2u);
}

TEST_F(VMLibraryRefresherTest, whatChangesBetweenScanAndMergeIsNotUndone) {
    const auto vm = addVM("alpha");
    refreshWith([&] {
        // Too late for the scanner, too early for the merge.
        host.runtime().main.async([&] {
            writeConfig(vm->bundle(), [](auto& config) { config.cpuCount = 12; });
            vm->cpuCount = 12;
        });
    });
    EXPECT_EQ(vm->cpuCount, 12);
    refreshWith([&] {
        std::filesystem::remove_all(vm->vmPath);
        context.remove(vm);
    });
    EXPECT_TRUE(context.fetchRecords().empty()) << "what was deleted stays so";
    makeBundle("beta");
    refreshWith([&] { insert("beta", storage / "beta"); });
    EXPECT_EQ(context.fetchRecords().size(), 1u) << "what was brought in gets no second record";
}

TEST_F(VMLibraryRefresherTest, sweepsWhatACrashLeftButNotWorkInProgress) {
    const auto staging = storage / ".beta.importing-0123ABCD";
    const auto installing = makeBundle("gamma");
    writeFileAtomically(installing.installingMarker(), "");
    std::filesystem::create_directories(staging);
    run([](LongOperationRegistry& registry, Task<void> work) -> Task<void> {
        co_await registry.track("Importing", std::move(work));
    }(operations, service.refreshVMList()));
    EXPECT_TRUE(std::filesystem::exists(staging));
    EXPECT_TRUE(installing.isValid());
    refresh();
    EXPECT_FALSE(std::filesystem::exists(staging));
    EXPECT_FALSE(std::filesystem::exists(installing.directoryURL));
    EXPECT_TRUE(log.contains("Removed interrupted work from a previous session: " + staging.string()));
    EXPECT_TRUE(service.vms().empty());
}

TEST_F(VMLibraryRefresherTest, workThatBeginsMeanwhileIsNotSweptInTheFoldersToCome) {
    const auto staging = folder / "elsewhere" / ".beta.importing-0123ABCD";
    std::filesystem::create_directories(staging);
    makeBundle("gamma");
    insert("alpha", folder / "elsewhere" / "alpha");
    refreshWith([&] {
        if (gate.busyVMIDs().empty()) gate.begin(UUID::random(), "alpha");
    });
    EXPECT_TRUE(std::filesystem::exists(staging));
}

TEST_F(VMLibraryRefresherTest, aSandboxWhoseRecordWasLostIsOneStill) {
    const EphemeralInfo info{*parseISO8601("2026-01-01T00:00:00Z"), *parseISO8601("2026-01-02T00:00:00Z"),
                             UUID::random()};
    makeBundle("box").writeEphemeralMarker(info);
    writeFileAtomically(makeBundle("broken").ephemeralMarker(), R"({"createdAt":"soon"})");
    refresh();
    EXPECT_EQ(named("box")->ephemeral, info);
    EXPECT_FALSE(named("broken")->isEphemeral());
}

TEST_F(VMLibraryRefresherTest, noticesAnInstallationThatFinishedOutOfSight) {
    const auto vm = addVM("alpha");
    vm->pendingInstallerImagePath = "/installer.iso";
    refresh();
    EXPECT_TRUE(vm->hasPendingInstallerImage());
    writeFileAtomically(vm->bundle().rawDisk(), "installed now");
    engine.adopt(vm->id);
    refresh();
    EXPECT_TRUE(vm->hasPendingInstallerImage()) << "a running guest may still be at it";
    engine.vanish(vm->id, VMStopReason::guestInitiated());
    refresh();
    EXPECT_FALSE(vm->hasPendingInstallerImage());
}

TEST_F(VMLibraryRefresherTest, opensAccessOnlyWhileItLooks) {
    const auto vm = addVM("alpha");
    vm->setBookmark(toBytes("stale:/old/disc.iso"), "/old/disc.iso");
    std::size_t openDuringScan = 0;
    refreshWith([&] { openDuringScan = resources.open.size(); });
    EXPECT_EQ(openDuringScan, 1u);
    EXPECT_TRUE(resources.open.empty());
    EXPECT_EQ(vm->bookmarksByPath->at("/old/disc.iso"), toBytes("/old/disc.iso")) << "a stale one is renewed";
}

}  // namespace
}  // namespace dorvane::test
