// SPDX-License-Identifier: Apache-2.0
// The composition root: the one place where services are made and joined.
#pragma once

#include <set>

#include "automation/AgentActivityLog.h"
#include "automation/EphemeralSandboxService.h"
#include "automation/MCPRequestHandler.h"
#include "automation/MCPServerService.h"
#include "core/EngineRouter.h"
#include "core/LongOperationRegistry.h"
#include "core/SettingsService.h"
#include "core/VMOperationGate.h"
#include "core/VMService.h"
#include "core/application/DisplayTransportFactory.h"
#include "core/application/HostServices.h"
#include "core/application/LinkHandling.h"
#include "core/application/QEMUParts.h"
#include "core/application/QuitFlow.h"
#include "display/session/HostFramebufferCapture.h"
#include "snapshots/VMBackupService.h"
#include "snapshots/VMSnapshotService.h"

namespace dorvane {

/// A remnant of an earlier design: always `native`, and no choice of engine.
enum class BackendMode { bundled, native };
enum class SettingsTab { general, diagnostics, about, automation };

/// One instance a process, made on the main thread and used only there. Outlived by the host services.
class AppState {
  public:
    /// Writes the backend mode into the settings; touches no machine.
    AppState(const HostServices& host, ModelContext& modelContext);
    ~AppState();
    AppState(const AppState&) = delete;
    AppState& operator=(const AppState&) = delete;

    /// The sequence from process start to the first full list, strictly in order.
    Task<void> runStartSequence();

    /// Builds what agents drive, and starts or stops the MCP server as the settings say. Once only.
    void configureMCPServer();
    /// The process's one VMService, built on first call. Every door goes through it.
    VMService& makeSharedVMService();
    /// Looks for expired sandboxes at once and then every half hour. Does nothing before
    /// `configureMCPServer`.
    void startSandboxReaper();
    /// Refreshes the list and starts the machines that ask for it, one after the other. Once only.
    Task<void> startVMsMarkedForLaunch();
    /// Asks the host whether it can run guests. Keeps the answer unless `force`.
    void refreshBackendAvailability(bool force);
    void completeOnboarding();
    /// Carries out a `dorvane:` link and tells its caller what became of it, having shown the alert and asked
    /// for the display that go with it. Throws nothing but a cancellation.
    Task<LinkOutcome> handle(std::string url);
    void showURLCommandAlert(const std::string& message);
    /// Ends tasks and listeners; nothing runs on behalf of this object afterwards.
    Task<void> shutDown();

    const Runtime& runtime() const { return host_.runtime; }
    SettingsService& settingsService() { return settingsService_; }
    VMOperationGate& operationGate() { return operationGate_; }
    LongOperationRegistry& longOperations() { return longOperations_; }
    VMEngineProtocol& engine() { return engineRouter_; }
    AgentActivityLog& activityLog() { return *activityLog_; }
    MCPServerService& mcpServerService() { return *mcpServerService_; }
    /// Absent before `configureMCPServer`.
    MCPRequestHandler* mcpRequestHandler() { return mcpRequestHandler_.get(); }
    // Not before `configureMCPServer`.
    EphemeralSandboxServicing& sandboxService() { return *sandboxService_; }
    VMSnapshotServiceProtocol& snapshotService() { return *snapshotService_; }
    VMBackupServiceProtocol& backupService() { return *backupService_; }
    QuitFlow quitFlow() { return {operationGate_, longOperations_, engineRouter_}; }

    /// Changes when the library gains or loses a machine, and only then.
    const UUID& vmListRevision() const { return vmListRevision_; }
    Signal<> vmListRevisionChanged;
    /// Title and text of a modal alert. Without an observer it goes to the log.
    Signal<const std::string&, const std::string&> urlCommandAlert;
    /// Asks for the window with this machine's screen. Without an observer there is no such window.
    Signal<const UUID&> displayRequested;
    bool hasCompletedOnboarding() const { return hasCompletedOnboarding_; }
    BackendMode backendMode() const { return BackendMode::native; }
    std::optional<bool> isBackendAvailable() const { return isBackendAvailable_; }
    const std::optional<std::string>& backendAlertMessage() const { return backendAlertMessage_; }
    bool showBackendAlert() const { return backendAlertMessage_.has_value(); }

  private:
    void observeSharedVMListMembership();
    std::unique_ptr<VMSnapshotService> makeSnapshotService();
    std::unique_ptr<VMBackupService> makeBackupService();
    Task<void> recoverMachines();
    Task<void> reapSandboxes();
    void requestDisplay(const VMRecord& vm);

    HostServices host_;
    ModelContext& modelContext_;
    SettingsService settingsService_;
    VMOperationGate operationGate_;
    LongOperationRegistry longOperations_;
    Logger launchLogger_{"LaunchVMs"}, linkLogger_{"URLCommand"};

    std::unique_ptr<MCPServerService> mcpServerService_;

    QEMUParts qemu_;
    EngineRouter engineRouter_;
    FileManagerDirectoryDisposer directoryDisposer_;
    SecurityScopedBookmarkStore bookmarks_;
    SecurityScopedBookmarkStore::AccessToken storageAccess_;
    DisplayTransportFactory displayTransports_;
    HostFramebufferCapture framebufferCapture_;
    std::unique_ptr<VMService> sharedVMService_;
    std::unique_ptr<VMSnapshotService> snapshotService_;
    std::unique_ptr<VMBackupService> backupService_;
    std::unique_ptr<EphemeralSandboxService> sandboxService_;
    std::unique_ptr<AgentActivityLog> activityLog_;
    std::shared_ptr<MCPRequestHandler> mcpRequestHandler_;

    bool isMCPServerConfigured_ = false;
    bool didStartLaunchVMs_ = false;
    bool hasCompletedOnboarding_ = false;
    std::set<UUID> sharedVMIDs_;
    UUID vmListRevision_ = UUID::random();
    std::optional<bool> isBackendAvailable_;
    std::optional<std::string> backendAlertMessage_;
    Subscription sharedVMListSubscription_;
    TaskHandle sandboxReaperTask_, warmUpTask_, refreshTask_;
};

}  // namespace dorvane
