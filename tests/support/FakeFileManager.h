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

    void copyItem(const Path& from, const Path& to) override;
    Path trashItem(const Path& path) override;
    bool isExcludedFromBackup(const Path& path) override;
    void setExcludedFromBackup(const Path& path) override;
    std::uint64_t availableCapacity(const Path&) override;

    bool failCopies = false;
    bool failTrash = false;
    bool failExclusion = false;
    std::uint64_t capacity = std::uint64_t{1} << 40;

  private:
    Path trash_;
    std::mutex mutex_;
    std::set<Path> excluded_;
};

}  // namespace dorvane::test
