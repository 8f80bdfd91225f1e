// SPDX-License-Identifier: Apache-2.0
#include "automation/MCPToolOperations.h"

#include <map>

#include "automation/MCPGuestTools.h"
#include "automation/MCPMachineTools.h"
#include "automation/MCPSandboxTools.h"
#include "automation/MCPSnapshotTools.h"

namespace dorvane {
namespace {

using ValueOperation = Task<JSON> (*)(const MCPToolContext&, const MCPToolArguments&);

/// Puts an operation's value into the envelope of a success.
template <ValueOperation operation>
Task<MCPToolResult> succeeding(const MCPToolContext& context, const MCPToolArguments& arguments) {
    const auto value = co_await operation(context, arguments);
    co_return MCPToolResult::success(value);
}

}  // namespace

MCPToolOperation findToolOperation(std::string_view name) {
    static const std::map<std::string_view, MCPToolOperation> operations{
        {"list_vms", succeeding<MCPMachineTools::listVMs>},
        {"start_vm", succeeding<MCPMachineTools::startVM>},
        {"stop_vm", succeeding<MCPMachineTools::stopVM>},
        {"restart_vm", succeeding<MCPMachineTools::restartVM>},
        {"suspend_vm", succeeding<MCPMachineTools::suspendVM>},
        {"get_vm_status", succeeding<MCPMachineTools::getVMStatus>},
        {"get_vm_ip", succeeding<MCPMachineTools::getVMIP>},
        {"list_snapshots", succeeding<MCPSnapshotTools::listSnapshots>},
        {"take_snapshot", succeeding<MCPSnapshotTools::takeSnapshot>},
        {"restore_snapshot", succeeding<MCPSnapshotTools::restoreSnapshot>},
        {"exec_shell", succeeding<MCPGuestTools::execShell>},
        {"screenshot", MCPGuestTools::screenshot},
        {"clone_vm", succeeding<MCPSandboxTools::cloneVM>},
        {"delete_vm", succeeding<MCPSandboxTools::deleteVM>},
        {"create_vm", succeeding<MCPSandboxTools::createVM>},
    };
    const auto found = operations.find(name);
    return found == operations.end() ? nullptr : found->second;
}

}  // namespace dorvane
