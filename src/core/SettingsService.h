// SPDX-License-Identifier: Apache-2.0
// The settings that services act on, over the defaults store.
#pragma once

#include "core/SecurityScopedBookmarkStore.h"
#include "platform/ApplicationDirectories.h"
#include "platform/DefaultsStore.h"
#include "platform/HostSystem.h"
#include "runtime/Files.h"
#include "runtime/Logger.h"

namespace dorvane {

/// Every key of the defaults store.
namespace defaultsKey {
constexpr auto vmStoragePath = "vmStoragePath";
constexpr auto vmStoragePathBookmark = "vmStoragePathBookmark";
constexpr auto backendMode = "backendMode";
constexpr auto hasCompletedOnboarding = "hasCompletedOnboarding";
constexpr auto mcpServerEnabled = "mcpServerEnabled";
constexpr auto mcpServerPort = "mcpServerPort";
constexpr auto mcpAutoSnapshotEnabled = "mcpAutoSnapshotEnabled";
constexpr auto mcpAutoSnapshotKeepCount = "mcpAutoSnapshotKeepCount";
constexpr auto mcpDestructiveToolsEnabled = "mcpDestructiveToolsEnabled";
constexpr auto batteryGuardEnabled = "batteryGuardEnabled";
constexpr auto batteryGuardGraceSeconds = "batteryGuardGraceSeconds";
constexpr auto batteryGuardTriggerPercent = "batteryGuardTriggerPercent";
constexpr auto lastUpdateCheckAt = "lastUpdateCheckAt";
constexpr auto dismissedUpdateVersion = "dismissedUpdateVersion";
constexpr auto showsMenuBarExtra = "DorvaneShowsMenuBarExtra";
constexpr auto opensDisplayOnStart = "DorvaneOpensDisplayOnStart";
constexpr auto urlCommandsEnabled = "DorvaneURLCommandsEnabled";
constexpr auto serialConsole = "DorvaneSerialConsole";
constexpr auto capturesSystemKeys = "DorvaneCapturesSystemKeys";
constexpr auto displayAutoReconfigure = "DorvaneDisplayAutoReconfigure";
constexpr auto windowsCommandAsControl = "DorvaneWindowsCommandAsControl";
constexpr auto sidebarSortOrder = "DorvaneSidebarSortOrder";
constexpr auto lumeMigrationCompleted = "com.dorvane.lumeMigrationCompleted";
constexpr auto qemuTrace = "DorvaneQEMUTrace";
constexpr auto qemuMonitorSocket = "DorvaneQEMUMonitorSocket";
constexpr auto vncPreferTight = "DorvaneVNCPreferTight";
}  // namespace defaultsKey

/// Main thread, except where the defaults store is enough.
class SettingsService {
  public:
    SettingsService(DefaultsStore& defaults, const ApplicationDirectories& directories, std::string userName);

    DefaultsStore& defaults() const { return defaults_; }

    /// The folder for new machines; see the order of its sources in the implementation.
    Path storagePath();
    /// Throws FileError when it can't be kept.
    void setStoragePath(const Path& path);
    /// Bookmark bytes of that folder, on a host that needs them. Setting throws FileError.
    std::optional<Bytes> storagePathBookmark() const;
    void setStoragePathBookmark(ByteView bookmark);
    /// Opens the folder for this run, at start; a bookmark that had gone stale is replaced. The caller keeps
    /// the token.
    SecurityScopedBookmarkStore::AccessToken restoreStoragePathAccess(SecurityScopedBookmarkStore& bookmarks);

    /// Stores what the program itself, and not its user, wants remembered: a failure is logged and stops
    /// nothing.
    void keepIfPossible(const std::string& key, JSON value);

    bool isMCPAutoSnapshotEnabled() const;
    /// 0 to 50; anything else reads as 3.
    int mcpAutoSnapshotKeepCount() const;
    bool areDestructiveToolsEnabled() const;

  private:
    DefaultsStore& defaults_;
    const ApplicationDirectories& directories_;
    std::string userName_;
    Logger logger_{"SettingsService"};
};

}  // namespace dorvane
