// SPDX-License-Identifier: Apache-2.0
#include "core/SettingsService.h"

#include "base/Hex.h"
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
    if (!defaults_.value(defaultsKey::vmStoragePath).is_null())
        keepIfPossible(defaultsKey::vmStoragePath, nullptr);

    // Machines made by an older version stay where they are.
    auto older = Path("/Users") / userName_ / olderStoragePath;
    if (AppSettings::directoryHasContents(older)) {
        keepIfPossible(defaultsKey::vmStoragePath, older.string());
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

std::optional<Bytes> SettingsService::storagePathBookmark() const {
    const auto text = defaults_.text(defaultsKey::vmStoragePathBookmark);
    return text ? parseBase64(*text) : std::nullopt;
}

void SettingsService::setStoragePathBookmark(ByteView bookmark) {
    defaults_.set(defaultsKey::vmStoragePathBookmark, base64Text(bookmark));
}

SecurityScopedBookmarkStore::AccessToken SettingsService::restoreStoragePathAccess(
    SecurityScopedBookmarkStore& bookmarks) {
    auto bookmark = storagePathBookmark();
    if (!bookmark) return {};
    auto token = bookmarks.beginAccess({{storagePath().string(), *std::move(bookmark)}});
    for (const auto& [path, fresh] : token.refreshedBookmarks())
        keepIfPossible(defaultsKey::vmStoragePathBookmark, base64Text(fresh));
    return token;
}

void SettingsService::keepIfPossible(const std::string& key, JSON value) {
    try {
        defaults_.set(key, std::move(value));
    } catch (const FileError& error) {
        logger_.error("The setting %{public}s could not be kept: %{public}s", key, error.what());
    }
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
