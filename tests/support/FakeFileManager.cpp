// SPDX-License-Identifier: Apache-2.0
#include "support/FakeFileManager.h"

namespace dorvane::test {

void FakeFileManager::copyItem(const Path& from, const Path& to) {
    if (failCopies) throw FileError("copy", from, ENOSPC);
    if (std::filesystem::exists(std::filesystem::symlink_status(to))) throw FileError("copy", from, EEXIST);
    std::error_code failure;
    std::filesystem::copy(
        from, to, std::filesystem::copy_options::recursive | std::filesystem::copy_options::copy_symlinks,
        failure);
    if (failure) throw FileError("copy", from, failure.value());
}

Path FakeFileManager::trashItem(const Path& path) {
    if (failTrash) throw FileError("trash", path, EACCES);
    std::filesystem::create_directories(trash_);
    auto place = trash_ / path.filename();
    for (int copy = 2; std::filesystem::exists(place); ++copy)
        place = trash_ / (path.filename().string() + " " + std::to_string(copy));
    std::error_code failure;
    std::filesystem::rename(path, place, failure);
    if (failure) throw FileError("trash", path, failure.value());
    return place;
}

bool FakeFileManager::isExcludedFromBackup(const Path& path) {
    const std::lock_guard lock(mutex_);
    return excluded_.contains(path);
}

void FakeFileManager::setExcludedFromBackup(const Path& path) {
    const std::lock_guard lock(mutex_);
    if (failExclusion) throw FileError("mark", path, ENOTSUP);
    excluded_.insert(path);
}

std::uint64_t FakeFileManager::availableCapacity(const Path&) { return capacity; }

}  // namespace dorvane::test
