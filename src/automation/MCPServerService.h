// SPDX-License-Identifier: Apache-2.0
// The local endpoint through which agents drive this program: JSON-RPC over HTTP on 127.0.0.1.
#pragma once

#include <optional>
#include <string>

#include "automation/LockedString.h"
#include "automation/MCPConnectionHost.h"
#include "automation/MCPRequestHandlerProtocol.h"
#include "core/SettingsService.h"
#include "platform/KeychainHelper.h"
#include "runtime/Logger.h"
#include "runtime/Signal.h"

namespace dorvane {

/// Main thread only. The states of its listener: none, starting (a listener, not running), running; `start`
/// moves from none to starting, the listener's own news from there to running or back to none, `stop` back to
/// none. Dropping the service ends its listener, its connections and the calls that they wait for, a moment
/// later; `shutdown` waits for that.
class MCPServerService {
  public:
    static constexpr int defaultPort = 59800;
    static constexpr int minimumPort = 1024;
    static constexpr int maximumPort = 65535;

    /// Reads the token from the keychain, which may make one.
    MCPServerService(const Runtime& runtime, SettingsService& settingsService, KeychainHelper& keychainStore);
    MCPServerService(const MCPServerService&) = delete;
    MCPServerService& operator=(const MCPServerService&) = delete;
    ~MCPServerService();

    bool isRunning() const { return isRunning_; }
    const std::optional<std::string>& lastErrorMessage() const { return lastErrorMessage_; }
    bool isEnabled() const { return isEnabled_; }
    const std::string& endpointToken() const { return endpointToken_; }
    /// The URL that holds the token: everything a client needs.
    std::string endpointURLString() const;
    /// The stored port when it lies in the range, else the default.
    int effectivePort() const;
    /// After any change of what stands above.
    Signal<> changed;

    /// `start` needs a handler.
    void attachHandler(std::shared_ptr<MCPRequestHandlerProtocol> handler) { handler_ = std::move(handler); }
    void start();
    /// Connections already accepted run to their end.
    void stop();
    /// Throws FileError when the setting can't be kept.
    void setEnabled(bool enabled);
    /// False, with nothing changed, outside the range. A running server moves to the new port. Throws
    /// FileError when the setting can't be kept.
    bool setPort(int port);
    /// From this moment the old token is refused; the listener stays up. Says whether the new one was kept;
    /// else the next start may know the old one again.
    bool regenerateToken();
    /// Ends everything and returns once nothing of it runs any more. Before the collaborators of the handler
    /// go.
    Task<void> shutdown();

  private:
    /// Lets later work find out whether the service is still there.
    using Anchor = std::weak_ptr<MCPServerService*>;
    using ListenerID = std::uint64_t;

    static Task<std::optional<MCPHTTPResponse>> respond(Anchor anchor, HTTPRequestParser::Request request);
    void listenerBecameReady(ListenerID id, int port);
    void listenerFailed(ListenerID id, const std::string& description);
    void setEndpointToken(std::string token);

    const Runtime& runtime_;
    SettingsService& settingsService_;
    KeychainHelper& keychainStore_;
    const Logger logger_{"MCPServerService"};
    const std::shared_ptr<MCPServerService*> anchor_ = std::make_shared<MCPServerService*>(this);
    const std::shared_ptr<LockedString> tokenForNetwork_ = std::make_shared<LockedString>();
    const std::shared_ptr<MCPConnectionHost> host_;

    bool isRunning_ = false;
    std::optional<std::string> lastErrorMessage_;
    bool isEnabled_;
    std::string endpointToken_;
    std::shared_ptr<MCPRequestHandlerProtocol> handler_;
    /// News of an earlier listener is told apart by its number.
    std::optional<ListenerID> listener_;
    ListenerID lastListenerID_ = 0;
};

}  // namespace dorvane
