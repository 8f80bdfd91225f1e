// SPDX-License-Identifier: Apache-2.0
// Getting rid of a VM's directory.
#pragma once

#include <optional>

#include "platform/FileManager.h"

namespace dorvane {

/// Blocking; for background work.
class VMDirectoryDisposing {
  public:
    virtual ~VMDirectoryDisposing() = default;
    /// Removes the directory for good, or moves it to the Trash and returns where it went. Throws FileError.
    virtual std::optional<Path> dispose(const Path& directory, bool permanently) = 0;
};

class FileManagerDirectoryDisposer : public VMDirectoryDisposing {
  public:
    explicit FileManagerDirectoryDisposer(FileManager& fileManager) : fileManager_(fileManager) {}
    std::optional<Path> dispose(const Path& directory, bool permanently) override;

  private:
    FileManager& fileManager_;
};

}  // namespace dorvane
