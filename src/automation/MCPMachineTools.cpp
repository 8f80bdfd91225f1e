// SPDX-License-Identifier: Apache-2.0
#include "automation/MCPMachineTools.h"

#include "automation/MCPAutomaticSnapshot.h"
#include "automation/MCPToolTargets.h"

namespace dorvane {
namespace {

/// What both machine objects have in common.
JSON machineValue(const VMRecord& vm) {
    JSON value;
    value["id"] = vm.id.text();
    value["name"] = vm.name;
    value["os"] = rawValue(vm.osType);
    value["status"] = rawValue(vm.status);
    value["cpuCount"] = vm.cpuCount;
    value["memoryMB"] = vm.memoryMB;
    if (vm.hasSuspendedState()) value["suspended"] = true;
    return value;
}

JSON listedMachine(const VMRecord& vm) {
    auto value = machineValue(vm);
    putOptional(value, "osVersion", vm.osVersionLabel);
    if (vm.ephemeral) {
        value["ephemeral"] = true;
        value["expiresAt"] = iso8601Text(vm.ephemeral->expiresAt);
    }
    return value;
}

JSON outcome(const char* status, const VMRecord& vm) {
    JSON value;
    value["status"] = status;
    value["vm"] = vm.name;
    return value;
}

}  // namespace

Task<JSON> MCPMachineTools::listVMs(const MCPToolContext& context, const MCPToolArguments&) {
    co_await context.services.vmService.refreshVMList();
    auto list = JSON::array();
    for (const auto& vm : context.services.vmService.vms()) list.push_back(listedMachine(*vm));
    co_return list;
}

Task<JSON> MCPMachineTools::startVM(const MCPToolContext& context, const MCPToolArguments& arguments) {
    const auto vm = co_await MCPToolTargets::resolveVM(context, arguments);
    const auto automatic = co_await MCPAutomaticSnapshot::takeIfEnabled(context, vm);
    std::exception_ptr failure;
    try {
        co_await context.services.vmService.startVM(vm);
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure) {
        co_await MCPAutomaticSnapshot::discard(context, vm, automatic.snapshot);
        std::rethrow_exception(failure);
    }
    auto value = outcome("started", *vm);
    value["autoSnapshot"] = automatic.summary;
    co_return value;
}

Task<JSON> MCPMachineTools::stopVM(const MCPToolContext& context, const MCPToolArguments& arguments) {
    const auto vm = co_await MCPToolTargets::resolveVM(context, arguments);
    const bool force = arguments.isTrue("force");
    co_await context.services.vmService.stopVM(vm, force);
    auto value = outcome("stopped", *vm);
    value["forced"] = force || context.services.vmService.lastStopWasForced(*vm);
    co_return value;
}

Task<JSON> MCPMachineTools::restartVM(const MCPToolContext& context, const MCPToolArguments& arguments) {
    const auto vm = co_await MCPToolTargets::resolveVM(context, arguments);
    co_await context.services.vmService.restartVM(vm);
    auto value = outcome("restarted", *vm);
    value["forced"] = context.services.vmService.lastStopWasForced(*vm);
    co_return value;
}

Task<JSON> MCPMachineTools::suspendVM(const MCPToolContext& context, const MCPToolArguments& arguments) {
    const auto vm = co_await MCPToolTargets::resolveVM(context, arguments);
    co_await context.services.vmService.suspendVM(vm);
    co_return outcome("suspended", *vm);
}

Task<JSON> MCPMachineTools::getVMStatus(const MCPToolContext& context, const MCPToolArguments& arguments) {
    const auto vm = co_await MCPToolTargets::resolveVM(context, arguments);
    co_await context.services.vmService.refreshVMState(vm);
    auto value = machineValue(*vm);
    const auto display = co_await context.services.vmService.getVMDisplayInfo(vm);
    if (!display) co_return value;
    value["ipAddress"] = display->ipAddress ? JSON(*display->ipAddress) : JSON();
    putOptional(value, "resolution", display->resolution);
    if (display->network) value["network"] = display->network->label();
    co_return value;
}

Task<JSON> MCPMachineTools::getVMIP(const MCPToolContext& context, const MCPToolArguments& arguments) {
    const auto vm = co_await MCPToolTargets::resolveVM(context, arguments);
    JSON value;
    value["ipAddress"] = co_await MCPToolTargets::requireRunningIP(context, vm);
    value["vm"] = vm->name;
    co_return value;
}

}  // namespace dorvane
