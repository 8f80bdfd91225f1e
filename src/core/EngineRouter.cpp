// SPDX-License-Identifier: Apache-2.0
#include "core/EngineRouter.h"

#include <algorithm>

#include "base/Localized.h"
#include "core/DorvaneError.h"
#include "core/DorvaneVMConfig.h"

namespace dorvane {

EngineRouter::EngineRouter(const Runtime& runtime, VMEngineProtocol* virtualization, VMEngineProtocol* qemu)
    : runtime_(runtime), virtualization_(virtualization), qemu_(qemu) {
    for (auto* engine : {virtualization, qemu})
        if (engine != nullptr) allEngines_.push_back(engine);
}

VMEngineProtocol* EngineRouter::engineFor(VMOSType os) const {
    return os == VMOSType::windows ? qemu_ : virtualization_;
}

VMEngineProtocol& EngineRouter::requireEngineFor(VMOSType os) const {
    if (auto* engine = engineFor(os)) return *engine;
    throw DorvaneError(DorvaneError::Case::vmStartupFailed,
                       os == VMOSType::windows ? localized("Windows guests are not supported yet.")
                                               : localized("Virtualization is not available on this host."));
}

VMEngineProtocol* EngineRouter::engineRunning(const UUID& id) const {
    if (const auto route = routes_.find(id); route != routes_.end()) return route->second;
    const auto found = std::find_if(allEngines_.begin(), allEngines_.end(),
                                    [&](const auto* engine) { return engine->status(id).has_value(); });
    if (found == allEngines_.end()) return nullptr;
    return routes_[id] = *found;
}

VMEngineProtocol& EngineRouter::requireEngineRunning(const UUID& id) const {
    if (auto* engine = engineRunning(id)) return *engine;
    throw DorvaneError::vmNotFound(id);
}

Task<void> EngineRouter::launch(UUID id, VMBundle bundle, VMAttachments attachments) {
    const auto read = [file = bundle.configFile()] { return DorvaneVMConfig::read(file); };
    const auto config = co_await runtime_.background.run(read);
    auto& engine = requireEngineFor(config.os);
    // Known from here on, so that questions asked during a long start find the engine.
    routes_[id] = &engine;
    try {
        co_await engine.launch(id, std::move(bundle), std::move(attachments));
    } catch (...) {
        routes_.erase(id);
        throw;
    }
}

Task<void> EngineRouter::stop(UUID id, bool force) {
    if (auto* engine = engineRunning(id)) co_await engine->stop(id, force);
}

Task<void> EngineRouter::pause(UUID id) { co_await requireEngineRunning(id).pause(id); }

Task<void> EngineRouter::resume(UUID id) { co_await requireEngineRunning(id).resume(id); }

Task<void> EngineRouter::saveState(UUID id, Path to) {
    co_await requireEngineRunning(id).saveState(id, std::move(to));
}

bool EngineRouter::canSaveStateNow(VMOSType os) const {
    const auto* engine = engineFor(os);
    return engine == nullptr || engine->canSaveStateNow(os);
}

Task<void> EngineRouter::attachSystemDiskOverlay(UUID id, Path overlay, Path movedPreviousLayerTo,
                                                 std::optional<SnapshotParentRewrite> parentRewrite) {
    co_await requireEngineRunning(id).attachSystemDiskOverlay(
        id, std::move(overlay), std::move(movedPreviousLayerTo), std::move(parentRewrite));
}

std::optional<VMStatus> EngineRouter::status(const UUID& id) const {
    const auto* engine = engineRunning(id);
    return engine == nullptr ? std::nullopt : engine->status(id);
}

std::optional<AsyncStream<VMStatus>> EngineRouter::statusUpdates(const UUID& id) {
    auto* engine = engineRunning(id);
    return engine == nullptr ? std::nullopt : engine->statusUpdates(id);
}

std::optional<VMStopReason> EngineRouter::stopReason(const UUID& id) const {
    // Not by route: the answer may outlive the machine.
    for (const auto* engine : allEngines_)
        if (auto reason = engine->stopReason(id)) return reason;
    return std::nullopt;
}

std::optional<std::string> EngineRouter::macAddress(const UUID& id) const {
    for (const auto* engine : allEngines_)
        if (auto address = engine->macAddress(id)) return address;
    return std::nullopt;
}

Task<std::shared_ptr<GuestAgentChannel>> EngineRouter::connectToGuestAgent(UUID id) {
    co_return co_await requireEngineRunning(id).connectToGuestAgent(id);
}

std::optional<GuestDisplayHandle> EngineRouter::displayHandle(const UUID& id) {
    auto* engine = engineRunning(id);
    return engine == nullptr ? std::nullopt : engine->displayHandle(id);
}

std::vector<UUID> EngineRouter::runningVMIDs() const {
    std::vector<UUID> ids;
    for (const auto* engine : allEngines_) {
        const auto own = engine->runningVMIDs();
        ids.insert(ids.end(), own.begin(), own.end());
    }
    return ids;
}

bool EngineRouter::hasRunningVMs() const {
    return std::any_of(allEngines_.begin(), allEngines_.end(),
                       [](const auto* engine) { return engine->hasRunningVMs(); });
}

Task<void> EngineRouter::shutdownAll(Duration timeout) {
    for (auto* engine : allEngines_) co_await engine->shutdownAll(timeout);
    routes_.clear();
}

}  // namespace dorvane
