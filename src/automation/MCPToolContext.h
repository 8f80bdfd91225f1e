// SPDX-License-Identifier: Apache-2.0
// The services that tools act through.
#pragma once

#include <memory>

#include "automation/EphemeralSandboxServicing.h"
#include "core/SettingsService.h"
#include "core/VMServiceProtocol.h"
#include "guestagent/GuestChannelRouting.h"
#include "runtime/Clock.h"
#include "runtime/Logger.h"
#include "snapshots/VMSnapshotServiceProtocol.h"

namespace dorvane {

/// Main thread only. The services outlive every tool call; one that this build doesn't have is null.
struct MCPToolContext : std::enable_shared_from_this<MCPToolContext> {
    struct Services {
        VMServiceProtocol& vmService;
        VMSnapshotServiceProtocol* snapshotService = nullptr;
        GuestChannelRouting* guestChannelRouter = nullptr;
        EphemeralSandboxServicing* sandboxService = nullptr;
        SettingsService& settingsService;
    };

    MCPToolContext(Services given, Clock& time) : services(given), clock(time) {}

    const Services services;
    Clock& clock;
    const Logger logger{"MCPRequestHandler"};

    /// Whether machines may be created and deleted: the user's switch, and a service to do it.
    bool offersDestructiveTools() const {
        return services.sandboxService != nullptr && services.settingsService.areDestructiveToolsEnabled();
    }
    /// Throws MCPToolError while `offersDestructiveTools` is false.
    EphemeralSandboxServicing& requireSandboxService() const;
    /// Throw MCPToolError when the service is missing.
    VMSnapshotServiceProtocol& requireSnapshotService() const;
    GuestChannelRouting& requireGuestChannelRouter() const;
};

}  // namespace dorvane
