// SPDX-License-Identifier: Apache-2.0
// Makes what a display session needs to share clipboard and files with a guest.
#pragma once

#include "base/UUID.h"
#include "display/session/ClipboardBridging.h"
#include "display/session/FileTransferring.h"
#include "display/session/VDAgentChannel.h"

namespace dorvane {

/// Main thread only.
class GuestAgentChannelMaking {
  public:
    virtual ~GuestAgentChannelMaking() = default;

    virtual std::shared_ptr<VDAgentChannel> makeChannel(const std::string& socketPath) = 0;
    virtual std::shared_ptr<ClipboardBridging> makeClipboardBridge() = 0;
    virtual std::shared_ptr<FileTransferring> makeFileTransfer(std::shared_ptr<VDAgentChannel> channel) = 0;
};

/// Keeps which guests' tools run, and what they can do. Main thread only.
class GuestToolsRegistering {
  public:
    virtual ~GuestToolsRegistering() = default;

    virtual void noteGuestTools(const UUID& vmID, std::uint32_t capabilities) = 0;
    virtual void removeGuestTools(const UUID& vmID) = 0;
};

}  // namespace dorvane
