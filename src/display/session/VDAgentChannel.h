// SPDX-License-Identifier: Apache-2.0
// The connection to the agent inside a QEMU guest, as the display session sees it.
#pragma once

#include <exception>
#include <functional>

#include "display/session/VDAgentMessage.h"
#include "runtime/Clock.h"

namespace dorvane {

/// The callbacks are set before `connect` and run on the channel's own queue. Operations may be called from
/// any thread; sends keep their order and are dropped once the channel has ended.
class VDAgentChannel {
  public:
    virtual ~VDAgentChannel() = default;

    /// Once, with the guest's capability bits.
    std::function<void(std::uint32_t capabilities)> onReady;
    std::function<void(VDAgentIncomingMessage::Kind)> onMessage;
    /// Once, with the cause if there is one.
    std::function<void(std::exception_ptr)> onDisconnect;

    /// Returns when the socket is open; throws when it isn't within `timeout`.
    virtual Task<void> connect(Duration timeout) = 0;
    /// Whether the guest's latest announcement has this bit.
    virtual bool guestSupports(std::uint32_t bit) const = 0;
    virtual void sendClipboardGrab(const std::vector<VDAgentClipboardFormat>& formats) = 0;
    virtual void sendClipboardRequest(VDAgentClipboardFormat format) = 0;
    virtual void sendClipboard(VDAgentClipboardFormat format, ByteView content) = 0;
    virtual void close() = 0;
};

}  // namespace dorvane
