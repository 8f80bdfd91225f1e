// SPDX-License-Identifier: Apache-2.0
#include "automation/MCPToolContext.h"

#include "automation/MCPErrors.h"

namespace dorvane {

EphemeralSandboxServicing& MCPToolContext::requireSandboxService() const {
    if (!offersDestructiveTools())
        throw MCPToolError(
            "Creating and deleting VMs is turned off. Turn on \"Allow creating and deleting VMs\" in "
            "Dorvane → Settings → Automation.");
    return *services.sandboxService;
}

VMSnapshotServiceProtocol& MCPToolContext::requireSnapshotService() const {
    if (services.snapshotService == nullptr)
        throw MCPToolError("Snapshots are not available in this build yet.");
    return *services.snapshotService;
}

GuestChannelRouting& MCPToolContext::requireGuestChannelRouter() const {
    if (services.guestChannelRouter == nullptr)
        throw MCPToolError("Commands and screenshots inside guests are not available in this build yet.");
    return *services.guestChannelRouter;
}

}  // namespace dorvane
