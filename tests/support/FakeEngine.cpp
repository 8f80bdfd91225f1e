// SPDX-License-Identifier: Apache-2.0
#include "support/FakeEngine.h"

namespace dorvane::test {

void FakeEngine::failNext(const std::string& operation, std::exception_ptr error) {
    failures_[operation] = error;
}

void FakeEngine::failNext(const std::string& operation, const std::string& words) {
    failNext(operation, std::make_exception_ptr(std::runtime_error(words)));
}

Event FakeEngine::hold(const std::string& operation) { return holds_[operation] = Event(); }

void FakeEngine::adopt(const UUID& id, VMStatus status) { machine(id).status = status; }

void FakeEngine::report(const UUID& id, VMStatus status) { change(id, status); }

void FakeEngine::vanish(const UUID& id, VMStopReason reason) {
    reasons_[id] = std::move(reason);
    const auto found = machines_.extract(id);
    if (found) found.mapped().updates->finish();
}

Task<void> FakeEngine::launch(UUID id, VMBundle bundle, VMAttachments attachments) {
    co_await begin("launch");
    if (machines_.contains(id)) throw DorvaneError(DorvaneError::Case::vmAlreadyRunning, bundle.name());
    lastAttachments = attachments;
    if (bundle.hasSavedState() && consumesSavedState) bundle.discardSavedState();
    change(id, VMStatus::running);
}

Task<void> FakeEngine::stop(UUID id, bool force) {
    co_await begin(force ? "forced stop" : "stop");
    if (!machines_.contains(id)) co_return;
    change(id, VMStatus::stopped);
    vanish(id, force ? VMStopReason::forced() : VMStopReason::requested());
}

Task<void> FakeEngine::pause(UUID id) {
    co_await begin("pause");
    change(id, VMStatus::paused);
}

Task<void> FakeEngine::resume(UUID id) {
    co_await begin("resume");
    change(id, VMStatus::running);
}

Task<void> FakeEngine::saveState(UUID, Path to) {
    writeFileAtomically(to, "half a state");
    co_await begin("save");
    writeFileAtomically(to, "memory");
}

bool FakeEngine::canSaveStateNow(VMOSType) const { return canSave; }

Task<void> FakeEngine::attachSystemDiskOverlay(UUID, Path, Path, std::optional<SnapshotParentRewrite>) {
    co_await begin("overlay");
}

std::optional<VMStatus> FakeEngine::status(const UUID& id) const {
    const auto found = machines_.find(id);
    return found == machines_.end() ? std::nullopt : std::optional(found->second.status);
}

std::optional<AsyncStream<VMStatus>> FakeEngine::statusUpdates(const UUID& id) {
    const auto found = machines_.find(id);
    if (found == machines_.end()) return std::nullopt;
    return found->second.updates->subscribe(found->second.status);
}

std::optional<VMStopReason> FakeEngine::stopReason(const UUID& id) const {
    const auto found = reasons_.find(id);
    return found == reasons_.end() ? std::nullopt : std::optional(found->second);
}

std::optional<std::string> FakeEngine::macAddress(const UUID& id) const {
    const auto found = macAddresses.find(id);
    return found == macAddresses.end() ? std::nullopt : std::optional(found->second);
}

Task<std::shared_ptr<GuestAgentChannel>> FakeEngine::connectToGuestAgent(UUID) {
    co_await begin("agent");
    co_return std::make_shared<GuestAgentChannel>();
}

std::optional<GuestDisplayHandle> FakeEngine::displayHandle(const UUID& id) {
    if (!machines_.contains(id) || !screen) return std::nullopt;
    GuestDisplayHandle handle;
    handle.source = *screen;
    return handle;
}

std::vector<UUID> FakeEngine::runningVMIDs() const {
    std::vector<UUID> ids;
    for (const auto& [id, machine] : machines_) ids.push_back(id);
    return ids;
}

bool FakeEngine::hasRunningVMs() const { return !machines_.empty(); }

Task<void> FakeEngine::shutdownAll(Duration timeout) {
    shutdowns.push_back(timeout);
    for (const auto& id : runningVMIDs()) co_await stop(id, false);
}

Task<void> FakeEngine::begin(std::string operation) {
    calls.push_back(operation);
    if (const auto held = holds_.find(operation); held != holds_.end()) co_await held->second.wait();
    if (const auto failure = failures_.extract(operation)) std::rethrow_exception(failure.mapped());
}

FakeEngine::Machine& FakeEngine::machine(const UUID& id) { return machines_[id]; }

void FakeEngine::change(const UUID& id, VMStatus status) {
    machine(id).status = status;
    machine(id).updates->yield(status);
}

}  // namespace dorvane::test
