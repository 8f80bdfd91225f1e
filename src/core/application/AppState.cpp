// SPDX-License-Identifier: Apache-2.0
#include "core/application/AppState.h"

#include "core/DorvaneError.h"

namespace dorvane {
namespace {

constexpr auto sandboxReaperInterval = seconds(1800);

}  // namespace

AppState::AppState(const HostServices& host, ModelContext& modelContext)
    : host_(host),
      modelContext_(modelContext),
      settingsService_(host.defaults, host.directories, host.system.userName()),
      mcpServerService_(std::make_unique<MCPServerService>(host.runtime, settingsService_, host.keychain)),
      qemu_(host_),
      engineRouter_(host.runtime, nullptr, &qemu_.engine()),
      directoryDisposer_(host.files),
      displayTransports_(host.runtime, host.defaults),
      framebufferCapture_(host.runtime, displayTransports_) {
    hasCompletedOnboarding_ = host.defaults.boolean(defaultsKey::hasCompletedOnboarding).value_or(false);
    settingsService_.keepIfPossible(defaultsKey::backendMode, "native");
    storageAccess_ = settingsService_.restoreStoragePathAccess(bookmarks_);
}

AppState::~AppState() = default;

Task<void> AppState::runStartSequence() {
    configureMCPServer();
    makeSharedVMService();
    startSandboxReaper();
    warmUpTask_ = spawn(host_.runtime.main.executor(), qemu_.warmUp(), "QEMU capabilities");
    co_await startVMsMarkedForLaunch();
}

VMService& AppState::makeSharedVMService() {
    if (sharedVMService_) return *sharedVMService_;
    VMServiceCollaborators collaborators{
        .runtime = host_.runtime,
        .engine = engineRouter_,
        .settings = settingsService_,
        .gate = operationGate_,
        .longOperations = longOperations_,
        .fileManager = host_.files,
        .host = host_.system,
        .directoryDisposer = directoryDisposer_,
        .bookmarks = bookmarks_,
        .modelContext = &modelContext_,
    };
    collaborators.windowsSupport = &qemu_.windowsGuestSupport();
    collaborators.framebufferCapture = &framebufferCapture_;
    collaborators.log = host_.log;
    snapshotService_ = makeSnapshotService();
    collaborators.recovery = snapshotService_.get();
    collaborators.diskFlattening = qemu_.chainStore();
    sharedVMService_ = std::make_unique<VMService>(collaborators);
    return *sharedVMService_;
}

std::unique_ptr<VMSnapshotService> AppState::makeSnapshotService() {
    return std::make_unique<VMSnapshotService>(VMSnapshotServiceCollaborators{
        .runtime = host_.runtime,
        .gate = operationGate_,
        .fileManager = host_.files,
        .bookmarks = bookmarks_,
        .modelContext = modelContext_,
        .engine = &engineRouter_,
        .chainStore = qemu_.chainStore(),
        .isStarting =
            [this](const UUID& id) {
                return sharedVMService_ != nullptr && sharedVMService_->isStarting(id);
            },
        .endLeftoverEmulator = [this](UUID id) { return qemu_.engine().endLeftoverEmulator(id); },
    });
}

std::unique_ptr<VMBackupService> AppState::makeBackupService() {
    return std::make_unique<VMBackupService>(VMBackupServiceCollaborators{
        .runtime = host_.runtime,
        .settings = settingsService_,
        .gate = operationGate_,
        .longOperations = longOperations_,
        .fileManager = host_.files,
        .host = host_.system,
        .modelContext = &modelContext_,
        .recovery = snapshotService_.get(),
        .chainTool = qemu_.chainStore() != nullptr ? &qemu_.chainStore()->chainTool() : nullptr,
        .appVersion = host_.version,
        // The engine is a part of the program.
        .engineVersion = host_.version,
        .isShutDown = [this](const VMRecord& vm) { return !sharedVMService_->isStarting(vm.id); },
        .libraryChanged =
            [this] {
                refreshTask_ = spawn(host_.runtime.main.executor(), sharedVMService_->refreshVMList(),
                                     "refresh after a restore");
            },
    });
}

void AppState::configureMCPServer() {
    if (std::exchange(isMCPServerConfigured_, true)) return;
    auto& service = makeSharedVMService();
    observeSharedVMListMembership();
    backupService_ = makeBackupService();
    sandboxService_ = std::make_unique<EphemeralSandboxService>(
        service, modelContext_, host_.runtime.clock,
        [&service](const UUID& id) { return service.isStarting(id); });
    activityLog_ =
        std::make_unique<AgentActivityLog>(host_.runtime, AgentActivityLog::defaultFile(host_.directories));
    const MCPToolContext::Services services{
        .vmService = service,
        .snapshotService = snapshotService_.get(),
        .sandboxService = sandboxService_.get(),
        .settingsService = settingsService_,
    };
    mcpRequestHandler_ = std::make_shared<MCPRequestHandler>(
        host_.runtime, services, activityLog_.get(), host_.version,
        [server = mcpServerService_.get()] { return std::optional(server->endpointToken()); });
    mcpServerService_->attachHandler(mcpRequestHandler_);
    if (mcpServerService_->isEnabled())
        mcpServerService_->start();
    else
        mcpServerService_->stop();
}

void AppState::observeSharedVMListMembership() {
    auto& service = *sharedVMService_;
    sharedVMListSubscription_ = service.vmsChanged.connect([this, &service] {
        std::set<UUID> ids;
        for (const auto& vm : service.vms()) ids.insert(vm->id);
        if (ids == sharedVMIDs_) return;
        sharedVMIDs_ = std::move(ids);
        vmListRevision_ = UUID::random();
        vmListRevisionChanged();
    });
}

void AppState::startSandboxReaper() {
    if (!sandboxService_ || sandboxReaperTask_) return;
    sandboxReaperTask_ = spawn(host_.runtime.main.executor(), reapSandboxes(), "sandbox reaper");
}

Task<void> AppState::reapSandboxes() {
    for (;;) {
        // A task of its own: one that has deleted something can't be cancelled any more, and this one must
        // be.
        auto pass = sandboxService_->reap(host_.runtime.clock.date());
        co_await onExecutor(host_.runtime.main.executor(), std::move(pass));
        co_await host_.runtime.clock.sleep(sandboxReaperInterval);
    }
}

/// What the last process didn't live to end is made good now, rather than when somebody needs the machine.
/// Each machine has a task of its own: one that has changed something can't be cancelled any more, and the
/// sequence must be. The same goes for the starts below.
Task<void> AppState::recoverMachines() {
    const auto vms = sharedVMService_->vms();
    for (const auto& vm : vms) {
        std::exception_ptr failure;
        try {
            auto recovery = snapshotService_->recover(vm);
            co_await onExecutor(host_.runtime.main.executor(), std::move(recovery));
        } catch (...) {
            failure = std::current_exception();
        }
        if (isCancellation(failure)) std::rethrow_exception(failure);
        if (failure)
            launchLogger_.error("Could not put the files of %{public}s in order: %{public}s", vm->name,
                                localizedDescription(failure));
    }
}

Task<void> AppState::startVMsMarkedForLaunch() {
    if (std::exchange(didStartLaunchVMs_, true)) co_return;
    auto& service = makeSharedVMService();
    co_await service.refreshVMList();
    co_await recoverMachines();
    const auto vms = service.vms();
    for (const auto& vm : vms) {
        if (!vm->startsWithDorvane.value_or(false) || vm->isEphemeral()) continue;
        std::exception_ptr failure;
        try {
            auto start = service.startVM(vm);
            co_await onExecutor(host_.runtime.main.executor(), std::move(start));
        } catch (...) {
            failure = std::current_exception();
        }
        if (isCancellation(failure)) std::rethrow_exception(failure);
        if (failure)
            launchLogger_.error("Could not start %{public}s at launch: %{public}s", vm->name,
                                localizedDescription(failure));
        else
            launchLogger_.info("Started %{public}s because it is set to start with Dorvane", vm->name);
    }
}

void AppState::refreshBackendAvailability(bool force) {
    if (isBackendAvailable_ && !force) return;
    isBackendAvailable_ = host_.system.isVirtualizationSupported();
    if (*isBackendAvailable_)
        backendAlertMessage_.reset();
    else
        backendAlertMessage_ = localized(
            "Virtualization is not available on this Mac. Dorvane requires Apple "
            "Silicon with Virtualization.framework support.");
}

void AppState::completeOnboarding() {
    hasCompletedOnboarding_ = true;
    host_.defaults.set(defaultsKey::hasCompletedOnboarding, true);
}

Task<LinkOutcome> AppState::handle(std::string url) {
    auto& vmService = makeSharedVMService();
    const LinkServices services{vmService, *snapshotService_, host_.defaults, host_.runtime.clock};
    auto outcome = co_await performLink(services, std::move(url));
    if (!outcome.alert.empty()) showURLCommandAlert(outcome.alert);
    if (outcome.wantsDisplay) requestDisplay(*outcome.vm);
    co_return outcome;
}

void AppState::requestDisplay(const VMRecord& vm) {
    if (displayRequested.empty())
        linkLogger_.info("There is no window to show %{public}s in", vm.name);
    else
        displayRequested(vm.id);
}

void AppState::showURLCommandAlert(const std::string& message) {
    if (urlCommandAlert.empty())
        linkLogger_.info("%{public}s", message);
    else
        urlCommandAlert(localized("Dorvane link"), message);
}

Task<void> AppState::shutDown() {
    // A sandbox on its way to the Trash gets there.
    sandboxReaperTask_.cancel();
    co_await sandboxReaperTask_.finished();
    refreshTask_.cancel();
    co_await refreshTask_.finished();
    warmUpTask_.cancel();
    co_await warmUpTask_.finished();
    co_await mcpServerService_->shutdown();
}

}  // namespace dorvane
