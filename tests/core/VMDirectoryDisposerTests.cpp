// SPDX-License-Identifier: Apache-2.0
#include "core/VMDirectoryDisposer.h"

#include <gtest/gtest.h>

#include "core/BackupExclusion.h"
#include "support/FakeFileManager.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"

namespace dorvane {
namespace {

namespace fs = std::filesystem;

class VMDirectoryDisposerTest : public testing::Test {
  protected:
    void SetUp() override {
        fs::create_directories(folder / "vm" / "Snapshots");
        writeFileAtomically(folder / "vm" / "disk.img", "data");
    }
    test::TemporaryDirectory folder;
    test::FakeFileManager fileManager{folder / "Trash"};
    FileManagerDirectoryDisposer disposer{fileManager};
};

TEST_F(VMDirectoryDisposerTest, trashesOrRemoves) {
    EXPECT_EQ(disposer.dispose(folder / "vm", false), folder / "Trash" / "vm");
    EXPECT_EQ(readTextFile(folder / "Trash" / "vm" / "disk.img"), "data");
    EXPECT_EQ(disposer.dispose(folder / "Trash" / "vm", true), std::nullopt);
    EXPECT_FALSE(fs::exists(folder / "Trash" / "vm"));
}

TEST_F(VMDirectoryDisposerTest, failuresReachTheCaller) {
    EXPECT_THROW(disposer.dispose(folder / "absent", true), FileError);
    fileManager.failTrash = true;
    EXPECT_THROW(disposer.dispose(folder / "vm", false), FileError);
    EXPECT_TRUE(fs::exists(folder / "vm" / "disk.img"));
}

TEST_F(VMDirectoryDisposerTest, backupExclusionMarksDirectoriesOnceAndNeverFails) {
    const test::LogCapture log;
    BackupExclusion::excludeFromBackup(fileManager, folder / "absent");
    BackupExclusion::excludeFromBackup(fileManager, folder / "vm" / "disk.img");
    EXPECT_TRUE(log.lines().empty());
    BackupExclusion::excludeFromBackup(fileManager, folder / "vm");
    BackupExclusion::excludeFromBackup(fileManager, folder / "vm");
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(log.lines()[0].message, "Excluded from Time Machine: " + (folder / "vm").string());
    fileManager.failExclusion = true;
    BackupExclusion::excludeFromBackup(fileManager, folder.path());
    EXPECT_EQ(log.lines().size(), 1U);
}

}  // namespace
}  // namespace dorvane
