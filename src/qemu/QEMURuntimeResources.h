// SPDX-License-Identifier: Apache-2.0
// The files that the QEMU engine needs and that aren't part of this program.
#pragma once

#include <optional>
#include <vector>

#include "runtime/ChildProcess.h"

namespace dorvane {

/// A plain value.
struct QEMURuntimeResources {
    Path executable;
    Path imageTool;  // beside the executable
    Path firmwareCode;
    Path nvramTemplate;
    std::optional<Path> swtpm;
    std::optional<Path> dataDirectory;
    std::optional<Path> guestDrivers;
    std::optional<Path> renderServer;
    /// What QEMU needs in its environment to find its own modules.
    Environment environment;

    bool operator==(const QEMURuntimeResources&) const = default;

    /// A package: programs in "Helpers" and files in "Resources/qemu" below `root`. Only names; nothing is
    /// tested.
    static QEMURuntimeResources packaged(const Path& root);
    /// A QEMU that a Linux distribution installed below `root`, usually "/".
    static QEMURuntimeResources systemInstalled(const Path& root);

    /// The first candidate whose emulator, firmware and NVRAM template exist, each replaced by its
    /// environment variable ("DORVANE_QEMU_BIN" and so on) where that is set. A variable that names no file
    /// gives nothing at all for a required resource. Optional resources that don't exist are absent. Reads a
    /// package's "environment" file; otherwise only tests files.
    static std::optional<QEMURuntimeResources> locate(const std::vector<QEMURuntimeResources>& candidates,
                                                      const Environment& environment);
};

}  // namespace dorvane
