// SPDX-License-Identifier: Apache-2.0
#include "automation/MCPSandboxTools.h"

#include "automation/MCPErrors.h"
#include "automation/MCPToolTargets.h"

namespace dorvane {
namespace {

constexpr auto emptyMachineNote =
    "This VM has no operating system installed yet. Installing one is interactive and cannot be driven "
    "through MCP. "
    "To get a ready-to-use environment, use clone_vm on a VM that already has one.";

VMOSType requiredOS(const MCPToolArguments& arguments) {
    const auto text = arguments.text("os");
    const auto os = text ? osTypeFromRawValue(*text) : std::nullopt;
    if (!os) throw MCPToolError("Missing or unknown argument: os. Expected one of macOS, linux, windows.");
    return *os;
}

Duration timeToLive(const MCPToolArguments& arguments) {
    const auto minutes = arguments.integer("ttlMinutes").value_or(defaultSandboxMinutes);
    if (minutes < 1 || minutes > maximumSandboxMinutes)
        throw MCPToolError("ttlMinutes must be between 1 and 10080 (one week).");
    return std::chrono::minutes(minutes);
}

std::string requestedNetwork(const MCPToolArguments& arguments) {
    auto network = arguments.text("network").value_or("inherit");
    if (network != "inherit" && network != "isolated")
        throw MCPToolError("network must be \"inherit\" or \"isolated\".");
    return network;
}

}  // namespace

Task<JSON> MCPSandboxTools::createVM(const MCPToolContext& context, const MCPToolArguments& arguments) {
    context.requireSandboxService();
    const auto name = arguments.requiredVisibleText("name", "Missing required argument: name");
    const auto os = requiredOS(arguments);
    VMConfiguration configuration;
    configuration.cpuCount = arguments.integer("cpuCount");
    configuration.memoryMB = arguments.integer("memoryMB");
    configuration.diskSizeGB = arguments.integer("diskSizeGB");
    const auto vm = co_await context.services.vmService.createVM(name, os, std::move(configuration));
    JSON value;
    value["status"] = "created";
    value["vm"] = vm->name;
    value["id"] = vm->id.text();
    value["os"] = rawValue(vm->osType);
    value["note"] = emptyMachineNote;
    co_return value;
}

Task<JSON> MCPSandboxTools::cloneVM(const MCPToolContext& context, const MCPToolArguments& arguments) {
    auto& sandboxes = context.requireSandboxService();
    const auto source = co_await MCPToolTargets::resolveVM(context, arguments);
    if (!source->isShutDownForEditing())
        throw MCPToolError("VM '" + source->name +
                           "' must be stopped before it can be cloned. Stop it first with stop_vm.");
    const auto ttl = timeToLive(arguments);
    const auto network = requestedNetwork(arguments);
    const auto vm = co_await sandboxes.createSandbox(source, ttl, network == "isolated");
    JSON value;
    value["status"] = "created";
    value["vm"] = vm->name;
    value["id"] = vm->id.text();
    value["clonedFrom"] = source->name;
    value["ephemeral"] = true;
    value["network"] = network;
    value["expiresAt"] = vm->ephemeral ? JSON(iso8601Text(vm->ephemeral->expiresAt)) : JSON();
    co_return value;
}

Task<JSON> MCPSandboxTools::deleteVM(const MCPToolContext& context, const MCPToolArguments& arguments) {
    context.requireSandboxService();
    const auto vm = co_await MCPToolTargets::resolveVM(context, arguments);
    // The record may be gone once it is deleted.
    const auto name = vm->name;
    if (!vm->isEphemeral())
        throw MCPToolError("Dorvane only deletes sandboxes it created. '" + name +
                           "' is a regular VM; delete it from the Dorvane window if you meant to.");
    co_await context.services.vmService.deleteVM(vm, false);
    JSON value;
    value["status"] = "deleted";
    value["vm"] = name;
    value["movedToTrash"] = true;
    co_return value;
}

}  // namespace dorvane
