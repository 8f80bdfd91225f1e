// SPDX-License-Identifier: Apache-2.0
// Real copies and moves, with the Trash in a folder that the test names, and failures on demand.
#pragma once

#include <mutex>
#include <set>

#include "platform/FileManager.h"

namespace dorvane::test {

class FakeFileManager : public FileManager {
  public:
    /// `trash` is made when first needed.
    explicit FakeFileManager(Path trash) : trash_(std::move(trash)) {}

    void copyItem(const Path& from, const Path& to) override {
        if (isThere(to)) throw FileError("copy", from, EEXIST);
        using Options = std::filesystem::copy_options;
        std::error_code failure;
        std::filesystem::copy(from, to, Options::recursive | Options::copy_symlinks, failure);
        if (failure) throw FileError("copy", from, failure.value());
    }
    Path trashItem(const Path& path) override {
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
    bool isExcludedFromBackup(const Path& path) override {
        const std::lock_guard lock(mutex_);
        return excluded_.contains(path);
    }
    void setExcludedFromBackup(const Path& path) override {
        const std::lock_guard lock(mutex_);
        if (failExclusion) throw FileError("mark", path, ENOTSUP);
        excluded_.insert(path);
    }
    std::uint64_t availableCapacity(const Path&) override { return capacity; }

    bool failTrash = false;
    bool failExclusion = false;
    std::uint64_t capacity = std::uint64_t{1} << 40;

  private:
    Path trash_;
    std::mutex mutex_;
    std::set<Path> excluded_;
};

}  // namespace dorvane::test
