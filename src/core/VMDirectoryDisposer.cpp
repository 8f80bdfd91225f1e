// SPDX-License-Identifier: Apache-2.0
#include "core/VMDirectoryDisposer.h"

namespace dorvane {

std::optional<Path> FileManagerDirectoryDisposer::dispose(const Path& directory, bool permanently) {
    if (!permanently) return fileManager_.trashItem(directory);
    std::error_code failure;
    const auto removed = std::filesystem::remove_all(directory, failure);
    if (failure || removed == 0) throw FileError("remove", directory, failure ? failure.value() : ENOENT);
    return std::nullopt;
}

}  // namespace dorvane
