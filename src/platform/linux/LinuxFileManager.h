// SPDX-License-Identifier: Apache-2.0
// File operations on Linux: block-sharing copies, the desktop's Trash, backup hints.
#pragma once

#include "platform/FileManager.h"
#include "platform/linux/Trash.h"

namespace dorvane {

/// There is no mark that every backup program on Linux honours; the extended attribute
/// "user.xdg.robots.backup" with the value "false" is the one that freedesktop.org names. Where it can't be
/// kept, setting it throws.
class LinuxFileManager : public FileManager {
  public:
    explicit LinuxFileManager(Path homeTrash) : trash_(std::move(homeTrash)) {}

    void copyItem(const Path& from, const Path& to) override;
    Path trashItem(const Path& path) override { return trash_.accept(path); }
    bool isExcludedFromBackup(const Path& path) override;
    void setExcludedFromBackup(const Path& path) override;
    /// A path that doesn't exist yet is answered for the folder that it would be made in.
    std::uint64_t availableCapacity(const Path& path) override;

  private:
    Trash trash_;
};

}  // namespace dorvane
