// SPDX-License-Identifier: Apache-2.0
#include "automation/MCPServerService.h"

#include "automation/MCPAuthToken.h"

namespace dorvane {

MCPServerService::MCPServerService(const Runtime& runtime, SettingsService& settingsService,
                                   KeychainHelper& keychainStore)
    : runtime_(runtime),
      settingsService_(settingsService),
      keychainStore_(keychainStore),
      host_(
          std::make_shared<MCPConnectionHost>(runtime, tokenForNetwork_,
                                              [anchor = Anchor(anchor_)](HTTPRequestParser::Request request) {
                                                  return respond(anchor, std::move(request));
                                              })),
      isEnabled_(settingsService.defaults().boolean(defaultsKey::mcpServerEnabled).value_or(false)) {
    setEndpointToken(MCPAuthToken::load(keychainStore));
}

MCPServerService::~MCPServerService() { host_->endAll(); }

Task<std::optional<MCPHTTPResponse>> MCPServerService::respond(Anchor anchor,
                                                               HTTPRequestParser::Request request) {
    std::shared_ptr<MCPRequestHandlerProtocol> handler;
    if (const auto service = anchor.lock()) handler = (*service)->handler_;
    if (!handler) co_return std::nullopt;
    co_return co_await handler->handle(std::move(request));
}

std::string MCPServerService::endpointURLString() const {
    return MCPAuthToken::endpointURLString(effectivePort(), endpointToken_);
}

int MCPServerService::effectivePort() const {
    const auto stored = settingsService_.defaults().integer(defaultsKey::mcpServerPort);
    return stored && *stored >= minimumPort && *stored <= maximumPort ? static_cast<int>(*stored)
                                                                      : defaultPort;
}

void MCPServerService::start() {
    runtime_.main.assertIsolated();
    if (listener_) return;
    if (!handler_) {
        lastErrorMessage_ = localized("MCP server is not ready yet. Relaunch Dorvane and try again.");
        changed();
        return;
    }
    const auto id = ++lastListenerID_;
    const int port = effectivePort();
    lastErrorMessage_.reset();
    listener_ = id;
    logger_.info("MCP server starting on 127.0.0.1:%{public}ld", port);
    const auto onMain = [main = &runtime_.main, anchor = Anchor(anchor_)](auto action) {
        main->async([anchor, action = std::move(action)] {
            if (const auto service = anchor.lock()) action(**service);
        });
    };
    MCPConnectionHost::ListenerEvents events;
    events.ready = [onMain, id, port] {
        onMain([id, port](MCPServerService& service) { service.listenerBecameReady(id, port); });
    };
    events.failed = [onMain, id](std::string text) {
        onMain([id, text = std::move(text)](MCPServerService& service) { service.listenerFailed(id, text); });
    };
    host_->listen(static_cast<std::uint16_t>(port), std::move(events));
    changed();
}

void MCPServerService::listenerBecameReady(ListenerID id, int port) {
    if (listener_ != id) return;
    isRunning_ = true;
    lastErrorMessage_.reset();
    logger_.info("MCP server ready on 127.0.0.1:%{public}ld", port);
    changed();
}

void MCPServerService::listenerFailed(ListenerID id, const std::string& description) {
    if (listener_ != id) return;
    isRunning_ = false;
    listener_.reset();
    lastErrorMessage_ = localized("Failed to start MCP server: %@", description);
    logger_.error("MCP listener failed: %{public}s", description);
    changed();
}

void MCPServerService::stop() {
    runtime_.main.assertIsolated();
    if (listener_) host_->stopListening();
    listener_.reset();
    isRunning_ = false;
    changed();
}

void MCPServerService::setEnabled(bool enabled) {
    settingsService_.defaults().set(defaultsKey::mcpServerEnabled, enabled);
    isEnabled_ = enabled;
    changed();
    if (settingsService_.defaults().boolean(defaultsKey::mcpServerEnabled).value_or(false))
        start();
    else
        stop();
}

bool MCPServerService::setPort(int port) {
    if (port < minimumPort || port > maximumPort) return false;
    if (port == effectivePort()) return true;
    settingsService_.defaults().set(defaultsKey::mcpServerPort, port);
    if (isRunning_) {
        stop();
        start();
    }
    return true;
}

bool MCPServerService::regenerateToken() {
    runtime_.main.assertIsolated();
    setEndpointToken(MCPAuthToken::regenerate(keychainStore_));
    changed();
    return MCPAuthToken::isStored(keychainStore_, endpointToken_);
}

void MCPServerService::setEndpointToken(std::string token) {
    tokenForNetwork_->set(token);
    endpointToken_ = std::move(token);
}

Task<void> MCPServerService::shutdown() {
    stop();
    return host_->shutdown();
}

}  // namespace dorvane
