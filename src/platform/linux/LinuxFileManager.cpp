// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/LinuxFileManager.h"

#include <sys/statvfs.h>
#include <sys/xattr.h>

#include "platform/linux/FileCopy.h"

namespace dorvane {
namespace {

constexpr auto backupAttribute = "user.xdg.robots.backup";
constexpr std::string_view noBackup = "false";

}  // namespace

void LinuxFileManager::copyItem(const Path& from, const Path& to) { copyFileTree(from, to); }

bool LinuxFileManager::isExcludedFromBackup(const Path& path) {
    char value[16];
    const auto size = ::getxattr(path.c_str(), backupAttribute, value, sizeof value);
    if (size >= 0) return std::string_view(value, static_cast<std::size_t>(size)) == noBackup;
    if (errno == ENODATA || errno == ENOTSUP || errno == ERANGE) return false;
    throw FileError("read", path, errno);
}

void LinuxFileManager::setExcludedFromBackup(const Path& path) {
    if (::setxattr(path.c_str(), backupAttribute, noBackup.data(), noBackup.size(), 0) != 0)
        throw FileError("exclude from backups", path, errno);
}

std::uint64_t LinuxFileManager::availableCapacity(const Path& path) {
    struct statvfs info {};
    Path existing = path;
    while (::statvfs(existing.empty() ? "." : existing.c_str(), &info) != 0) {
        if (errno != ENOENT || existing.empty() || existing == existing.root_path())
            throw FileError("measure", path, errno);
        existing = existing.parent_path();
    }
    return std::uint64_t{info.f_bavail} * info.f_frsize;
}

}  // namespace dorvane
