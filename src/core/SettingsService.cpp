// SPDX-License-Identifier: Apache-2.0
#include "core/SettingsService.h"

#include "core/AppSettings.h"

namespace dorvane {
namespace {

constexpr auto olderStoragePath = "Library/Containers/com.brontide.dorvane/Data/Documents/Dorvane/VMs";
constexpr int defaultKeepCount = 3;
constexpr int maximumKeepCount = 50;

}  // namespace

SettingsService::SettingsService(DefaultsStore& defaults, const ApplicationDirectories& directories,
                                 std::string userName)
    : defaults_(defaults), directories_(directories), userName_(std::move(userName)) {}

Path SettingsService::storagePath() {
    const auto chosen = defaults_.text(defaultsKey::vmStoragePath);
    if (chosen && chosen->starts_with('/')) return *chosen;
    if (!defaults_.value(defaultsKey::vmStoragePath).is_null()) defaults_.remove(defaultsKey::vmStoragePath);

    // Machines made by an older version stay where they are.
    const auto older = Path("/Users") / userName_ / olderStoragePath;
    if (AppSettings::directoryHasContents(older)) {
        setStoragePath(older);
        return older;
    }
    auto path = AppSettings::defaultVMStoragePath(directories_);
    std::error_code ignored;
    std::filesystem::create_directories(path, ignored);
    return path;
}

void SettingsService::setStoragePath(const Path& path) {
    defaults_.set(defaultsKey::vmStoragePath, path.string());
}

bool SettingsService::isMCPAutoSnapshotEnabled() const {
    return defaults_.boolean(defaultsKey::mcpAutoSnapshotEnabled).value_or(true);
}

int SettingsService::mcpAutoSnapshotKeepCount() const {
    const auto count = defaults_.integer(defaultsKey::mcpAutoSnapshotKeepCount);
    return count && *count >= 0 && *count <= maximumKeepCount ? static_cast<int>(*count) : defaultKeepCount;
}

bool SettingsService::areDestructiveToolsEnabled() const {
    return defaults_.boolean(defaultsKey::mcpDestructiveToolsEnabled).value_or(false);
}

}  // namespace dorvane
