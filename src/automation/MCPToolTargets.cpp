// SPDX-License-Identifier: Apache-2.0
#include "automation/MCPToolTargets.h"

#include "automation/MCPErrors.h"
#include "base/Text.h"
#include "core/VMLookup.h"

namespace dorvane {
namespace {

std::string listedNames(const std::vector<std::string>& names) {
    return names.empty() ? "(none)" : joined(names, ", ");
}

std::string unknownVM(const std::string& argument, const std::vector<VMRecordPointer>& vms) {
    std::vector<std::string> names;
    for (const auto& vm : vms) names.push_back(vm->name);
    std::ranges::sort(names);
    return "No VM named '" + argument + "'. Known VMs: " + listedNames(names);
}

VMSnapshotPointer findSnapshot(const std::vector<VMSnapshotPointer>& snapshots, const std::string& argument) {
    if (const auto id = UUID::parse(argument))
        for (const auto& snapshot : snapshots)
            if (snapshot->id == *id) return snapshot;
    for (const auto& snapshot : snapshots)
        if (snapshot->name == argument) return snapshot;
    return nullptr;
}

const char* absentAddressReason(const std::optional<NetworkSummary>& network) {
    if (network && network->isBridgedOverWireless)
        return "The VM is bridged to a wireless interface. Access points generally do not forward traffic "
               "for the "
               "guest's own MAC address, so the guest will never get an address this way. Switch the VM to "
               "NAT or "
               "bridge it over Ethernet.";
    if (network && network->isBridged)
        return "The guest has not produced network traffic yet. Wait for it to finish booting, then try "
               "again.";
    if (network && !network->hasHostVisibleAddress)
        return "This VM uses a shared network whose guest address exists only inside the VM, so this Mac "
               "cannot look "
               "it up and waiting will not help. Run ipconfig (Windows) or ip addr (Linux) inside the guest "
               "to see "
               "it.";
    return "The guest is still booting or has not requested a DHCP lease yet. Try again in a few seconds.";
}

}  // namespace

Task<VMRecordPointer> MCPToolTargets::resolveVM(const MCPToolContext& context,
                                                const MCPToolArguments& arguments) {
    const auto argument =
        arguments.requiredVisibleText("vm", "Missing required argument: vm (a VM name or UUID)");
    co_await context.services.vmService.refreshVMList();
    const auto& vms = context.services.vmService.vms();
    auto vm = findVM(vms, argument);
    if (!vm) throw MCPToolError(unknownVM(argument, vms));
    co_return vm;
}

Task<VMSnapshotPointer> MCPToolTargets::resolveSnapshot(const MCPToolContext& context,
                                                        const MCPToolArguments& arguments,
                                                        VMRecordPointer vm) {
    const auto argument =
        arguments.requiredText("snapshot", "Missing required argument: snapshot (a snapshot name or UUID)");
    const auto snapshots = co_await context.requireSnapshotService().listSnapshots(vm);
    auto snapshot = findSnapshot(snapshots, argument);
    if (snapshot) co_return snapshot;
    std::vector<std::string> names;
    for (const auto& known : snapshots) names.push_back(known->name);
    throw MCPToolError("No snapshot named '" + argument + "' for VM '" + vm->name +
                       "'. Known snapshots: " + listedNames(names));
}

Task<std::string> MCPToolTargets::requireRunningIP(const MCPToolContext& context, VMRecordPointer vm) {
    auto& vmService = context.services.vmService;
    co_await vmService.refreshVMState(vm);
    const auto display = co_await vmService.getVMDisplayInfo(vm);
    if (!display)
        throw MCPToolError("VM '" + vm->name +
                           "' is not running, so it has no IP address. Start it first with start_vm.");
    if (display->ipAddress) co_return *display->ipAddress;
    throw MCPToolError("No IP address found for VM '" + vm->name + "'. " +
                       absentAddressReason(display->network));
}

Task<GuestSSHEndpoint> MCPToolTargets::requireSSHEndpoint(const MCPToolContext& context, VMRecordPointer vm) {
    GuestSSHEndpoint endpoint;
    endpoint.port = co_await context.services.vmService.sshForwardedPort(vm);
    if (endpoint.port) {
        endpoint.host = "127.0.0.1";
    } else if (vm->osType == VMOSType::windows) {
        throw MCPToolError(
            "SSH is not available for VM '" + vm->name +
            "'. Start the VM, then run             Install-Dorvane-Drivers inside Windows once (it "
            "enables OpenSSH Server),             and run Configure-Dorvane-SSH from the Dorvane disc "
            "to install this VM's key.");
    } else {
        endpoint.host = co_await requireRunningIP(context, vm);
    }
    co_return endpoint;
}

}  // namespace dorvane
