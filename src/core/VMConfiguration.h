// SPDX-License-Identifier: Apache-2.0
// A change request: what to create a machine with, or what to change about one.
#pragma once

#include "core/DorvaneVMConfig.h"
#include "core/MacProvisioning.h"
#include "core/VMRecord.h"

namespace dorvane {

/// Absent means "default" for a new machine and "keep" for an existing one.
struct VMConfiguration {
    std::optional<std::int64_t> cpuCount;
    std::optional<std::int64_t> memoryMB;
    std::optional<std::int64_t> diskSizeGB;
    std::optional<std::vector<SharedFolder>> sharedFolders;
    std::optional<std::string> pendingInstallerImagePath;
    std::optional<std::vector<std::string>> mountedImages;
    std::optional<std::vector<std::string>> usbStorageDevices;
    std::optional<DisplayResolution> displayResolution;
    std::optional<bool> linuxRosetta, linuxClipboard, linuxGuestAgent, linuxSecureBoot;
    std::optional<bool> windowsClipboard, windowsShares, windowsFileDrop;
    std::optional<WindowsGraphicsMode> windowsGraphics;
    std::optional<NetworkConfig> network;
    std::optional<bool> audioInput, audioOutput, serialConsole;
    std::optional<std::string> storagePath;
    std::optional<MacProvisioningDraft> macProvisioning;
    std::optional<Bookmarks> bookmarksByPath;

    /// Throws invalidConfiguration for the first present field that is out of range.
    void validateRanges() const;
};

struct VMNameRules {
    /// Throws invalidConfiguration unless the name may become a directory's name.
    static void validate(const std::string& name);
};

}  // namespace dorvane
