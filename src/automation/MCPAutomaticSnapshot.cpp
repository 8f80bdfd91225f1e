// SPDX-License-Identifier: Apache-2.0
#include "automation/MCPAutomaticSnapshot.h"

#include "core/DorvaneError.h"

namespace dorvane {
namespace {

/// Reported when no room can be made in a chain that is too deep.
constexpr int maximumChainDepth = 16;

bool isChainTooDeep(const std::exception_ptr& failure) {
    try {
        std::rethrow_exception(failure);
    } catch (const DorvaneError& error) {
        return error.which() == DorvaneError::Case::snapshotChainTooDeep;
    } catch (...) {
        return false;
    }
}

Task<VMSnapshotPointer> take(const MCPToolContext& context, VMRecordPointer vm, std::string name) {
    return context.requireSnapshotService().takeSnapshot(vm, std::move(name), false,
                                                         VMSnapshotKind::automatic);
}

/// 0 when they can't be listed.
Task<int> automaticSnapshotCount(const MCPToolContext& context, VMRecordPointer vm) {
    std::vector<VMSnapshotPointer> snapshots;
    try {
        snapshots = co_await context.requireSnapshotService().listSnapshots(vm);
    } catch (...) {
        // Nothing is known to be removable then.
    }
    co_return static_cast<int>(std::ranges::count_if(
        snapshots, [](const auto& snapshot) { return snapshot->kind() == VMSnapshotKind::automatic; }));
}

/// Gives up the oldest automatic snapshot, once, when the chain has no room for another layer.
Task<VMSnapshotPointer> takeMakingRoom(const MCPToolContext& context, VMRecordPointer vm, std::string name) {
    std::exception_ptr failure;
    VMSnapshotPointer snapshot;
    try {
        snapshot = co_await take(context, vm, name);
    } catch (...) {
        failure = std::current_exception();
    }
    if (!failure) co_return snapshot;
    if (!isChainTooDeep(failure)) std::rethrow_exception(failure);
    const int count = co_await automaticSnapshotCount(context, vm);
    if (count == 0) throw DorvaneError::snapshotChainTooDeep(maximumChainDepth);
    co_await context.requireSnapshotService().pruneAutomaticSnapshots(vm, count - 1);
    snapshot = co_await take(context, vm, name);
    co_return snapshot;
}

}  // namespace

Task<MCPAutomaticSnapshot> MCPAutomaticSnapshot::takeIfEnabled(const MCPToolContext& context,
                                                               VMRecordPointer vm) {
    MCPAutomaticSnapshot taken;
    const auto& settings = context.services.settingsService;
    taken.summary = "disabled";
    if (!vm->autoSnapshotBeforeAgentStart.value_or(settings.isMCPAutoSnapshotEnabled())) co_return taken;
    taken.summary = "skipped: VM was not stopped";
    if (!vm->isShutDownForEditing()) co_return taken;
    std::exception_ptr failure;
    try {
        const auto name = "Before agent start " + iso8601Text(context.clock.date());
        taken.snapshot = co_await takeMakingRoom(context, vm, name);
        taken.summary = "created: " + taken.snapshot->name;
        co_await context.requireSnapshotService().pruneAutomaticSnapshots(
            vm, settings.mcpAutoSnapshotKeepCount());
    } catch (...) {
        failure = std::current_exception();
    }
    if (isCancellation(failure)) std::rethrow_exception(failure);
    if (!failure) co_return taken;
    const auto text = describedWithSuggestion(failure);
    if (taken.snapshot) {
        // It is there, so a start that fails must still be able to remove it.
        context.logger.error("Could not prune automatic snapshots of %{public}s: %{public}s", vm->name, text);
    } else {
        context.logger.error("Automatic snapshot skipped for %{public}s: %{public}s", vm->name, text);
        taken.summary = "skipped: " + text;
    }
    co_return taken;
}

Task<void> MCPAutomaticSnapshot::discard(const MCPToolContext& context, VMRecordPointer vm,
                                         VMSnapshotPointer snapshot) {
    if (!snapshot) co_return;
    std::exception_ptr failure;
    try {
        co_await context.requireSnapshotService().deleteSnapshot(snapshot, vm);
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure)
        context.logger.error(
            "Could not remove the automatic snapshot after a failed start of %{public}s: %{public}s",
            vm->name, describedWithSuggestion(failure));
}

}  // namespace dorvane
