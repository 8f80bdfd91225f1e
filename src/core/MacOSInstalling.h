// SPDX-License-Identifier: Apache-2.0
// Making a macOS guest from nothing.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "core/DorvaneVMConfig.h"
#include "runtime/Task.h"

namespace dorvane {

/// How far an installation has come.
struct MacOSInstallPhase {
    enum class Kind { fetchingRestoreImage, downloadingRestoreImage, preparingBundle, installing };
    Kind kind = Kind::fetchingRestoreImage;
    /// 0 to 1; of downloadingRestoreImage (when the size is known) and installing.
    std::optional<double> fraction = {};
    bool operator==(const MacOSInstallPhase&) const = default;
};

struct MacOSInstallRequest {
    Path directory;
    int cpuCount = 0;
    std::int64_t memoryMB = 0;
    std::uint64_t diskSizeBytes = 0;
    VMDisplayConfig display;
    Path storagePath;
};

struct MacOSInstallResult {
    DorvaneVMConfig config;
    std::string osVersionLabel;
    std::string imageSource;
};

/// Main thread only.
class MacOSInstalling {
  public:
    virtual ~MacOSInstalling() = default;

    /// Makes the bundle, complete with its configuration. On failure no bundle stays.
    virtual Task<MacOSInstallResult> installLatestMacOS(
        MacOSInstallRequest request, std::function<void(MacOSInstallPhase)> onProgress) = 0;
};

}  // namespace dorvane
