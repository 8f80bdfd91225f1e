// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/Trash.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/linux/SmallDisk.h"

namespace dorvane::test {
namespace {

std::string pathLine(const Path& trash, const std::string& name) {
    const auto info = readTextFile(trash / "info" / (name + ".trashinfo"));
    const auto begin = info.find("Path=");
    EXPECT_TRUE(info.starts_with("[Trash Info]\n"));
    EXPECT_NE(info.find("\nDeletionDate=20"), std::string::npos);
    return info.substr(begin, info.find('\n', begin) - begin);
}

TEST(Trash, keepsItemsOfOneNameApartWithTheWayBackWrittenDown) {
    const TemporaryDirectory folder;
    const Trash trash(folder.path() / "share" / "Trash");
    const auto item = folder / "my vm ü%";
    for (const std::string name : {"my vm ü%", "my vm ü%.2"}) {
        std::filesystem::create_directory(item);
        writeFileAtomically(item / "config.json", name);
        const auto place = trash.accept(item.string() + "/");
        EXPECT_EQ(place, folder.path() / "share" / "Trash" / "files" / name);
        EXPECT_FALSE(std::filesystem::exists(item));
        EXPECT_EQ(readTextFile(place / "config.json"), name);
        EXPECT_EQ(pathLine(folder.path() / "share" / "Trash", name),
                  "Path=" + folder.path().string() + "/my%20vm%20%C3%BC%25");
    }
}

TEST(Trash, linkGoesItselfAndFailureLeavesNoNote) {
    const TemporaryDirectory folder;
    const Trash trash(folder / "Trash");
    writeFileAtomically(folder / "target", "x");
    std::filesystem::create_symlink(folder / "target", folder / "link");
    EXPECT_TRUE(std::filesystem::is_symlink(trash.accept(folder / "link")));
    EXPECT_TRUE(std::filesystem::exists(folder / "target"));
    EXPECT_THROW(trash.accept(folder / "missing"), FileError);
    // A folder can't move into its own inside; the note that was made first must go again.
    EXPECT_THROW(trash.accept(folder / "Trash"), FileError);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.path() / "Trash" / "info"), {}), 1);
}

TEST(Trash, itemOfAnotherDiskStaysOnIt) {
    const SmallDisk disk;
    SKIP_UNLESS_MOUNTED(disk);
    const TemporaryDirectory folder;
    const Trash trash(folder / "Trash");
    const auto user = std::to_string(::getuid());
    const auto trashVM = [&] {
        std::filesystem::create_directories(disk.path() / "VMs" / "one");
        return trash.accept(disk.path() / "VMs" / "one");
    };
    const auto own = disk / (".Trash-" + user);
    EXPECT_EQ(trashVM(), own / "files" / "one");
    EXPECT_EQ(pathLine(own, "one"), "Path=VMs/one");
    EXPECT_EQ(std::filesystem::status(own).permissions(), std::filesystem::perms(0700));

    // A folder that an administrator made is preferred, but only with the sticky bit.
    std::filesystem::create_directory(disk / ".Trash");
    ::chmod((disk / ".Trash").c_str(), 0777);
    EXPECT_EQ(trashVM(), own / "files" / "one.2");
    ::chmod((disk / ".Trash").c_str(), 01777);
    EXPECT_EQ(trashVM(), disk.path() / ".Trash" / user / "files" / "one");
}

}  // namespace
}  // namespace dorvane::test
