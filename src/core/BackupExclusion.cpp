// SPDX-License-Identifier: Apache-2.0
#include "core/BackupExclusion.h"

#include "runtime/Logger.h"

namespace dorvane {

void BackupExclusion::excludeFromBackup(FileManager& fileManager, const Path& path) {
    std::error_code ignored;
    if (!std::filesystem::is_directory(path, ignored)) return;
    try {
        if (fileManager.isExcludedFromBackup(path)) return;
        fileManager.setExcludedFromBackup(path);
        Logger("BackupExclusion").info("Excluded from Time Machine: %{public}s", path.string());
    } catch (const std::exception&) {
        // A folder that can't carry the mark is backed up; that harms no machine.
    }
}

}  // namespace dorvane
