// SPDX-License-Identifier: Apache-2.0
#include "core/VMBundle.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "core/DiskImageTool.h"
#include "core/DorvaneError.h"
#include "support/ErrorOf.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"

namespace dorvane {
namespace {

namespace fs = std::filesystem;
using Case = DorvaneError::Case;

class VMBundleTest : public testing::Test {
  protected:
    Path makeDirectory(const std::string& name, const std::vector<std::string>& files) const {
        fs::create_directories(folder / name);
        for (const auto& file : files) writeFileAtomically(folder / name / file, "");
        return folder / name;
    }
    std::vector<std::string> scannedNames() const {
        std::vector<std::string> names;
        for (const auto& bundle : VMBundle::scanBundles(folder.path())) names.push_back(bundle.name());
        return names;
    }

    test::TemporaryDirectory folder;
    test::LogCapture log;
};

struct StubImageTool : DiskImageTool {
    bool fails = false;
    void createImage(const Path& path, std::uint64_t sizeBytes) const override {
        if (fails) throw DorvaneError(Case::vmCreationFailed, "no room");
        writeFileAtomically(path, std::to_string(sizeBytes));
    }
    void resizeImage(const Path&, std::uint64_t) const override {}
};

TEST_F(VMBundleTest, creationMakesASparseDiskAndGrowsIt) {
    const auto bundle = VMBundle::create(folder / "deep" / "vm", std::uint64_t{64} << 30);
    EXPECT_EQ(bundle.diskImageLogicalSize(), std::uint64_t{64} << 30);
    struct stat info {};
    ASSERT_EQ(::stat(bundle.rawDisk().c_str(), &info), 0);
    EXPECT_LT(info.st_blocks, 64);
    bundle.allocateSparseDiskImage(std::uint64_t{65} << 30);
    EXPECT_EQ(bundle.systemDiskLogicalSize(VMOSType::linux), std::uint64_t{65} << 30);
    EXPECT_EQ(bundle.systemDiskLogicalSize(VMOSType::windows), 0U);
}

TEST_F(VMBundleTest, creationLeavesWhatStandsThereAlone) {
    const auto directory = makeDirectory("vm", {"precious"});
    fs::create_symlink("nowhere", folder / "dangling");
    for (const auto& place : {directory, Path(folder / "dangling")}) {
        EXPECT_EQ(test::errorOf([&] { VMBundle::create(place, 1); }),
                  DorvaneError(Case::vmCreationFailed, "VM directory already exists at " + place.string()));
    }
    EXPECT_TRUE(fs::exists(directory / "precious"));
}

TEST_F(VMBundleTest, failedCreationLeavesNothingBehind) {
    EXPECT_THROW(VMBundle::create(folder / "vm", UINT64_MAX), FileError);
    StubImageTool tool;
    tool.fails = true;
    EXPECT_THROW(VMBundle::createForQEMU(folder / "vm", 1, tool), DorvaneError);
    EXPECT_FALSE(fs::exists(folder / "vm"));
    writeFileAtomically(folder / "file", "");
    EXPECT_THROW(VMBundle::create(folder / "file" / "vm", 1), FileError);

    tool.fails = false;
    EXPECT_TRUE(fs::exists(VMBundle::createForQEMU(folder / "vm", 5, tool).qcow2Disk()));
}

TEST_F(VMBundleTest, validityNeedsAConfigurationAndADisk) {
    using Files = std::vector<std::string>;
    const std::vector<std::pair<Files, bool>> table{{{"config.json", "disk.img", "disk.qcow2"}, true},
                                                    {{"config.json", "disk.img"}, true},
                                                    {{"config.json", "disk.qcow2"}, true},
                                                    {{"config.json"}, false},
                                                    {{"disk.qcow2"}, false},
                                                    {{}, false}};
    for (std::size_t i = 0; i < table.size(); ++i)
        EXPECT_EQ(VMBundle(makeDirectory(std::to_string(i), table[i].first)).isValid(), table[i].second) << i;
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
    EXPECT_EQ(scannedNames(), (std::vector<std::string>{"b u\xCC\x88", "Vm1", "vm2", "vm10"}));
    EXPECT_EQ(VMBundle::scanBundles(folder.path()).front().directoryURL, folder / "b u\xCC\x88");
    EXPECT_EQ(VMBundle::scanBundles(folder.path() / "").front().directoryURL, folder / "b u\xCC\x88");
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

TEST_F(VMBundleTest, housekeepingTouchesOnlyItsOwnFiles) {
    const VMBundle bundle(makeDirectory("vm", {"disk.img", "state.vzvmsave", "state.vzvmsave.devices"}));
    EXPECT_TRUE(bundle.hasSavedState());
    bundle.discardSavedState();
    bundle.discardSavedState();
    EXPECT_FALSE(bundle.hasSavedState() || fs::exists(bundle.savedStateDevices()));

    bundle.removeStrayRawDiskIfEmpty();
    EXPECT_TRUE(fs::exists(bundle.rawDisk()));
    writeFileAtomically(bundle.qcow2Disk(), "q");
    writeFileAtomically(bundle.rawDisk(), "data");
    bundle.removeStrayRawDiskIfEmpty();
    EXPECT_TRUE(fs::exists(bundle.rawDisk()));
    writeFileAtomically(bundle.rawDisk(), "");
    bundle.removeStrayRawDiskIfEmpty();
    EXPECT_FALSE(fs::exists(bundle.rawDisk()));
}

TEST_F(VMBundleTest, ephemeralMarkerHoldsItsDates) {
    const VMBundle bundle(makeDirectory("vm", {}));
    EphemeralInfo info{*parseISO8601("2026-01-02T03:04:05Z"), *parseISO8601("2026-01-02T05:04:05Z"),
                       UUID::random()};
    bundle.writeEphemeralMarker(info);
    const auto value = parseJSON(readTextFile(bundle.ephemeralMarker()));
    EXPECT_EQ(value["createdAt"], "2026-01-02T03:04:05Z");
    EXPECT_EQ(EphemeralInfo::decoded(value), info);
    for (const auto* bad : {R"({"createdAt":"2026-01-02T03:04:05Z"})", R"({"createdAt":5,"expiresAt":6})",
                            R"({"createdAt":"2026-01-02T03:04:05Z","expiresAt":"tomorrow"})"})
        EXPECT_THROW(EphemeralInfo::decoded(parseJSON(bad)), JSONError) << bad;
    bundle.removeEphemeralMarker();
    bundle.removeEphemeralMarker();
    EXPECT_FALSE(fs::exists(bundle.ephemeralMarker()));
}

}  // namespace
}  // namespace dorvane
