// SPDX-License-Identifier: Apache-2.0
#include "core/VMBundle.h"

#include <sys/stat.h>

#include "core/BackupExclusion.h"
#include "core/VMServiceHarness.h"

namespace dorvane::test {
namespace {

namespace fs = std::filesystem;

class VMBundleTest : public testing::Test {
  protected:
    Path makeDirectory(const std::string& name, const std::vector<std::string>& files) const {
        fs::create_directories(folder / name);
        for (const auto& file : files) writeFileAtomically(folder / name / file, "");
        return folder / name;
    }

    TemporaryDirectory folder;
    LogCapture log;
};

TEST_F(VMBundleTest, creationMakesASparseDiskAndGrowsIt) {
    const auto bundle = VMBundle::create(folder / "deep" / "vm", std::uint64_t{64} << 30);
    EXPECT_EQ(bundle.diskImageLogicalSize(), std::uint64_t{64} << 30);
    struct stat info {};
    ASSERT_EQ(::stat(bundle.rawDisk().c_str(), &info), 0);
    EXPECT_LT(info.st_blocks, 64);
    bundle.allocateSparseDiskImage(std::uint64_t{65} << 30);
    EXPECT_EQ(bundle.systemDiskLogicalSize(VMOSType::linux), std::uint64_t{65} << 30);
}

TEST_F(VMBundleTest, creationLeavesWhatStandsThereAlone) {
    const auto directory = makeDirectory("vm", {"precious"});
    fs::create_symlink("nowhere", folder / "dangling");
    for (const auto& place : {directory, Path(folder / "dangling")}) {
        EXPECT_EQ(errorOf([&] { VMBundle::create(place, 1); }),
                  DorvaneError(Case::vmCreationFailed, "VM directory already exists at " + place.string()));
    }
    EXPECT_TRUE(fs::exists(directory / "precious"));
}

TEST_F(VMBundleTest, failedCreationLeavesNothingBehind) {
    EXPECT_THROW(VMBundle::create(folder / "vm", UINT64_MAX), FileError);
    FakeDiskImageTool tool;
    tool.fails = true;
    EXPECT_EQ(errorOf([&] { VMBundle::createForQEMU(folder / "vm", 1, tool); }).text(), "the tool failed");
    EXPECT_FALSE(fs::exists(folder / "vm"));
    writeFileAtomically(folder / "file", "");
    EXPECT_THROW(VMBundle::create(folder / "file" / "vm", 1), FileError);

    tool.fails = false;
    EXPECT_TRUE(fs::exists(VMBundle::createForQEMU(folder / "vm", 5, tool).qcow2Disk()));
}

TEST_F(VMBundleTest, validityNeedsAConfigurationAndADisk) {
    const std::map<std::vector<std::string>, bool> table{{{"config.json", "disk.img"}, true},
                                                         {{"config.json", "disk.qcow2"}, true},
                                                         {{"config.json"}, false},
                                                         {{"disk.qcow2"}, false}};
    for (const auto& [files, valid] : table)
        EXPECT_EQ(VMBundle(makeDirectory(files.front() + files.back(), files)).isValid(), valid)
            << files.back();
}

TEST_F(VMBundleTest, scanListsWholeBundlesInAFileBrowsersOrder) {
    for (const auto* name : {"vm10", "vm2", "Vm1", "b u\xCC\x88"})
        makeDirectory(name, {"config.json", "disk.img"});
    makeDirectory("no config", {"disk.qcow2"});
    makeDirectory("installing", {"config.json", "disk.img", ".dorvane-installing"});
    makeDirectory(".hidden", {"config.json", "disk.img"});
    makeDirectory("latin1 \xE9", {"config.json", "disk.img"});
    fs::create_directory_symlink("vm2", folder / "link");
    writeFileAtomically(folder / "file", "");
    for (const auto& path : {folder.path(), folder.path() / ""}) {
        std::vector<Path> found;
        for (const auto& bundle : VMBundle::scanBundles(path)) found.push_back(bundle.directoryURL);
        EXPECT_EQ(found, (std::vector<Path>{folder / "b u\xCC\x88", folder / "Vm1", folder / "vm2",
                                            folder / "vm10"}));
    }
}

TEST_F(VMBundleTest, anUnreadableFolderIsNotAnEmptyOne) {
    writeFileAtomically(folder / "file", "");
    for (const auto* name : {"absent", "file"}) {
        EXPECT_THROW(VMBundle::scanBundles(folder / name), FileError);
        EXPECT_THROW(VMBundle::sweepInterruptedWork(folder / name), FileError);
        EXPECT_TRUE(VMBundle::discoverBundles(folder / name).empty());
    }
    EXPECT_TRUE(log.contains("Could not list storage path " + (folder / "absent").string() + ": "));
    EXPECT_TRUE(VMBundle::scanBundles(folder.path()).empty());
}

TEST_F(VMBundleTest, sweepRemovesOnlyInterruptedWork) {
    const std::vector<std::string> doomed{".myvm.restoring-0123ABCD", ".importing-deadBEEF", "half"};
    const std::vector<std::string> kept{
        ".myvm.restoring-0123ABC",  ".myvm.restoring-0123ABCG", ".hidden",           "vm.restoring-0123ABCD",
        ".myvm-restoring-0123ABCD", ".x.restoring-0123ABCD~",   ".dorvane-downloads"};
    for (const auto& name : doomed) makeDirectory(name + "/inner", {"disk.img"});
    for (const auto& name : kept) makeDirectory(name, {"config.json", "disk.img"});
    makeDirectory("half", {".dorvane-installing"});
    makeDirectory(".hidden", {".dorvane-installing"});
    writeFileAtomically(folder / ".file.importing-01234567", "");
    makeDirectory("elsewhere", {"precious"});
    fs::create_directory_symlink("elsewhere", folder / ".link.restoring-01234567");

    auto removed = VMBundle::sweepInterruptedWork(folder.path());
    std::sort(removed.begin(), removed.end());
    EXPECT_EQ(removed, (std::vector<Path>{folder / doomed[1], folder / doomed[0], folder / doomed[2]}));
    for (const auto& name : doomed) EXPECT_FALSE(fs::exists(folder / name)) << name;
    for (const auto& name : kept) EXPECT_TRUE(fs::exists(folder / name)) << name;
    EXPECT_TRUE(fs::exists(folder / ".file.importing-01234567"));
    EXPECT_TRUE(fs::exists(folder / ".link.restoring-01234567" / "precious"));
}

TEST_F(VMBundleTest, aStrayRawDiskGoesOnlyWhenItIsEmptyBesideAnother) {
    const VMBundle bundle(makeDirectory("vm", {"disk.img"}));
    bundle.removeStrayRawDiskIfEmpty();
    EXPECT_TRUE(fs::exists(bundle.rawDisk()));
    writeFileAtomically(bundle.qcow2Disk(), "q");
    writeFileAtomically(bundle.rawDisk(), "data");
    bundle.removeStrayRawDiskIfEmpty();
    EXPECT_TRUE(fs::exists(bundle.rawDisk()));
}

TEST_F(VMBundleTest, ephemeralMarkerHoldsItsDates) {
    const EphemeralInfo info{*parseISO8601("2026-01-02T03:04:05Z"), *parseISO8601("2026-01-02T05:04:05Z"),
                             UUID::random()};
    EXPECT_EQ(info.encoded()["createdAt"], "2026-01-02T03:04:05Z");
    EXPECT_EQ(EphemeralInfo::decoded(info.encoded()), info);
    for (const auto* bad : {R"({"createdAt":"2026-01-02T03:04:05Z"})", R"({"createdAt":5,"expiresAt":6})",
                            R"({"createdAt":"2026-01-02T03:04:05Z","expiresAt":"tomorrow"})"})
        EXPECT_THROW(EphemeralInfo::decoded(parseJSON(bad)), JSONError) << bad;
}

TEST_F(VMBundleTest, backupExclusionMarksDirectoriesOnceAndNeverFails) {
    FakeFileManager files(folder / "Trash");
    const auto vm = makeDirectory("vm", {"disk.img"});
    for (const auto& path : {folder / "absent", vm / "disk.img", vm, vm})
        BackupExclusion::excludeFromBackup(files, path);
    files.failExclusion = true;
    BackupExclusion::excludeFromBackup(files, folder.path());
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(log.lines()[0].message, "Excluded from Time Machine: " + vm.string());
}

}  // namespace
}  // namespace dorvane::test
