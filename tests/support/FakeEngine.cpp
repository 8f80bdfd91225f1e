// SPDX-License-Identifier: Apache-2.0
#include "support/FakeEngine.h"

namespace dorvane::test {

void FakeEngine::report(const UUID& id, VMStatus status) {
    machines_[id].status = status;
    machines_[id].updates->yield(status);
}

void FakeEngine::vanish(const UUID& id, VMStopReason reason) {
    reasons_[id] = std::move(reason);
    if (const auto found = machines_.extract(id)) found.mapped().updates->finish();
}

Task<void> FakeEngine::launch(UUID id, VMBundle bundle, VMAttachments attachments) {
    co_await begin("launch");
    if (machines_.contains(id)) throw DorvaneError(DorvaneError::Case::vmAlreadyRunning, bundle.name());
    lastAttachments = attachments;
    if (bundle.hasSavedState() && consumesSavedState) bundle.discardSavedState();
    report(id, VMStatus::running);
}

Task<void> FakeEngine::stop(UUID id, bool force) {
    co_await begin(force ? "forced stop" : "stop");
    if (!machines_.contains(id)) co_return;
    report(id, VMStatus::stopped);
    vanish(id, force ? VMStopReason::forced() : VMStopReason::requested());
}

Task<void> FakeEngine::saveState(UUID, Path to) {
    writeFileAtomically(to, "half a state");
    co_await begin("save");
    writeFileAtomically(to, "memory");
}

std::optional<VMStatus> FakeEngine::status(const UUID& id) const {
    const auto machine = valueOf(machines_, id);
    return machine ? std::optional(machine->status) : std::nullopt;
}

std::optional<AsyncStream<VMStatus>> FakeEngine::statusUpdates(const UUID& id) {
    const auto machine = valueOf(machines_, id);
    return machine ? std::optional(machine->updates->subscribe(machine->status)) : std::nullopt;
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

Task<void> FakeEngine::shutdownAll(Duration timeout) {
    shutdowns.push_back(timeout);
    for (const auto& id : runningVMIDs()) co_await stop(id, false);
}

Task<void> FakeEngine::begin(std::string operation) {
    calls.push_back(operation);
    if (const auto held = holds_.find(operation); held != holds_.end()) co_await held->second.wait();
    if (const auto failure = failures_.extract(operation)) std::rethrow_exception(failure.mapped());
}

Task<void> FakeEngine::change(std::string operation, UUID id, VMStatus status) {
    co_await begin(std::move(operation));
    report(id, status);
}

}  // namespace dorvane::test
