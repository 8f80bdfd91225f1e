// SPDX-License-Identifier: Apache-2.0
#include "core/VMRunControl.h"

#include <algorithm>

#include "core/DorvaneError.h"
#include "core/VMBundleReading.h"
#include "core/VMServiceLogger.h"

namespace dorvane {
namespace {

using Case = DorvaneError::Case;

// The guest's SSH server has about 80 s to come up after a restore.
constexpr auto clockSyncAttempts = 20;
constexpr auto clockSyncDelay = seconds(4.0);

/// Marks a machine as being started, on every way out.
class StartMark {
  public:
    StartMark(std::set<UUID>& starting, const UUID& id) : starting_(starting), id_(id) {
        starting_.insert(id_);
    }
    StartMark(const StartMark&) = delete;
    StartMark& operator=(const StartMark&) = delete;
    ~StartMark() { starting_.erase(id_); }

  private:
    std::set<UUID>& starting_;
    UUID id_;
};

void requireStatus(const VMRecord& vm, std::initializer_list<VMStatus> allowed) {
    if (std::find(allowed.begin(), allowed.end(), vm.status) == allowed.end())
        throw DorvaneError(Case::vmNotRunning, vm.name);
}

std::optional<int> forwardedSSHPort(const VMBundle& bundle) {
    try {
        const auto ssh = DorvaneVMConfig::read(bundle.configFile()).windowsSSH;
        if (ssh && ssh->enabled) return ssh->hostPort;
    } catch (const std::exception&) {
        // Without the file there is no port to reach the guest by.
    }
    return std::nullopt;
}

/// A start that nobody waits for any more is given up, wherever it stands: the engine ends the machine that
/// it has begun to launch, and the cancellation holds back one that it hasn't.
Task<void> launchOrGiveUp(const Runtime& runtime, VMEngineProtocol& engine, VMRecordPointer vm,
                          VMAttachments attachments) {
    const auto main = runtime.main.executor();
    TaskHandle ending;
    const auto giveUp = [&](TaskHandle& launching) {
        ending = spawn(main, engine.stop(vm->id, true), "give up a start");
        launching.cancel();
    };
    auto launching = engine.launch(vm->id, vm->bundle(), std::move(attachments));
    std::exception_ptr failure;
    try {
        co_await onExecutor(main, std::move(launching), giveUp);
    } catch (...) {
        failure = std::current_exception();
    }
    if (ending) co_await ending.finished();
    if (failure) std::rethrow_exception(failure);
}

Task<void> syncClock(const Runtime& runtime, VMEngineProtocol& engine, GuestClockSyncing& clockSync,
                     std::weak_ptr<const bool> service, VMRecordPointer vm) {
    const auto readPort = [bundle = vm->bundle()] { return forwardedSSHPort(bundle); };
    const auto port = co_await runtime.background.run(readPort);
    if (!port || service.expired()) co_return;
    const std::function<bool()> isVMRunning = [&engine, service, id = vm->id] {
        return !service.expired() && engine.status(id) == VMStatus::running;
    };
    co_await clockSync.syncAfterRestore(vm, *port, isVMRunning, clockSyncAttempts, clockSyncDelay);
}

}  // namespace

void VMRunControl::requireStartable(const VMRecord& vm) const {
    with_.gate.requireFree(vm.id, vm.name);
    if (isStarting(vm.id)) throw DorvaneError(Case::vmAlreadyRunning, vm.name);
    if (vm.isShutDownForEditing()) return;
    // A record left "running" by a crash is stale: the engine knows.
    const auto status = with_.engine.status(vm.id).value_or(VMStatus::stopped);
    if (status != VMStatus::stopped && status != VMStatus::error)
        throw DorvaneError(Case::vmAlreadyRunning, vm.name);
}

Task<void> VMRunControl::start(VMRecordPointer vm) {
    // While an earlier process's work is being made good, the machine is held.
    if (with_.recovery != nullptr) {
        // A task of its own: one that has mended something can't be cancelled any more, and this one must be.
        auto recovery = with_.recovery->recover(vm);
        co_await onExecutor(with_.runtime.main.executor(), std::move(recovery));
    }
    requireStartable(*vm);
    const StartMark mark(starting_, vm->id);
    // What the last run's watcher still has to tell is not about this run.
    watcher_.forget(vm->id);
    access_.open(*vm);
    Plan plan;
    try {
        plan = co_await prepare(vm);
        // Nobody may have taken the machine's files meanwhile.
        with_.gate.requireFree(vm->id, vm->name);
    } catch (...) {
        access_.close(vm->id);
        throw;
    }
    try {
        co_await launchOrGiveUp(with_.runtime, with_.engine, vm, plan.attachments);
    } catch (...) {
        noteFailedStart(*vm);
        throw;
    }
    if (vm->isDeleted) {
        access_.close(vm->id);
        co_await with_.engine.stop(vm->id, true);
        throw DorvaneError::vmNotFound(vm->id);
    }
    noteStart(*vm);
    watcher_.watch(vm->id);
    if (plan.resumesSavedState && vm->osType == VMOSType::windows && !vm->hasSuspendedState())
        scheduleGuestClockSync(vm);
    vmServiceLogger.info("Started VM: %s", vm->name);
}

Task<VMRunControl::Plan> VMRunControl::prepare(VMRecordPointer vm) {
    const auto bundle = vm->bundle();
    const auto check = [bundle] { requireComplete(bundle, Case::vmStartupFailed); };
    co_await with_.runtime.background.run(check);
    co_await flow_.dropImageIfSystemIsBootable(vm);
    const auto plan = [bundle, fields = VMRecordFields(*vm), &builder = attachmentsBuilder_] {
        return Plan{builder.attachments(fields), bundle.hasSavedState()};
    };
    co_return co_await with_.runtime.background.run(plan);
}

void VMRunControl::noteFailedStart(VMRecord& vm) {
    access_.close(vm.id);
    if (vm.isDeleted) return;
    vm.status = VMStatus::error;
    library_.commitQuietly();
}

void VMRunControl::noteStart(VMRecord& vm) {
    vm.status = VMStatus::running;
    vm.updatedAt = now();
    vm.lastLaunchedAt = vm.updatedAt;
    try {
        library_.commit();
    } catch (...) {
        noteFailedStart(vm);
        throw;
    }
}

Task<void> VMRunControl::stop(VMRecordPointer vm, bool force) {
    with_.gate.requireFree(vm->id, vm->name);
    requireStatus(*vm, {VMStatus::running, VMStatus::paused, VMStatus::starting});
    if (vm->status == VMStatus::paused && !force) {
        co_await with_.engine.resume(vm->id);
        vm->status = VMStatus::running;
    }
    co_await with_.engine.stop(vm->id, force);
    // The machine is down; the record has to follow even when the caller has lost interest.
    co_await ignoreCancellation();
    access_.close(vm->id);
    if (vm->isDeleted) co_return;
    vm->status = VMStatus::stopped;
    const bool isStamped = co_await flow_.autoComplete(vm);
    if (!isStamped) vm->updatedAt = now();
    library_.commit();
    vmServiceLogger.info("Stopped VM: %s", vm->name);
}

Task<void> VMRunControl::restart(VMRecordPointer vm) {
    with_.gate.requireFree(vm->id, vm->name);
    requireStatus(*vm, {VMStatus::running, VMStatus::paused});
    co_await stop(vm, false);
    co_await start(vm);
    vmServiceLogger.info("Restarted VM: %s", vm->name);
}

Task<void> VMRunControl::pause(VMRecordPointer vm) {
    return change(std::move(vm), VMStatus::running, &VMEngineProtocol::pause, VMStatus::paused,
                  "Paused VM: %s");
}

Task<void> VMRunControl::resume(VMRecordPointer vm) {
    return change(std::move(vm), VMStatus::paused, &VMEngineProtocol::resume, VMStatus::running,
                  "Resumed VM: %s");
}

Task<void> VMRunControl::change(VMRecordPointer vm, VMStatus from, EngineOperation operation, VMStatus to,
                                const char* logText) {
    with_.gate.requireFree(vm->id, vm->name);
    requireStatus(*vm, {from});
    co_await (with_.engine.*operation)(vm->id);
    if (vm->isDeleted) co_return;
    vm->status = to;
    vm->updatedAt = now();
    library_.commit();
    vmServiceLogger.info(logText, vm->name);
}

void VMRunControl::refreshState(VMRecord& vm) {
    const auto status = with_.engine.status(vm.id).value_or(VMStatus::stopped);
    if (vm.isDeleted || vm.status == status) return;
    vm.status = status;
    library_.commit();
}

void VMRunControl::scheduleGuestClockSync(const VMRecordPointer& vm) {
    if (with_.clockSync == nullptr) return;
    clockSyncs_[vm->id] = spawn(with_.runtime.main.executor(),
                                syncClock(with_.runtime, with_.engine, *with_.clockSync, lifetime_, vm),
                                "scheduleGuestClockSync");
}

}  // namespace dorvane
