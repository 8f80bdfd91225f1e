// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/Trash.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>

#include "base/Text.h"
#include "runtime/FileDescriptor.h"

namespace dorvane {
namespace {

constexpr auto verb = "move to the Trash";

/// Absolute, with the links of its folder resolved and its own left alone.
Path located(const Path& item) {
    std::error_code failure;
    auto path = std::filesystem::absolute(item, failure).lexically_normal();
    if (!path.has_filename()) path = path.parent_path();
    const auto folder = std::filesystem::canonical(path.parent_path(), failure);
    if (failure) throw FileError(verb, item, failure.value());
    return folder / path.filename();
}

dev_t deviceOf(const Path& path) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0) throw FileError(verb, path, errno);
    return info.st_dev;
}

/// The topmost folder above `item` that is still on its file system.
Path topDirectory(const Path& item, dev_t device) {
    auto top = item.parent_path();
    while (top != top.root_path() && deviceOf(top.parent_path()) == device) top = top.parent_path();
    return top;
}

void makeFolder(const Path& folder, const Path& item) {
    if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) throw FileError(verb, item, errno);
}

/// ".Trash" counts only as a true folder with the sticky bit; anything else could be a trap.
bool isSharedTrash(const Path& folder) {
    struct stat info {};
    return ::lstat(folder.c_str(), &info) == 0 && S_ISDIR(info.st_mode) && (info.st_mode & S_ISVTX) != 0;
}

bool isOwnFolder(const Path& folder) {
    struct stat info {};
    return ::lstat(folder.c_str(), &info) == 0 && S_ISDIR(info.st_mode) && info.st_uid == ::getuid();
}

Path trashAtTop(const Path& top, const Path& item) {
    const auto user = std::to_string(::getuid());
    if (const auto shared = top / ".Trash"; isSharedTrash(shared)) {
        ::mkdir((shared / user).c_str(), 0700);
        if (isOwnFolder(shared / user)) return shared / user;
    }
    auto own = top / (".Trash-" + user);
    makeFolder(own, item);
    if (!isOwnFolder(own)) throw FileError(verb, item, EPERM);
    return own;
}

std::string percentEncoded(const std::string& path) {
    constexpr std::string_view plain = "-_.!~*'()/";
    std::string result;
    for (const char c : path) {
        const bool keep = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                          plain.find(c) != std::string_view::npos;
        result += keep ? std::string(1, c) : fmt::format("%{:02X}", static_cast<unsigned char>(c));
    }
    return result;
}

std::string trashInfo(const Path& originalPath) {
    const auto now = std::time(nullptr);
    struct tm local {};
    ::localtime_r(&now, &local);
    char date[32];
    std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &local);
    return "[Trash Info]\nPath=" + percentEncoded(originalPath.string()) + "\nDeletionDate=" + date + "\n";
}

/// Reserves a name by making its note, and returns the name. Two programs never get the same one.
std::string reserveName(const Path& trash, const Path& item, const std::string& info) {
    const auto wanted = item.filename().string();
    for (int count = 1;; ++count) {
        auto name = count == 1 ? wanted : wanted + "." + std::to_string(count);
        const auto note = trash / "info" / (name + ".trashinfo");
        const FileDescriptor fd(::open(note.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
        if (!fd && errno == EEXIST) continue;
        if (!fd) throw FileError(verb, item, errno);
        if (::write(fd.get(), info.data(), info.size()) == static_cast<ssize_t>(info.size())) return name;
        const int number = errno;
        ::unlink(note.c_str());
        throw FileError(verb, item, number);
    }
}

Path moveInto(const Path& trash, const Path& item, const Path& originalPath) {
    makeFolder(trash / "info", item);
    makeFolder(trash / "files", item);
    const auto name = reserveName(trash, item, trashInfo(originalPath));
    auto target = trash / "files" / name;
    if (::renameat2(AT_FDCWD, item.c_str(), AT_FDCWD, target.c_str(), RENAME_NOREPLACE) != 0) {
        const int number = errno;
        ::unlink((trash / "info" / (name + ".trashinfo")).c_str());
        throw FileError(verb, item, number);
    }
    return target;
}

}  // namespace

Path Trash::accept(const Path& item) const {
    const auto path = located(item);
    const auto device = deviceOf(path);
    std::error_code ignored;
    std::filesystem::create_directories(homeTrash_.parent_path(), ignored);
    makeFolder(homeTrash_, path);
    if (deviceOf(homeTrash_) == device) {
        try {
            return moveInto(homeTrash_, path, path);
        } catch (const FileError& error) {
            // One device mounted twice: only the mount's own trash is within reach.
            if (error.number() != EXDEV) throw;
        }
    }
    const auto top = topDirectory(path, device);
    return moveInto(trashAtTop(top, path), path, path.lexically_relative(top));
}

}  // namespace dorvane
