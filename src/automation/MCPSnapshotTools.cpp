// SPDX-License-Identifier: Apache-2.0
#include "automation/MCPSnapshotTools.h"

#include "automation/MCPToolTargets.h"

namespace dorvane {
namespace {

JSON snapshotValue(const VMSnapshot& snapshot) {
    JSON value;
    value["id"] = snapshot.id.text();
    value["name"] = snapshot.name;
    value["createdAt"] = iso8601Text(snapshot.createdAt);
    value["includesRAMState"] = snapshot.includesRAMState;
    value["takenWhileRunning"] = snapshot.takenWhileRunning();
    value["logicalDiskSizeBytes"] = snapshot.logicalDiskSizeBytes;
    return value;
}

}  // namespace

Task<JSON> MCPSnapshotTools::listSnapshots(const MCPToolContext& context, const MCPToolArguments& arguments) {
    const auto vm = co_await MCPToolTargets::resolveVM(context, arguments);
    const auto snapshots = co_await context.requireSnapshotService().listSnapshots(vm);
    auto list = JSON::array();
    for (const auto& snapshot : snapshots) list.push_back(snapshotValue(*snapshot));
    co_return list;
}

Task<JSON> MCPSnapshotTools::takeSnapshot(const MCPToolContext& context, const MCPToolArguments& arguments) {
    const auto vm = co_await MCPToolTargets::resolveVM(context, arguments);
    const auto name = arguments.requiredText("name", "Missing required argument: name");
    const auto snapshot = co_await context.requireSnapshotService().takeSnapshot(
        vm, name, arguments.isTrue("include_memory"), VMSnapshotKind::manual);
    co_return snapshotValue(*snapshot);
}

Task<JSON> MCPSnapshotTools::restoreSnapshot(const MCPToolContext& context,
                                             const MCPToolArguments& arguments) {
    const auto vm = co_await MCPToolTargets::resolveVM(context, arguments);
    const auto snapshot = co_await MCPToolTargets::resolveSnapshot(context, arguments, vm);
    co_await context.requireSnapshotService().restoreSnapshot(snapshot, vm);
    JSON value;
    value["status"] = "restored";
    value["vm"] = vm->name;
    value["snapshot"] = snapshot->name;
    co_return value;
}

}  // namespace dorvane
