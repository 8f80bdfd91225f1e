// SPDX-License-Identifier: Apache-2.0
#include "core/AppSettings.h"

namespace dorvane {

Path AppSettings::defaultVMStoragePath(const ApplicationDirectories& directories) {
    return directories.documents / "Dorvane" / "VMs";
}

bool AppSettings::directoryHasContents(const Path& directory) {
    std::error_code failure;
    const std::filesystem::directory_iterator first(directory, failure);
    return !failure && first != std::filesystem::directory_iterator();
}

}  // namespace dorvane
