// SPDX-License-Identifier: Apache-2.0
#include "core/SettingsService.h"

#include <gtest/gtest.h>

#include "core/SecurityScopedBookmarkStore.h"
#include "support/FakeDefaultsStore.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"

namespace dorvane {
namespace {

/// Bookmarks are the path's text; "stale:" before it makes one stale, anything but a path can't be resolved.
struct FakeScopedResources : ScopedResources {
    Resolved resolve(ByteView bookmark) override {
        const std::string text(asText(bookmark));
        if (text.starts_with("stale:")) return {text.substr(6), true};
        if (!text.starts_with('/')) throw std::runtime_error("no bookmark");
        return {text, false};
    }
    Bytes makeBookmark(const Path& path) override { return toBytes(path.string()); }
    bool startAccessing(const Path& path) override { return open.insert(path).second; }
    void stopAccessing(const Path& path) override { EXPECT_EQ(open.erase(path), 1U); }
    std::set<Path> open;
};

class SettingsServiceTest : public testing::Test {
  protected:
    static ApplicationDirectories directoriesIn(const Path& documents) {
        ApplicationDirectories all;
        all.documents = documents;
        return all;
    }
    test::TemporaryDirectory folder;
    test::FakeDefaultsStore defaults;
    ApplicationDirectories directories = directoriesIn(folder / "Documents");
    SettingsService settings{defaults, directories, "nobody-of-this-name"};
};

TEST_F(SettingsServiceTest, storagePathIsTheChosenOneOrTheDefault) {
    const auto standard = folder / "Documents" / "Dorvane" / "VMs";
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

TEST_F(SettingsServiceTest, storagePathIsAnsweredWhenItCannotBeMade) {
    writeFileAtomically(folder / "Documents", "in the way");
    EXPECT_EQ(settings.storagePath(), folder / "Documents" / "Dorvane" / "VMs");
}

TEST_F(SettingsServiceTest, isAnsweredFromSettingsThatCannotBeWritten) {
    const test::LogCapture log;
    FakeScopedResources resources;
    SecurityScopedBookmarkStore bookmarks(&resources);
    settings.setStoragePathBookmark(toBytes("stale:/volume"));
    defaults.set(defaultsKey::vmStoragePath, "relative/path");
    defaults.failSets = true;
    EXPECT_EQ(settings.storagePath(), folder / "Documents" / "Dorvane" / "VMs");
    EXPECT_TRUE(log.contains("The setting vmStoragePath could not be kept: "));
    {
        const auto token = settings.restoreStoragePathAccess(bookmarks);
        EXPECT_EQ(resources.open, std::set<Path>{"/volume"});
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

TEST(SecurityScopedBookmarkStore, holdsAccessUntilTheTokenEnds) {
    const test::LogCapture log;
    FakeScopedResources resources;
    SecurityScopedBookmarkStore store(&resources);
    const Bookmarks bookmarks{
        {"/a", toBytes("/a")}, {"/b", toBytes("stale:/moved")}, {"/c", toBytes("junk")}};
    {
        auto token = store.beginAccess(bookmarks);
        EXPECT_EQ(resources.open, (std::set<Path>{"/a", "/moved"}));
        EXPECT_EQ(token.refreshedBookmarks(), (Bookmarks{{"/b", toBytes("/moved")}}));
        EXPECT_TRUE(log.contains("Could not resolve bookmark for /c"));
        auto moved = std::move(token);
        EXPECT_EQ(resources.open.size(), 2U);
        moved.end();
        moved.end();
        EXPECT_TRUE(resources.open.empty());
    }
    { const auto released = store.beginAccess(bookmarks); }
    EXPECT_TRUE(resources.open.empty());
}

TEST_F(SettingsServiceTest, restoresAccessToTheChosenFolderAndRenewsItsBookmark) {
    FakeScopedResources resources;
    SecurityScopedBookmarkStore bookmarks(&resources);
    settings.setStoragePath("/volume");
    { const auto none = settings.restoreStoragePathAccess(bookmarks); }
    settings.setStoragePathBookmark(toBytes("stale:/volume"));
    {
        const auto token = settings.restoreStoragePathAccess(bookmarks);
        EXPECT_EQ(resources.open, std::set<Path>{"/volume"});
    }
    EXPECT_TRUE(resources.open.empty());
    EXPECT_EQ(settings.storagePathBookmark(), toBytes("/volume"));
}

TEST(SecurityScopedBookmarkStore, aHostWithoutScopedPermissionsGivesEmptyTokens) {
    const test::LogCapture log;
    auto token = SecurityScopedBookmarkStore().beginAccess({{"/a", toBytes("anything")}});
    EXPECT_TRUE(token.refreshedBookmarks().empty());
    token.end();
    EXPECT_TRUE(log.lines().empty());
}

}  // namespace
}  // namespace dorvane
