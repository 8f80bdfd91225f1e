// SPDX-License-Identifier: Apache-2.0
// What the library knows about a machine beside its bundle: everything that the user has said about it.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "core/EphemeralInfo.h"
#include "core/VMBundle.h"
#include "core/VMStatus.h"

namespace dorvane {

struct SharedFolder {
    UUID id = UUID::random();
    std::string localPath;
    std::string mountPoint;
    bool readOnly = false;
    JSON encoded() const;
    static SharedFolder decoded(const JSON& value);
    bool operator==(const SharedFolder&) const = default;
};

struct DisplayResolution {
    int width = 0;
    int height = 0;
    JSON encoded() const;
    static DisplayResolution decoded(const JSON& value);
    bool operator==(const DisplayResolution&) const = default;
};

/// Bookmark bytes by path.
using Bookmarks = std::map<std::string, Bytes>;

/// The stored fields; a plain value.
struct VMRecordFields {
    UUID id = UUID::random();
    std::string name;
    VMOSType osType = VMOSType::windows;
    std::optional<std::string> osVersionLabel;
    std::string backendModeRaw = "native";
    std::string vmPath;
    std::int64_t diskSizeBytes = 0;
    std::int64_t memoryMB = 0;
    std::int64_t cpuCount = 0;
    VMStatus status = VMStatus::stopped;
    std::optional<Date> lastLaunchedAt;
    Date createdAt;
    Date updatedAt;
    std::vector<std::string> tags;
    std::optional<std::string> imageSource;
    std::vector<SharedFolder> sharedFolders;
    std::optional<std::string> pendingInstallerImagePath;
    std::optional<std::vector<std::string>> mountedImages;
    std::optional<std::vector<std::string>> usbStorageDevices;
    std::optional<DisplayResolution> displayResolution;
    std::optional<Bookmarks> bookmarksByPath;
    std::optional<std::string> sshUsername;
    std::optional<std::string> sshPrivateKeyPath;
    std::optional<Bytes> sshPrivateKeyBookmark;
    std::optional<EphemeralInfo> ephemeral;
    std::optional<bool> autoSnapshotBeforeAgentStart;
    std::optional<bool> startsWithDorvane;
    bool operator==(const VMRecordFields&) const = default;
};

/// A persistent record. Lives in one ModelContext; touched on the main thread only.
struct VMRecord : VMRecordFields {
    /// The record was removed from its context; holders must let it go.
    bool isDeleted = false;

    VMBundle bundle() const { return VMBundle(Path(vmPath)); }
    bool hasPendingInstallerImage() const;
    bool hasSuspendedState() const { return bundle().hasSavedState(); }
    bool isEphemeral() const { return ephemeral.has_value(); }
    /// True when the status is stopped or error.
    bool isShutDownForEditing() const { return status == VMStatus::stopped || status == VMStatus::error; }
    bool canModifyBundleFiles() const { return isShutDownForEditing(); }
    bool shutdownAsksInsideGuest() const { return osType == VMOSType::macOS; }
    /// "macOS", "Windows", or for Linux its distribution when the label or the image tells it, else "Linux".
    std::string listOSDisplayName() const;
    void setBookmark(Bytes data, const std::string& path);
};

using VMRecordPointer = std::shared_ptr<VMRecord>;

}  // namespace dorvane
