// SPDX-License-Identifier: Apache-2.0
// The display of a QEMU guest over its VNC server's Unix socket: an RFB 3.8 client (RFC 6143).
#pragma once

#include <vector>

#include "display/GuestDisplayTransport.h"
#include "display/rfb/RFBClientMessage.h"
#include "display/rfb/RFBConnectionError.h"
#include "runtime/Runtime.h"

namespace dorvane {

class RFBLink;

/// Operations may be called from any thread. The callbacks are taken over when `connect` begins and run on
/// the connection's queue "com.dorvane.vnc"; a cursor is never reported. After destruction at most the
/// callback that is running at that moment still finishes.
class RFBConnection : public GuestDisplayTransport {
  public:
    using ConnectionError = RFBConnectionError;

    /// In order of preference. Over a local socket raw pixels are cheaper than compressed ones.
    static std::vector<RFBEncoding> encodings(bool preferTight);

    /// `runtime` outlives the connection. `preferTight` is the setting "DorvaneVNCPreferTight".
    RFBConnection(const Runtime& runtime, std::string socketPath, bool preferTight);
    RFBConnection(const Runtime& runtime, std::string socketPath, std::vector<RFBEncoding> encodings);
    ~RFBConnection() override;

    /// Tries until `timeout` for the socket to be there; the handshake has time-outs of its own. Throws
    /// ConnectionError, `connectionClosed` also for a `close` meanwhile.
    Task<void> connect(Duration timeout) override;
    void sendPointer(std::uint8_t buttonMask, int x, int y) override;
    void sendKey(const GuestKey& key, bool down) override;
    /// Failures are dropped: a broken socket shows as the end of the stream.
    void send(RFBClientMessage message);
    void close() override;

  private:
    std::shared_ptr<RFBLink> link_;
};

}  // namespace dorvane
