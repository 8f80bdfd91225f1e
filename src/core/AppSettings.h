// SPDX-License-Identifier: Apache-2.0
// Where machines stand when nobody has said otherwise.
#pragma once

#include "platform/ApplicationDirectories.h"
#include "runtime/Files.h"

namespace dorvane {

struct AppSettings {
    /// "Dorvane/VMs" in the user's documents.
    static Path defaultVMStoragePath(const ApplicationDirectories& directories);
    /// False also for what is no directory or can't be read.
    static bool directoryHasContents(const Path& directory);
};

}  // namespace dorvane
