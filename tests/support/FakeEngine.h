// SPDX-License-Identifier: Apache-2.0
// An engine without machines that keeps state as a real one does: statuses, streams, stop reasons, saved
// states.
#pragma once

#include <map>
#include <set>

#include "core/DorvaneError.h"
#include "core/VMEngineProtocol.h"

namespace dorvane::test {

class FakeEngine : public VMEngineProtocol {
  public:
    /// Operations in the order of their calls: "launch", "stop", "forced stop", "pause", "resume", "save".
    std::vector<std::string> calls;
    std::optional<VMAttachments> lastAttachments;
    bool canSave = true;
    std::optional<GuestDisplaySource::Kind> screen;
    std::map<UUID, std::string> macAddresses;
    std::vector<Duration> shutdowns;

    /// The next call of this operation fails, once.
    void failNext(const std::string& operation, std::exception_ptr error) { failures_[operation] = error; }
    void failNext(const std::string& operation, const std::string& words = "the engine failed") {
        failNext(operation, std::make_exception_ptr(std::runtime_error(words)));
    }
    /// Calls of this operation wait until the event is set.
    Event hold(const std::string& operation) { return holds_[operation] = Event(); }

    /// A machine that runs without anybody having launched it here.
    void adopt(const UUID& id, VMStatus status = VMStatus::running) { machine(id).status = status; }
    /// What the guest or the host's hypervisor does by itself.
    void report(const UUID& id, VMStatus status) { change(id, status); }
    /// The machine is gone: its streams end without a last value.
    void vanish(const UUID& id, VMStopReason reason) {
        reasons_[id] = std::move(reason);
        const auto found = machines_.extract(id);
        if (found) found.mapped().updates->finish();
    }

    Task<void> launch(UUID id, VMBundle bundle, VMAttachments attachments) override {
        co_await begin("launch");
        if (machines_.contains(id)) throw DorvaneError(DorvaneError::Case::vmAlreadyRunning, bundle.name());
        lastAttachments = attachments;
        if (bundle.hasSavedState() && consumesSavedState) bundle.discardSavedState();
        change(id, VMStatus::running);
    }
    Task<void> stop(UUID id, bool force) override {
        co_await begin(force ? "forced stop" : "stop");
        if (!machines_.contains(id)) co_return;
        change(id, VMStatus::stopped);
        vanish(id, force ? VMStopReason::forced() : VMStopReason::requested());
    }
    Task<void> pause(UUID id) override {
        co_await begin("pause");
        change(id, VMStatus::paused);
    }
    Task<void> resume(UUID id) override {
        co_await begin("resume");
        change(id, VMStatus::running);
    }
    Task<void> saveState(UUID, Path to) override {
        writeFileAtomically(to, "half a state");
        co_await begin("save");
        writeFileAtomically(to, "memory");
    }
    bool canSaveStateNow(VMOSType) const override { return canSave; }
    Task<void> attachSystemDiskOverlay(UUID, Path, Path, std::optional<SnapshotParentRewrite>) override {
        co_await begin("overlay");
    }
    std::optional<VMStatus> status(const UUID& id) const override {
        const auto found = machines_.find(id);
        return found == machines_.end() ? std::nullopt : std::optional(found->second.status);
    }
    std::optional<AsyncStream<VMStatus>> statusUpdates(const UUID& id) override {
        const auto found = machines_.find(id);
        if (found == machines_.end()) return std::nullopt;
        return found->second.updates->subscribe(found->second.status);
    }
    std::optional<VMStopReason> stopReason(const UUID& id) const override {
        const auto found = reasons_.find(id);
        return found == reasons_.end() ? std::nullopt : std::optional(found->second);
    }
    std::optional<std::string> macAddress(const UUID& id) const override {
        const auto found = macAddresses.find(id);
        return found == macAddresses.end() ? std::nullopt : std::optional(found->second);
    }
    Task<std::shared_ptr<GuestAgentChannel>> connectToGuestAgent(UUID) override {
        co_await begin("agent");
        co_return std::make_shared<GuestAgentChannel>();
    }
    std::optional<GuestDisplayHandle> displayHandle(const UUID& id) override {
        if (!machines_.contains(id) || !screen) return std::nullopt;
        GuestDisplayHandle handle;
        handle.source = *screen;
        return handle;
    }
    std::vector<UUID> runningVMIDs() const override {
        std::vector<UUID> ids;
        for (const auto& [id, machine] : machines_) ids.push_back(id);
        return ids;
    }
    bool hasRunningVMs() const override { return !machines_.empty(); }
    Task<void> shutdownAll(Duration timeout) override {
        shutdowns.push_back(timeout);
        for (const auto& id : runningVMIDs()) co_await stop(id, false);
    }

    bool consumesSavedState = true;

  private:
    struct Machine {
        VMStatus status = VMStatus::starting;
        std::shared_ptr<StreamSource<VMStatus>> updates = std::make_shared<StreamSource<VMStatus>>();
    };

    Task<void> begin(std::string operation) {
        calls.push_back(operation);
        if (const auto held = holds_.find(operation); held != holds_.end()) co_await held->second.wait();
        if (const auto failure = failures_.extract(operation)) std::rethrow_exception(failure.mapped());
    }
    Machine& machine(const UUID& id) { return machines_[id]; }
    void change(const UUID& id, VMStatus status) {
        machine(id).status = status;
        machine(id).updates->yield(status);
    }

    std::map<UUID, Machine> machines_;
    std::map<UUID, VMStopReason> reasons_;
    std::map<std::string, std::exception_ptr> failures_;
    std::map<std::string, Event> holds_;
};

}  // namespace dorvane::test
