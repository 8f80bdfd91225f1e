// SPDX-License-Identifier: Apache-2.0
// File operations whose best form differs from host to host.
#pragma once

#include "runtime/Files.h"

namespace dorvane {

/// Blocking; safe on any thread. All throw FileError.
class FileManager {
  public:
    virtual ~FileManager() = default;

    /// Copies a file or a whole directory; `to` must not exist. Shares blocks where the file system can
    /// (copy-on-write), keeps holes elsewhere. Symbolic links are copied as links. On failure what was copied
    /// stays for the caller to remove.
    virtual void copyItem(const Path& from, const Path& to) = 0;
    /// Moves an item to the user's Trash and returns where it went.
    virtual Path trashItem(const Path& path) = 0;
    virtual bool isExcludedFromBackup(const Path& path) = 0;
    virtual void setExcludedFromBackup(const Path& path) = 0;
    /// Bytes free for the user on the file system of `path`.
    virtual std::uint64_t availableCapacity(const Path& path) = 0;
};

}  // namespace dorvane
