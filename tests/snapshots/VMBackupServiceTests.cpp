// SPDX-License-Identifier: Apache-2.0
#include "snapshots/VMBackupScene.h"
#include "snapshots/VMBackupServiceUnpacking.h"
#include "support/TestRuntime.h"

namespace dorvane::test {
namespace {

namespace fs = std::filesystem;
using Case = DorvaneError::Case;
using Phase = VMBackupProgress::Phase;
using testing::ElementsAre;
using testing::HasSubstr;

class VMBackupServiceTest : public testing::Test, protected VMBackupScene<TestRuntime> {
  protected:
    Path craft(const std::vector<CraftedEntry>& entries) {
        writeFileAtomically(archive, craftedArchive(entries));
        return archive;
    }
    DorvaneError refusal(const std::vector<CraftedEntry>& entries) {
        return failureOf(service.restoreBackup(craft(entries), "new", {}));
    }
    static DorvaneError restoreFailure(const std::string& sentence) {
        return DorvaneError(Case::vmRestoreFailed, sentence);
    }
};

TEST_F(VMBackupServiceTest, RestoresAMachineOfItsOwnThatRunsBesideItsSource) {
    const auto source = addVM("source");
    const auto before = everythingIn(source->vmPath);
    run(service.exportBackup(source, archive, {}));
    EXPECT_EQ(everythingIn(source->vmPath), before);
    EXPECT_EQ(everythingIn(backups).size(), 1u);

    const auto vm = run(service.restoreBackup(archive, "copy", {}));
    const auto bundle = vm->bundle();
    EXPECT_EQ(bundle.directoryURL, storage / "copy");
    const auto config = DorvaneVMConfig::read(bundle.configFile());
    EXPECT_NE(config.macAddress, backupConfig().macAddress);
    EXPECT_NE(config.linuxPlatform, backupConfig().linuxPlatform);
    EXPECT_FALSE(bundle.hasSavedState());
    auto expected = before;
    for (const auto* gone :
         {"state.vzvmsave", "state.vzvmsave.hash", "state.vzvmsave.devices", "ephemeral.json", "config.json"})
        EXPECT_EQ(expected.erase(gone), 1u) << gone;
    auto restored = everythingIn(bundle.directoryURL);
    EXPECT_EQ(restored.erase("config.json"), 1u);
    EXPECT_EQ(restored, expected);
    EXPECT_NE(vm->id, source->id);
    EXPECT_EQ(vm->name, "copy");
    EXPECT_EQ(vm->sharedFolders, source->sharedFolders);
    EXPECT_EQ(vm->cpuCount, 2) << "of the bundle, since the record never had it";
    EXPECT_EQ(vm->createdAt, host.clock().date());
    EXPECT_EQ(context.fetchRecords().size(), 2u);
    EXPECT_EQ(libraryChanges, 1);
    EXPECT_TRUE(files.isExcludedFromBackup(storage / "copy") || log.contains("Excluded from Time Machine"));
    EXPECT_TRUE(isIdle());
    EXPECT_EQ(everythingIn(storage).size(), before.size() + expected.size() + 3)
        << "two folders and a config";

    EXPECT_EQ(
        failureOf(service.restoreBackup(archive, "copy", {})),
        restoreFailure("The restore destination already exists at " + (storage / "copy").string() + "."));
    EXPECT_EQ(failureOf(service.restoreBackup(archive, std::nullopt, {})).which(), Case::vmRestoreFailed)
        << "the archived name is the source's";
}

TEST_F(VMBackupServiceTest, DescribesTheMachineInTheArchive) {
    const auto source = addVM("source");
    run(service.exportBackup(source, archive, {}));
    const VMBackupArchive packed(archive);
    const auto& manifest = packed.manifest();
    EXPECT_EQ(manifest.formatVersion, 1);
    EXPECT_EQ(manifest.createdAt, host.clock().date());
    EXPECT_EQ(manifest.appVersion, "1.0");
    EXPECT_EQ(manifest.engineVersion, "11.1");
    EXPECT_EQ(manifest.originalDirectoryName, "source");
    EXPECT_EQ(manifest.originalVMPath, source->vmPath);
    EXPECT_EQ(manifest.uncompressedBytes, logicalBytes(source->vmPath));
    EXPECT_GT(*manifest.uncompressedBytes, std::uint64_t{8} << 20) << "holes count";
    EXPECT_EQ(packed.record(), VMBackupRecordSnapshot(*source));
    EXPECT_EQ(packed.directoryName(), "source");
    EXPECT_EQ(packed.expectedUncompressedBytes(), *manifest.uncompressedBytes);
    EXPECT_GT(zipUncompressedBytes(archive), manifest.uncompressedBytes);
    EXPECT_FALSE(zipUncompressedBytes(storage / "nothing"));
    craft(craftedBackup());
    EXPECT_EQ(VMBackupArchive(archive).expectedUncompressedBytes(), zipUncompressedBytes(archive));
}

TEST_F(VMBackupServiceTest, AnAwkwardDirectoryNameIsReplacedInTheArchive) {
    for (const auto* name : {"a\\b", "manifest.json", "__MACOSX", "C:x"}) {
        const auto source = addVM(name);
        run(service.exportBackup(source, archive, {}));
        EXPECT_EQ(VMBackupArchive(archive).directoryName(), "VM") << name;
        EXPECT_NO_THROW(run(service.restoreBackup(archive, "copy", {}))) << name;
        if (const auto copy = named("copy")) context.remove(copy);
        fs::remove_all(storage / "copy");
    }
}

TEST_F(VMBackupServiceTest, TellsItsPhases) {
    const auto source = addVM("source");
    std::vector<VMBackupProgress> told;
    const VMBackupProgressHandler note = [&](const VMBackupProgress& progress) { told.push_back(progress); };
    run(service.exportBackup(source, archive, note));
    EXPECT_THAT(told,
                ElementsAre(VMBackupProgress{Phase::preparing}, VMBackupProgress{Phase::compressing, 0.0}));
    told.clear();
    run(service.restoreBackup(archive, "copy", note));
    EXPECT_THAT(told,
                ElementsAre(VMBackupProgress{Phase::preparing}, VMBackupProgress{Phase::extracting, 0.0},
                            VMBackupProgress{Phase::installing}));
}

TEST_F(VMBackupServiceTest, RefusesInPlainWordsBeforeAnythingIsWritten) {
    const auto source = addVM("source");
    const auto before = everythingIn(storage);
    const auto exportFailure = [&](const Path& to) {
        return failureOf(service.exportBackup(source, to, {}));
    };
    for (const auto status : {VMStatus::running, VMStatus::paused, VMStatus::starting, VMStatus::error}) {
        source->status = status;
        EXPECT_EQ(
            exportFailure(archive),
            DorvaneError(Case::vmBackupFailed, "VM 'source' must be stopped before creating a backup."));
    }
    source->status = VMStatus::stopped;
    gate.begin(source->id, source->name);
    EXPECT_EQ(exportFailure(archive), DorvaneError(Case::vmBusy, "source"));
    gate.end(source->id);
    const auto path = std::exchange(source->vmPath, "/nowhere");
    EXPECT_EQ(exportFailure(archive),
              DorvaneError(Case::vmBackupFailed, "VM directory does not exist at /nowhere."));
    source->vmPath = path;
    EXPECT_THAT(exportFailure(source->bundle().snapshotsDirectory() / "b.zip").text(),
                HasSubstr("outside of the VM"));
    EXPECT_THAT(exportFailure(backups).text(), HasSubstr("There is a folder at"));
    EXPECT_THAT(exportFailure(backups / "none" / "b.zip").text(), HasSubstr("No such file or directory"));
    fs::create_symlink("/mnt/large/disk.img", storage / "source" / "second.img");
    EXPECT_THAT(exportFailure(archive).text(), HasSubstr("is a link to a place outside of the VM"));
    fs::remove(storage / "source" / "second.img");
    EXPECT_TRUE(fs::is_empty(backups));

    run(service.exportBackup(source, archive, {}));
    for (const auto* name : {"", ".hidden", "a/b", "../up", "a:b"})
        EXPECT_EQ(failureOf(service.restoreBackup(archive, name, {})).which(), Case::invalidConfiguration)
            << name;
    auto with = collaborators();
    with.modelContext = nullptr;
    VMBackupService bare(std::move(with));
    EXPECT_EQ(failureOf(bare.restoreBackup(archive, "copy", {})),
              restoreFailure("No model context available."));
    source->vmPath = (storage / "renamed since").string();
    source->name = "copy";
    EXPECT_EQ(failureOf(service.restoreBackup(archive, "copy", {})),
              DorvaneError(Case::vmNameCollision, "copy"));
    EXPECT_EQ(everythingIn(storage), before);
    EXPECT_TRUE(isIdle());
}

TEST_F(VMBackupServiceTest, RestoresWhatOtherProgramsPack) {
    auto entries = craftedBackup();
    entries.insert(entries.end(), {{"__MACOSX/._source", "companion"},
                                   {"._manifest.json", "companion"},
                                   {".DS_Store", "companion"},
                                   {"Read me.txt", "by a user"},
                                   {.name = "source/Snapshots/", .mode = std::nullopt}});
    for (auto& entry : entries) entry.isDeflated = !entry.name.ends_with('/');
    const auto vm = run(service.restoreBackup(craft(entries), std::nullopt, {}));
    EXPECT_EQ(vm->name, "source");
    EXPECT_EQ(everythingIn(storage).size(), 4u) << "the bundle, its config, disk and folder";
    EXPECT_EQ(readTextFile(storage / "source" / "disk.img"), "the disk");
}

TEST_F(VMBackupServiceTest, RefusesWhatIsNoBackupAndLeavesNothingBehind) {
    enum Entry { manifest, record, config, disk };
    using Entries = std::vector<CraftedEntry>;
    const auto drop = [](Entry which) {
        return [which](Entries& entries) { entries.erase(entries.begin() + which); };
    };
    const auto add = [](CraftedEntry entry) {
        return [entry](Entries& entries) { entries.push_back(entry); };
    };
    const auto replace = [](Entry which, std::string content) {
        return [which, content](Entries& entries) { entries[which].content = content; };
    };
    const auto setManifest = [](const char* key, const JSON& value) {
        return [key, value](Entries& entries) {
            auto changed = parseJSON(entries[manifest].content);
            changed[key] = value;
            entries[manifest].content = changed.dump();
        };
    };
    const auto toLink = [](Entry which, std::string target) {
        return
            [which, target](Entries& entries) { entries[which] = craftedLink(entries[which].name, target); };
    };
    const struct {
        std::string what;
        std::function<void(Entries&)> change;
        std::string words;
    } faults[]{
        {"no manifest", drop(manifest), "it holds no \"manifest.json\""},
        {"no record", drop(record), "it holds no \"vm-record.json\""},
        {"no config", drop(config), "no complete VM"},
        {"no disk", drop(disk), "no complete VM"},
        {"unfinished installation", add({"source/.dorvane-installing", ""}), "no complete VM"},
        {"another directory", add({"other/config.json", "{}"}), "more than one VM directory"},
        {"no directory", [](auto& entries) { entries.resize(2); }, "no VM directory"},
        {"manifest is a folder", [](auto& entries) { entries[manifest] = craftedFolder("manifest.json/"); },
         "it holds no"},
        {"manifest is no JSON", replace(manifest, "{"), "\"manifest.json\" can't be read"},
        {"manifest is too large", replace(manifest, std::string(5 << 20, ' ')), "not the small file"},
        {"record is no JSON", replace(record, "[]"), "\"vm-record.json\" can't be read"},
        {"later format", setManifest("formatVersion", 2), "newer version of Dorvane (backup format 2)"},
        {"no format", setManifest("formatVersion", 0), "out of range"},
        {"format is text", setManifest("formatVersion", "1"), "not an integer"},
        {"config is no JSON", replace(config, "garbage"), "Could not read the VM configuration."},
        {"config is a link to nothing", toLink(config, "nothing"), "no complete VM"},
        {"disk is a link out", toLink(disk, "../../secret"), "leads out"},
        {"disk is a link to a device", toLink(disk, "/dev/sda"), "leads out"},
        {"more than the manifest says",
         [&](auto& entries) {
             entries[disk].content = std::string(65 << 20, 'x');
             setManifest("uncompressedBytes", 1000)(entries);
         },
         "more than its manifest says"},
        {"disk is damaged", [](auto& entries) { entries[disk].crc = 7; }, "checksum"},
        {"an entry climbs", add({"../evil", "x"}), "can't be used"},
        {"an entry is encrypted", [](auto& entries) { entries[disk].flags = 1; }, "encrypted"},
    };
    for (const auto& fault : faults) {
        auto entries = craftedBackup();
        fault.change(entries);
        const auto error = refusal(entries);
        EXPECT_EQ(error.which(), Case::vmRestoreFailed) << fault.what << ": " << error.what();
        EXPECT_THAT(error.text(), HasSubstr(fault.words)) << fault.what;
        EXPECT_TRUE(fs::is_empty(storage)) << fault.what;
        EXPECT_TRUE(context.fetchRecords().empty()) << fault.what;
        EXPECT_TRUE(isIdle()) << fault.what;
    }
    EXPECT_EQ(everythingIn(backups).size(), 1u) << "nothing climbed";
    EXPECT_NO_THROW(run(service.restoreBackup(craft(craftedBackup()), "new", {})));
}

TEST_F(VMBackupServiceTest, StopsWhereTheDiskHasNoRoom) {
    auto entries = craftedBackup();
    entries[3].content = std::string(18 << 20, 'x');
    for (std::size_t i = 0; i < entries[3].content.size(); i += 512)
        entries[3].content[i] = static_cast<char>(i >> 9);
    files.capacity = 10000;
    EXPECT_EQ(refusal(entries).which(), Case::diskSpaceInsufficient) << "known before";
    files.capacity = 15 << 20;
    EXPECT_THAT(refusal(entries).text(), HasSubstr("The disk is full")) << "found out on the way";
    EXPECT_TRUE(fs::is_empty(storage));
    files.capacity = 1 << 30;
    EXPECT_NO_THROW(run(service.restoreBackup(craft(entries), "new", {})));
}

TEST_F(VMBackupServiceTest, WhicheverStepFailsTheSourceAndTheOldArchiveAreUntouched) {
    const auto source = addVM("source");
    run(service.exportBackup(source, archive, {}));
    const auto exportSteps = std::exchange(steps, {});
    run(service.restoreBackup(archive, "copy", {}));
    const auto restoreSteps = std::exchange(steps, {});
    context.remove(named("copy"));
    fs::remove_all(storage / "copy");
    const auto vms = everythingIn(storage), old = everythingIn(backups);

    std::string failing;
    onStep = [&](const std::string& step) {
        if (step == failing) throw FileError("do", step, EIO);
    };
    const auto expectUntouched = [&] {
        EXPECT_EQ(everythingIn(storage), vms) << failing;
        EXPECT_EQ(everythingIn(backups), old) << failing;
        EXPECT_EQ(context.fetchRecords().size(), 1u) << failing;
        EXPECT_TRUE(isIdle()) << failing;
    };
    for (const auto& step : exportSteps) {
        failing = step;
        EXPECT_EQ(failureOf(service.exportBackup(source, archive, {})).which(), Case::vmBackupFailed) << step;
        expectUntouched();
    }
    for (const auto& step : restoreSteps) {
        failing = step;
        EXPECT_EQ(failureOf(service.restoreBackup(archive, "copy", {})).which(), Case::vmRestoreFailed)
            << step;
        expectUntouched();
    }
    failing = "the store";
    context.failNextSave = true;
    EXPECT_EQ(failureOf(service.restoreBackup(archive, "copy", {})).which(), Case::vmRestoreFailed);
    expectUntouched();
    failing.clear();
    EXPECT_NO_THROW(run(service.restoreBackup(archive, "copy", {})));
}

TEST_F(VMBackupServiceTest, ADestinationTakenMeanwhileIsSomebodyElses) {
    onStep = [&](const std::string& step) {
        if (step != "move") return;
        fs::create_directories(storage / "new");
    };
    EXPECT_EQ(refusal(craftedBackup()), restoreFailure("The restore destination already exists at " +
                                                       (storage / "new").string() + "."));
    EXPECT_TRUE(fs::is_empty(storage / "new")) << "and still there";
    EXPECT_EQ(everythingIn(storage).size(), 1u);
}

TEST_F(VMBackupServiceTest, ASecondRestoreToTheSamePlaceIsRefusedWhileTheFirstRuns) {
    craft(craftedBackup());
    const OneShot<VMRecordPointer> outcomes[2];
    const auto restore = [&](const auto& outcome) {
        return spawn(host.runtime().main.executor(),
                     deliver(service.restoreBackup(archive, "new", {}), outcome), "restore");
    };
    const auto first = restore(outcomes[0]), second = restore(outcomes[1]);
    host.driveUntil([&] { return first.isFinished() && second.isFinished(); });
    const auto ending = [](const auto& outcome) { return errorOf([&] { outcome.take(); }).text(); };
    EXPECT_THAT((std::vector{ending(outcomes[0]), ending(outcomes[1])}),
                testing::UnorderedElementsAre("nothing was thrown", HasSubstr("already exists")));
    EXPECT_EQ(everythingIn(storage).size(), 3u);
}

TEST_F(VMBackupServiceTest, TheSweepTakesWhatACrashLeftAndNothingElse) {
    addVM("source");
    const auto left = storage / (VMBackupService::restoreStagingPrefix + UUID::random().text());
    const auto user = storage / (VMBackupService::restoreStagingPrefix + UUID::random().text());
    fs::create_directories(left / "source");
    writeFileAtomically(left / "source" / "config.json", "{}");
    fs::create_directories(user);
    writeFileAtomically(user / "config.json", "a machine that somebody named so");
    fs::create_directories(storage / "Dorvane-Restore-notes");
    EXPECT_THAT(VMBundle::sweepInterruptedWork(storage), ElementsAre(left));
    EXPECT_FALSE(fs::exists(left));
    EXPECT_TRUE(fs::exists(user / "config.json"));
}

}  // namespace
}  // namespace dorvane::test
