// SPDX-License-Identifier: Apache-2.0
#include "core/VMStatusWatcher.h"

namespace dorvane {

void VMStatusWatcher::watch(const UUID& vmID) {
    forget(vmID);
    const auto number = nextNumber_++;
    // The first value is applied before `spawn` returns, and only for a watcher that is known.
    watchers_[vmID] = {number, {}};
    auto task =
        spawn(with_.runtime.main.executor(),
              follow(weak_from_this(), vmID, number, with_.engine.statusUpdates(vmID)), "watchEngineStatus");
    if (const auto watcher = watchers_.find(vmID);
        watcher != watchers_.end() && watcher->second.number == number)
        watcher->second.task = std::move(task);
}

std::shared_ptr<VMStatusWatcher> VMStatusWatcher::current(const std::weak_ptr<VMStatusWatcher>& weak,
                                                          const UUID& vmID, std::uint64_t number) {
    auto self = weak.lock();
    if (!self) return nullptr;
    const auto watcher = self->watchers_.find(vmID);
    if (watcher == self->watchers_.end() || watcher->second.number != number) return nullptr;
    return self;
}

Task<void> VMStatusWatcher::follow(std::weak_ptr<VMStatusWatcher> weak, UUID vmID, std::uint64_t number,
                                   std::optional<AsyncStream<VMStatus>> stream) {
    for (;;) {
        std::optional<VMStatus> value;
        if (stream) value = co_await stream->next();
        co_await apply(weak, vmID, number, value.value_or(VMStatus::stopped));
        if (value) continue;
        if (const auto self = current(weak, vmID, number)) self->forget(vmID);
        co_return;
    }
}

Task<void> VMStatusWatcher::apply(std::weak_ptr<VMStatusWatcher> weak, UUID vmID, std::uint64_t number,
                                  VMStatus status) {
    auto self = current(weak, vmID, number);
    const auto vm = self ? self->takeOver(status, vmID) : nullptr;
    if (!vm) co_return;
    bool showsInstalledSystem = false;
    if (InstallerBootFlow::shouldAttempt(*vm)) {
        auto inspection = self->flow_.inspect(vm->bundle());
        self.reset();
        showsInstalledSystem = co_await std::move(inspection);
        self = current(weak, vmID, number);
    }
    if (self && !vm->isDeleted) self->keep(*vm, showsInstalledSystem);
}

/// The record when its status changed.
VMRecordPointer VMStatusWatcher::takeOver(VMStatus status, const UUID& vmID) {
    if (status == VMStatus::stopped || status == VMStatus::error) access_.close(vmID);
    auto vm = library_.find(vmID);
    if (!vm || vm->status == status) return nullptr;
    vm->status = status;
    return vm;
}

void VMStatusWatcher::keep(VMRecord& vm, bool showsInstalledSystem) {
    const bool isStamped = flow_.autoComplete(vm, showsInstalledSystem);
    if (!isStamped) vm.updatedAt = with_.runtime.clock.date();
    library_.commitQuietly();
}

}  // namespace dorvane
