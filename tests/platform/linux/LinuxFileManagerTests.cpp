// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/LinuxFileManager.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <fstream>

#include "platform/linux/SmallDisk.h"

namespace dorvane::test {
namespace {

/// Some of these is another file system than the temporary folder's.
constexpr auto folders = {"/dev/shm", "/tmp", "/var/tmp"};

struct stat statusOf(const Path& path) {
    struct stat info {};
    EXPECT_EQ(::lstat(path.c_str(), &info), 0) << path;
    return info;
}

FileError failureOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const FileError& error) {
        return error;
    }
    return {"fail to", "do anything", 0};
}

/// Three megabytes with data at both ends of a hole and a hole at the end.
void makeSparseFile(const Path& path) {
    truncateFile(path, 3 << 20);
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    file << "begin";
    file.seekp((2 << 20) - 3);
    file << "end";
}

class Copying : public testing::TestWithParam<bool> {
  protected:
    void SetUp() override {
        if (!GetParam()) return;
        const auto isElsewhere = [&](const Path& folder) {
            return ::access(folder.c_str(), W_OK) == 0 &&
                   statusOf(folder).st_dev != statusOf(here_.path()).st_dev;
        };
        const auto* const folder = std::ranges::find_if(folders, isElsewhere);
        if (folder == folders.end()) GTEST_SKIP() << "there is no second file system here";
        elsewhere_.emplace(*folder);
    }
    Path target(const std::string& name) const { return (elsewhere_ ? *elsewhere_ : here_) / name; }

    TemporaryDirectory here_;
    std::optional<TemporaryDirectory> elsewhere_;
    LinuxFileManager files_{here_ / "Trash"};
};

TEST_P(Copying, keepsHolesContentTimesAndPermissions) {
    const auto source = here_ / "disk.img";
    makeSparseFile(source);
    ::chmod(source.c_str(), 0640);
    const struct timespec times[2] = {{1000, 0}, {2000, 5}};
    ::utimensat(AT_FDCWD, source.c_str(), times, 0);
    files_.copyItem(source, target("copy.img"));
    const auto copy = statusOf(target("copy.img"));
    EXPECT_EQ(readFile(target("copy.img")), readFile(source));
    EXPECT_LE(copy.st_blocks * 512, 64 << 10) << "the hole was filled";
    EXPECT_EQ(copy.st_mode & 07777, 0640U);
    EXPECT_EQ(copy.st_mtim.tv_sec, 2000);
}

TEST_P(Copying, bringsAWholeFolderWithLinksAndClosedFolders) {
    const auto source = here_ / "vm";
    std::filesystem::create_directories(source / "Snapshots" / "one");
    writeFileAtomically(source / "config.json", "{}");
    writeFileAtomically(source / "Snapshots" / "one" / "disk.qcow2", "layer");
    truncateFile(source / "empty", 0);
    std::filesystem::create_symlink("nowhere", source / "dangling");
    ::chmod((source / "Snapshots").c_str(), 0500);
    files_.copyItem(source, target("clone"));
    EXPECT_EQ(readTextFile(target("clone") / "Snapshots" / "one" / "disk.qcow2"), "layer");
    EXPECT_EQ(statusOf(target("clone") / "empty").st_size, 0);
    EXPECT_EQ(std::filesystem::read_symlink(target("clone") / "dangling"), "nowhere");
    EXPECT_EQ(statusOf(target("clone") / "Snapshots").st_mode & 07777, 0500U);
}

INSTANTIATE_TEST_SUITE_P(, Copying, testing::Bool(), [](const auto& each) {
    return each.param ? "acrossFileSystems" : "onOneFileSystem";
});

TEST(LinuxFileManager, copyKeepsTheUsersAttributes) {
    const TemporaryDirectory folder;
    writeFileAtomically(folder / "a", "x");
    if (::setxattr((folder / "a").c_str(), "user.note", "v", 1, 0) != 0)
        GTEST_SKIP() << "the temporary folder's file system keeps no attributes";
    LinuxFileManager files(folder / "Trash");
    files.copyItem(folder / "a", folder / "b");
    char value[4];
    EXPECT_EQ(::getxattr((folder / "b").c_str(), "user.note", value, sizeof value), 1);
    EXPECT_FALSE(files.isExcludedFromBackup(folder / "b"));
    files.setExcludedFromBackup(folder / "b");
    EXPECT_TRUE(files.isExcludedFromBackup(folder / "b"));
}

TEST(LinuxFileManager, refusesWhatItCanNotCopyWithoutTouchingWhatIsThere) {
    const TemporaryDirectory folder;
    std::filesystem::create_directories(folder / "d");
    writeFileAtomically(folder / "a", "x");
    writeFileAtomically(folder / "there", "old");
    std::filesystem::create_symlink("nowhere", folder / "link");
    ::mkfifo((folder / "fifo").c_str(), 0600);
    LinuxFileManager files(folder / "Trash");
    const struct {
        Path from, to;
        int number;
    } cases[] = {
        {folder / "a", folder / "there", EEXIST},
        {folder / "a", folder / "link", EEXIST},
        {folder / "d", folder.path() / "d" / "inside", EINVAL},
        {folder / "fifo", folder / "copy", ENOTSUP},
        {folder / "missing", folder / "copy", ENOENT},
        {folder / "a", folder.path() / "missing" / "copy", ENOENT},
    };
    for (const auto& each : cases)
        EXPECT_EQ(failureOf([&] { files.copyItem(each.from, each.to); }).number(), each.number)
            << each.from << each.to;
    EXPECT_EQ(readTextFile(folder / "there"), "old");
}

TEST(LinuxFileManager, fullDiskIsTold) {
    const SmallDisk disk;
    SKIP_UNLESS_MOUNTED(disk);
    const TemporaryDirectory folder;
    writeFileAtomically(folder / "big", std::string(1 << 20, 'x'));
    LinuxFileManager files(folder / "Trash");
    EXPECT_LE(files.availableCapacity(disk.path() / "not" / "yet"), 256U << 10);
    const auto failure = failureOf([&] { files.copyItem(folder / "big", disk / "big"); });
    EXPECT_EQ(failure.number(), ENOSPC);
    EXPECT_EQ(std::string(failure.what()),
              "Could not write " + (disk / "big").string() + ": No space left on device");
}

}  // namespace
}  // namespace dorvane::test
