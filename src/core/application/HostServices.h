// SPDX-License-Identifier: Apache-2.0
// Everything of the host that the application stands on.
#pragma once

#include <vector>

#include "core/VMLogReading.h"
#include "platform/ApplicationDirectories.h"
#include "platform/DefaultsStore.h"
#include "platform/FileManager.h"
#include "platform/HostSystem.h"
#include "platform/KeychainHelper.h"
#include "platform/Processes.h"
#include "qemu/QEMUHostAdapter.h"
#include "runtime/ChildProcess.h"
#include "runtime/Runtime.h"

namespace dorvane {

/// References only: the program's main() owns them all and outlives every service.
struct HostServices {
    const Runtime& runtime;
    DefaultsStore& defaults;
    KeychainHelper& keychain;
    const ApplicationDirectories& directories;
    FileManager& files;
    Processes& processes;
    HostSystem& system;
    const QEMUHostAdapter& qemuHostAdapter;
    /// Where a packaged QEMU may stand, best first.
    std::vector<Path> qemuPackageRoots;
    Environment environment;
    /// The program's version, as agents are told it.
    std::string version;
    /// The lines that the program logged; null when nobody keeps them.
    const VMLogReading* log = nullptr;
};

}  // namespace dorvane
