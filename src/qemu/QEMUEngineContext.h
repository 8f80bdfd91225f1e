// SPDX-License-Identifier: Apache-2.0
// What the QEMU engine is made of.
#pragma once

#include "platform/DefaultsStore.h"
#include "platform/HostSystem.h"
#include "platform/Processes.h"
#include "qemu/GraphicsSandboxGroup.h"
#include "qemu/GuestFileServerRegistry.h"
#include "qemu/GuestFileServing.h"
#include "qemu/GuestKeyStore.h"
#include "qemu/GuestToolsRegistry.h"
#include "qemu/QEMUCapabilitiesCache.h"
#include "qemu/QEMUHostAdapter.h"
#include "qemu/QEMURuntimeResources.h"

namespace dorvane {

/// The references outlive the engine.
struct QEMUEngineContext {
    const Runtime& runtime;
    const Processes& processes;
    const DefaultsStore& defaults;
    const QEMUHostAdapter& adapter;
    QEMUCapabilitiesCache& capabilities;
    const GuestKeyStore& keyStore;
    GuestToolsRegistry& guestTools;
    GuestFileServerRegistry& fileServers;
    /// Empty in a build without a file server.
    GuestFileServerFactory makeFileServer = {};
    std::function<std::optional<QEMURuntimeResources>()> resourceLocator;
    /// Where runtime directories are made; short enough for sockets.
    Path temporaryDirectory;
    /// This process's own.
    Environment environment = {};
    OperatingSystemVersion hostSystemVersion = {};
    std::optional<OperatingSystemVersion> declaredMinimumSystemVersion = {};
    GraphicsSandboxGroup::Requirement sandboxGroupRequirement = {};
};

}  // namespace dorvane
