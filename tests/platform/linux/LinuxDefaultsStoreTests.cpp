// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/LinuxDefaultsStore.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "platform/linux/SmallDisk.h"
#include "support/LogCapture.h"

namespace dorvane::test {
namespace {

TEST(LinuxDefaultsStore, keepsWhatWasSetForTheNextStart) {
    const TemporaryDirectory folder;
    const auto file = folder.path() / "a" / "settings.json";
    {
        LinuxDefaultsStore store(file);
        store.set("mcpServerEnabled", true);
        store.set("mcpServerPort", 59800);
        store.set("gone", "x");
        store.remove("gone");
    }
    const LinuxDefaultsStore store(file);
    EXPECT_EQ(store.boolean("mcpServerEnabled"), true);
    EXPECT_EQ(store.integer("mcpServerPort"), 59800);
    EXPECT_EQ(store.boolean("mcpServerPort"), std::nullopt);
    EXPECT_EQ(store.keys(), (std::vector<std::string>{"mcpServerEnabled", "mcpServerPort"}));
    EXPECT_FALSE(store.problem());
    EXPECT_EQ(std::filesystem::status(file).permissions(), std::filesystem::perms(0600));
}

TEST(LinuxDefaultsStore, tellsEachChangeOnceAndOnlyChanges) {
    const TemporaryDirectory folder;
    LinuxDefaultsStore store(folder / "s");
    std::vector<std::string> told;
    const Subscription subscription = store.changed.connect([&](const std::string& key) {
        told.push_back(key + "=" + store.value(key).dump());  // reading inside must not lock up
    });
    store.set("k", 1);
    store.set("k", 1);
    store.remove("absent");
    store.remove("k");
    EXPECT_EQ(told, (std::vector<std::string>{"k=1", "k=null"}));
}

TEST(LinuxDefaultsStore, damagedFileIsKeptAsideAndNeverOverwritten) {
    for (const std::string damaged : {"", "{\"a\": 1", "[1]", "\xff"}) {
        const TemporaryDirectory folder;
        const LogCapture log;
        const auto file = folder / "settings.json";
        writeFileAtomically(folder / "settings.json.damaged", "earlier");
        writeFileAtomically(file, damaged);
        LinuxDefaultsStore store(file);
        ASSERT_TRUE(store.problem());
        EXPECT_NE(store.problem()->find("settings.json.damaged-2"), std::string::npos);
        EXPECT_TRUE(log.contains("is damaged and was kept as"));
        store.set("k", "v");
        EXPECT_EQ(readTextFile(folder / "settings.json.damaged"), "earlier");
        EXPECT_EQ(readTextFile(folder / "settings.json.damaged-2"), damaged);
        EXPECT_EQ(LinuxDefaultsStore(file).text("k"), "v");
    }
}

TEST(LinuxDefaultsStore, fileThatCanNotBeReadIsLeftAlone) {
    const TemporaryDirectory folder;
    const LogCapture log;
    ::mkfifo((folder / "s").c_str(), 0600);
    LinuxDefaultsStore store(folder / "s");
    EXPECT_TRUE(store.problem());
    EXPECT_THROW(store.set("k", 1), FileError);
    EXPECT_TRUE(std::filesystem::is_fifo(folder / "s"));
    EXPECT_TRUE(store.value("k").is_null());
}

TEST(LinuxDefaultsStore, linkedFileStaysALink) {
    const TemporaryDirectory folder;
    writeFileAtomically(folder / "real.json", "{}");
    std::filesystem::create_symlink(folder / "real.json", folder / "s");
    LinuxDefaultsStore(folder / "s").set("k", 1);
    EXPECT_TRUE(std::filesystem::is_symlink(folder / "s"));
    EXPECT_EQ(LinuxDefaultsStore(folder / "real.json").integer("k"), 1);
}

TEST(LinuxDefaultsStore, fullDiskKeepsTheOldValueInMemoryAndOnDisk) {
    const SmallDisk disk;
    SKIP_UNLESS_MOUNTED(disk);
    LinuxDefaultsStore store(disk / "s");
    store.set("k", "old");
    EXPECT_THROW(store.set("k", std::string(300000, 'x')), FileError);
    EXPECT_EQ(store.text("k"), "old");
    EXPECT_EQ(LinuxDefaultsStore(disk / "s").text("k"), "old");
}

}  // namespace
}  // namespace dorvane::test
