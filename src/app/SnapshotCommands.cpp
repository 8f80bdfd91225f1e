// SPDX-License-Identifier: Apache-2.0
// Snapshots.
#include "app/ServiceCommands.h"
#include "base/Localized.h"
#include "base/Text.h"

namespace dorvane {
namespace {

JSON snapshotObject(const VMSnapshot& snapshot) {
    return {{"id", snapshot.id.text()},
            {"name", snapshot.name},
            {"kind", snapshot.kind() == VMSnapshotKind::automatic ? "automatic" : "manual"},
            {"createdAt", iso8601Text(snapshot.createdAt)},
            {"includesRAMState", snapshot.includesRAMState},
            {"takenWhileRunning", snapshot.takenWhileRunning()},
            {"logicalDiskSizeBytes", snapshot.logicalDiskSizeBytes}};
}

/// By UUID, else by name. A name that several have decides nothing: what follows can't be taken back.
VMSnapshotPointer findSnapshot(const std::vector<VMSnapshotPointer>& snapshots, const std::string& nameOrID,
                               const VMRecord& vm) {
    std::vector<std::string> known;
    std::vector<VMSnapshotPointer> named;
    for (const auto& snapshot : snapshots) {
        if (UUID::parse(nameOrID) == snapshot->id) return snapshot;
        known.push_back(snapshot->name);
        if (snapshot->name == nameOrID) named.push_back(snapshot);
    }
    if (named.size() == 1) return named.front();
    if (named.empty())
        throw ControlError(ControlErrorCode::operationFailed,
                           localized("“%@” has no snapshot named “%@”. It has: %@", vm.name, nameOrID,
                                     known.empty() ? "(none)" : joined(known, ", ")));
    std::vector<std::string> ids;
    for (const auto& snapshot : named) ids.push_back(snapshot->id.text());
    throw ControlError(ControlErrorCode::operationFailed,
                       localized("“%@” has %d snapshots named “%@”. Give the UUID of one: %@", vm.name,
                                 named.size(), nameOrID, joined(ids, ", ")));
}

Task<JSON> listSnapshots(AppState& app, JSON params) {
    auto& service = app.snapshotService();
    const auto vm = co_await resolveMachine(app, params);
    const auto snapshots = co_await service.listSnapshots(vm);
    auto shown = JSON::array();
    for (const auto& snapshot : snapshots) shown.push_back(snapshotObject(*snapshot));
    co_return shown;
}

Task<JSON> take(AppState& app, JSON params) {
    auto& service = app.snapshotService();
    const auto name = requiredText(params, "name");
    const bool includeMemory = JSONReader(params).optional<bool>("includeMemory").value_or(false);
    const auto vm = co_await resolveMachine(app, params);
    const auto snapshot = co_await service.takeSnapshot(vm, name, includeMemory, VMSnapshotKind::manual);
    co_return snapshotObject(*snapshot);
}

using SnapshotOperation = Task<void> (VMSnapshotServiceProtocol::*)(VMSnapshotPointer, VMRecordPointer);

/// Restores or deletes one.
Task<JSON> change(AppState& app, JSON params, SnapshotOperation operation) {
    auto& service = app.snapshotService();
    const auto nameOrID = requiredText(params, "snapshot");
    const auto vm = co_await resolveMachine(app, params);
    const auto snapshots = co_await service.listSnapshots(vm);
    const auto snapshot = findSnapshot(snapshots, nameOrID, *vm);
    auto shown = snapshotObject(*snapshot);
    co_await (service.*operation)(snapshot, vm);
    co_return shown;
}

Task<JSON> prune(AppState& app, JSON params) {
    auto& service = app.snapshotService();
    const auto keep =
        JSONReader(params).optional<int>("keep").value_or(app.settingsService().mcpAutoSnapshotKeepCount());
    if (keep < 0)
        throw ControlError(ControlErrorCode::invalidParams,
                           localized("There is no keeping fewer than none."));
    const auto vm = co_await resolveMachine(app, params);
    const int removed = co_await service.pruneAutomaticSnapshots(vm, keep);
    co_return JSON{{"name", vm->name}, {"id", vm->id.text()}, {"kept", keep}, {"removed", removed}};
}

}  // namespace

void addSnapshotCommands(ControlMethods& methods, AppState& app) {
    const auto add = [&methods](const char* name, auto perform) {
        methods[name] = {
            [perform](JSON params, const ProgressReporter&) { return perform(std::move(params)); },
            runToTheEnd};
    };
    add("snapshot.list", [&app](JSON params) { return listSnapshots(app, std::move(params)); });
    add("snapshot.take", [&app](JSON params) { return take(app, std::move(params)); });
    add("snapshot.restore", [&app](JSON params) {
        return change(app, std::move(params), &VMSnapshotServiceProtocol::restoreSnapshot);
    });
    add("snapshot.delete", [&app](JSON params) {
        return change(app, std::move(params), &VMSnapshotServiceProtocol::deleteSnapshot);
    });
    add("snapshot.prune", [&app](JSON params) { return prune(app, std::move(params)); });
}

}  // namespace dorvane
