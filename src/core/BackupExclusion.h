// SPDX-License-Identifier: Apache-2.0
// Keeps disks of many gigabytes out of the host's backup.
#pragma once

#include "platform/FileManager.h"

namespace dorvane {

struct BackupExclusion {
    /// Blocking; any thread. Does nothing unless the path is a directory; every failure is swallowed.
    static void excludeFromBackup(FileManager& fileManager, const Path& path);
};

}  // namespace dorvane
