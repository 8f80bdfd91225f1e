// SPDX-License-Identifier: Apache-2.0
#include "core/VMStatusWatcher.h"

namespace dorvane {

void VMStatusWatcher::watch(const UUID& vmID) {
    forget(vmID);
    auto stream = with_.engine.statusUpdates(vmID);
    if (!stream) return;
    const auto number = nextNumber_++;
    watchers_[vmID] = {number, spawn(with_.runtime.main.executor(),
                                     follow(weak_from_this(), vmID, number, std::move(*stream)), "watchEngineStatus")};
}

bool VMStatusWatcher::isCurrent(const UUID& vmID, std::uint64_t number) const {
    const auto watcher = watchers_.find(vmID);
    return watcher != watchers_.end() && watcher->second.number == number;
}

Task<void> VMStatusWatcher::follow(std::weak_ptr<VMStatusWatcher> weak, UUID vmID, std::uint64_t number,
                                   AsyncStream<VMStatus> stream) {
    for (;;) {
        const auto value = co_await stream.next();
        const auto self = weak.lock();
        // A value may have been on its way when this watcher was forgotten: it belongs to an earlier run.
        if (!self || !self->isCurrent(vmID, number)) co_return;
        co_await self->apply(value.value_or(VMStatus::stopped), vmID);
        if (value) continue;
        if (self->isCurrent(vmID, number)) self->forget(vmID);
        co_return;
    }
}

Task<void> VMStatusWatcher::apply(VMStatus status, UUID vmID) {
    if (status == VMStatus::stopped || status == VMStatus::error) access_->close(vmID);
    const auto vm = library_->find(vmID);
    if (!vm || vm->status == status) co_return;
    vm->status = status;
    const bool isStamped = co_await flow_->autoComplete(vm);
    if (vm->isDeleted) co_return;
    if (!isStamped) vm->updatedAt = with_.runtime.clock.date();
    library_->commitQuietly();
}

}  // namespace dorvane
