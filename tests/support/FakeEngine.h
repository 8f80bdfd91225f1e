// SPDX-License-Identifier: Apache-2.0
// An engine without machines that keeps state as a real one does: statuses, streams, stop reasons, saved
// states.
#pragma once

#include <map>

#include "core/DorvaneError.h"
#include "core/VMEngineProtocol.h"

namespace dorvane::test {

class FakeEngine : public VMEngineProtocol {
  public:
    /// Operations in the order of their calls: "launch", "stop", "forced stop", "pause", "resume", "save".
    std::vector<std::string> calls;
    std::optional<VMAttachments> lastAttachments;
    bool canSave = true;
    bool consumesSavedState = true;
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
    void adopt(const UUID& id, VMStatus status = VMStatus::running) { machines_[id].status = status; }
    /// What the guest or the host's hypervisor does by itself.
    void report(const UUID& id, VMStatus status);
    /// The machine is gone: its streams end without a last value.
    void vanish(const UUID& id, VMStopReason reason);

    Task<void> launch(UUID id, VMBundle bundle, VMAttachments attachments) override;
    Task<void> stop(UUID id, bool force) override;
    Task<void> pause(UUID id) override { return change("pause", id, VMStatus::paused); }
    Task<void> resume(UUID id) override { return change("resume", id, VMStatus::running); }
    Task<void> saveState(UUID, Path to) override;
    bool canSaveStateNow(VMOSType) const override { return canSave; }
    Task<void> attachSystemDiskOverlay(UUID, Path, Path, std::optional<SnapshotParentRewrite>) override {
        return begin("overlay");
    }
    std::optional<VMStatus> status(const UUID& id) const override;
    std::optional<AsyncStream<VMStatus>> statusUpdates(const UUID& id) override;
    std::optional<VMStopReason> stopReason(const UUID& id) const override { return valueOf(reasons_, id); }
    std::optional<std::string> macAddress(const UUID& id) const override { return valueOf(macAddresses, id); }
    Task<std::shared_ptr<GuestAgentChannel>> connectToGuestAgent(UUID) override;
    std::optional<GuestDisplayHandle> displayHandle(const UUID& id) override;
    std::vector<UUID> runningVMIDs() const override;
    bool hasRunningVMs() const override { return !machines_.empty(); }
    Task<void> shutdownAll(Duration timeout) override;

  private:
    struct Machine {
        VMStatus status = VMStatus::starting;
        std::shared_ptr<StreamSource<VMStatus>> updates = std::make_shared<StreamSource<VMStatus>>();
    };

    template <typename Value>
    static std::optional<Value> valueOf(const std::map<UUID, Value>& values, const UUID& id) {
        const auto found = values.find(id);
        return found == values.end() ? std::nullopt : std::optional(found->second);
    }
    Task<void> begin(std::string operation);
    Task<void> change(std::string operation, UUID id, VMStatus status);

    std::map<UUID, Machine> machines_;
    std::map<UUID, VMStopReason> reasons_;
    std::map<std::string, std::exception_ptr> failures_;
    std::map<std::string, Event> holds_;
};

}  // namespace dorvane::test
