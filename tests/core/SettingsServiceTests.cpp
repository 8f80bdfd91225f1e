// SPDX-License-Identifier: Apache-2.0
#include "core/SettingsService.h"

#include "core/VMServiceHarness.h"

namespace dorvane::test {
namespace {

class SettingsServiceTest : public testing::Test {
  protected:
    SettingsServiceTest() { directories.documents = folder / "Documents"; }

    TemporaryDirectory folder;
    LogCapture log;
    FakeDefaultsStore defaults;
    ApplicationDirectories directories;
    SettingsService settings{defaults, directories, "nobody-of-this-name"};
    FakeScopedResources resources;
    SecurityScopedBookmarkStore bookmarks{&resources};
    Path standard = folder / "Documents" / "Dorvane" / "VMs";
};

TEST_F(SettingsServiceTest, storagePathIsTheChosenOneOrTheDefault) {
    EXPECT_EQ(settings.storagePath(), standard);
    EXPECT_TRUE(std::filesystem::is_directory(standard));
    settings.setStoragePath("/somewhere else");
    EXPECT_EQ(settings.storagePath(), "/somewhere else");
    for (const auto& wrong : {JSON("relative/path"), JSON(""), JSON(5), JSON::array({"/a"})}) {
        defaults.set(defaultsKey::vmStoragePath, wrong);
        EXPECT_EQ(settings.storagePath(), standard) << wrong;
        EXPECT_TRUE(defaults.keys().empty()) << wrong;
    }
}

TEST_F(SettingsServiceTest, isAnsweredFromSettingsThatCannotBeWritten) {
    writeFileAtomically(folder / "Documents", "in the way");
    settings.setStoragePathBookmark(toBytes("stale:/volume"));
    defaults.set(defaultsKey::vmStoragePath, "relative/path");
    defaults.failSets = true;
    EXPECT_EQ(settings.storagePath(), standard) << "it can't be made either";
    EXPECT_TRUE(log.contains("The setting vmStoragePath could not be kept: "));
    {
        const auto token = settings.restoreStoragePathAccess(bookmarks);
        EXPECT_EQ(resources.open, std::multiset<Path>{"/volume"});
    }
    EXPECT_TRUE(log.contains("The setting vmStoragePathBookmark could not be kept: "));
    EXPECT_THROW(settings.setStoragePath("/chosen"), FileError) << "what the user asks for fails loudly";
}

TEST_F(SettingsServiceTest, snapshotSettingsHaveTheirDefaults) {
    EXPECT_TRUE(settings.isMCPAutoSnapshotEnabled());
    EXPECT_FALSE(settings.areDestructiveToolsEnabled());
    EXPECT_EQ(settings.mcpAutoSnapshotKeepCount(), 3);
    const std::vector<std::pair<JSON, int>> table{{50, 50}, {51, 3},  {0, 0},
                                                  {-1, 3},  {"7", 3}, {1LL << 40, 3}};
    for (const auto& [stored, read] : table) {
        defaults.set(defaultsKey::mcpAutoSnapshotKeepCount, stored);
        EXPECT_EQ(settings.mcpAutoSnapshotKeepCount(), read) << stored;
    }
    defaults.set(defaultsKey::mcpAutoSnapshotEnabled, false);
    EXPECT_FALSE(settings.isMCPAutoSnapshotEnabled());
}

TEST_F(SettingsServiceTest, restoresAccessToTheChosenFolderAndRenewsItsBookmark) {
    settings.setStoragePath("/volume");
    { const auto none = settings.restoreStoragePathAccess(bookmarks); }
    settings.setStoragePathBookmark(toBytes("stale:/volume"));
    {
        const auto token = settings.restoreStoragePathAccess(bookmarks);
        EXPECT_EQ(resources.open, std::multiset<Path>{"/volume"});
    }
    EXPECT_TRUE(resources.open.empty());
    EXPECT_EQ(settings.storagePathBookmark(), toBytes("/volume"));
}

TEST_F(SettingsServiceTest, bookmarksHoldAccessUntilTheirTokenEnds) {
    const Bookmarks given{{"/a", toBytes("/a")}, {"/b", toBytes("stale:/moved")}, {"/c", toBytes("junk")}};
    {
        auto token = bookmarks.beginAccess(given);
        EXPECT_EQ(resources.open, (std::multiset<Path>{"/a", "/moved"}));
        EXPECT_EQ(token.refreshedBookmarks(), (Bookmarks{{"/b", toBytes("/moved")}}));
        EXPECT_TRUE(log.contains("Could not resolve bookmark for /c"));
        auto moved = std::move(token);
        EXPECT_EQ(resources.open.size(), 2U);
        moved.end();
        moved.end();
        EXPECT_TRUE(resources.open.empty());
    }
    { const auto released = bookmarks.beginAccess(given); }
    EXPECT_TRUE(resources.open.empty());

    const auto lines = log.lines().size();
    auto token = SecurityScopedBookmarkStore().beginAccess(given);
    EXPECT_TRUE(token.refreshedBookmarks().empty()) << "a host without such permissions";
    token.end();
    EXPECT_EQ(log.lines().size(), lines);
}

}  // namespace
}  // namespace dorvane::test
