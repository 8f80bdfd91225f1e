// SPDX-License-Identifier: Apache-2.0
// The library and its machines.
#include "app/ServiceCommands.h"
#include "base/Localized.h"
#include "base/Text.h"
#include "core/VMLookup.h"

namespace dorvane {
namespace {

using MachineOperation = Task<void> (VMServiceProtocol::*)(VMRecordPointer);

JSON named(const VMRecord& vm) { return {{"name", vm.name}, {"id", vm.id.text()}}; }

Task<JSON> listMachines(AppState& app) {
    co_await app.makeSharedVMService().refreshVMList();
    auto machines = JSON::array();
    for (const auto& vm : app.makeSharedVMService().vms()) machines.push_back(machineObject(*vm));
    co_return machines;
}

Task<JSON> status(AppState& app, JSON params) {
    auto& service = app.makeSharedVMService();
    const auto vm = co_await resolveMachine(app, params);
    co_await service.refreshVMState(vm);
    auto object = machineObject(*vm);
    object["directory"] = vm->vmPath;
    if (const auto reason = service.lastFailureReason(*vm)) object["lastFailure"] = *reason;
    const auto info = co_await service.getVMDisplayInfo(vm);
    if (!info) co_return object;
    object["ipAddress"] = info->ipAddress ? JSON(*info->ipAddress) : JSON(nullptr);
    putOptional(object, "resolution", info->resolution);
    if (info->network) object["network"] = info->network->label();
    co_return object;
}

Task<JSON> createMachine(AppState& app, JSON params) {
    const JSONReader reader(params);
    const auto os =
        osTypeFromRawValue(asciiLowercased(reader.optional<std::string>("os").value_or("windows")));
    if (!os)
        throw ControlError(ControlErrorCode::invalidParams,
                           localized("The guest must be one of macos, linux and windows."));
    VMConfiguration configuration;
    configuration.cpuCount = reader.optional<std::int64_t>("cpuCount");
    configuration.memoryMB = reader.optional<std::int64_t>("memoryMB");
    configuration.diskSizeGB = reader.optional<std::int64_t>("diskSizeGB");
    configuration.pendingInstallerImagePath = reader.optional<std::string>("installerImage");
    const auto vm =
        co_await app.makeSharedVMService().createVM(requiredText(params, "name"), *os, configuration);
    co_return machineObject(*vm);
}

Task<JSON> run(AppState& app, JSON params, MachineOperation operation) {
    const auto vm = co_await resolveMachine(app, params);
    VMServiceProtocol& service = app.makeSharedVMService();
    co_await (service.*operation)(vm);
    co_return named(*vm);
}

Task<JSON> stop(AppState& app, JSON params) {
    auto& service = app.makeSharedVMService();
    const bool force = JSONReader(params).optional<bool>("force").value_or(false);
    const auto vm = co_await resolveMachine(app, params);
    co_await service.stopVM(vm, force);
    auto result = named(*vm);
    result["forced"] = force || service.lastStopWasForced(*vm);
    co_return result;
}

Task<JSON> clone(AppState& app, JSON params) {
    const auto vm = co_await resolveMachine(app, params);
    const auto copy = co_await app.makeSharedVMService().cloneVM(vm, requiredText(params, "name"));
    co_return machineObject(*copy);
}

Task<JSON> remove(AppState& app, JSON params) {
    const bool permanently = JSONReader(params).optional<bool>("permanently").value_or(false);
    const auto vm = co_await resolveMachine(app, params);
    auto result = named(*vm);
    co_await app.makeSharedVMService().deleteVM(vm, permanently);
    co_return result;
}

Task<JSON> discard(AppState& app, JSON params) {
    const auto vm = co_await resolveMachine(app, params);
    auto result = named(*vm);
    app.operationGate().requireFree(vm->id, vm->name);
    result["discarded"] = vm->hasSuspendedState();
    co_await app.makeSharedVMService().discardSuspendedState(vm);
    co_return result;
}

Task<JSON> logs(AppState& app, JSON params) {
    const auto vm = co_await resolveMachine(app, params);
    auto result = named(*vm);
    result["text"] = co_await app.makeSharedVMService().getVMLogs(vm);
    co_return result;
}

}  // namespace

void runToTheEnd(const JSON&) {}

std::string requiredText(const JSON& params, const char* key) {
    const auto text = JSONReader(params).optional<std::string>(key);
    if (!text) throw ControlError(ControlErrorCode::invalidParams, std::string("Missing parameter: ") + key);
    return *text;
}

Task<VMRecordPointer> resolveMachine(AppState& app, JSON params) {
    const auto name = requiredText(params, "vm");
    auto& service = app.makeSharedVMService();
    co_await service.refreshVMList();
    if (auto vm = findVM(service.vms(), name)) co_return vm;
    throw ControlError(ControlErrorCode::operationFailed, localized("There is no VM named “%@”.", name));
}

JSON machineObject(const VMRecord& vm) {
    JSON object{{"id", vm.id.text()},
                {"name", vm.name},
                {"os", rawValue(vm.osType)},
                {"status", rawValue(vm.status)},
                {"cpuCount", vm.cpuCount},
                {"memoryMB", vm.memoryMB},
                {"diskSizeBytes", vm.diskSizeBytes}};
    putOptional(object, "osVersion", vm.osVersionLabel);
    if (vm.hasSuspendedState()) object["suspended"] = true;
    if (vm.ephemeral) {
        object["ephemeral"] = true;
        object["expiresAt"] = iso8601Text(vm.ephemeral->expiresAt);
    }
    return object;
}

void addMachineCommands(ControlMethods& methods, AppState& app) {
    const auto add = [&methods](const char* name, auto perform) {
        methods[name] = {
            [perform](JSON params, const ProgressReporter&) { return perform(std::move(params)); },
            runToTheEnd};
    };
    add("list", [&app](const JSON&) { return listMachines(app); });
    add("status", [&app](JSON params) { return status(app, std::move(params)); });
    add("create", [&app](JSON params) { return createMachine(app, std::move(params)); });
    add("stop", [&app](JSON params) { return stop(app, std::move(params)); });
    add("clone", [&app](JSON params) { return clone(app, std::move(params)); });
    add("delete", [&app](JSON params) { return remove(app, std::move(params)); });
    add("discard", [&app](JSON params) { return discard(app, std::move(params)); });
    add("logs", [&app](JSON params) { return logs(app, std::move(params)); });
    struct Verb {
        const char* name;
        MachineOperation operation;
    };
    for (const auto& verb :
         {Verb{"start", &VMServiceProtocol::startVM}, Verb{"restart", &VMServiceProtocol::restartVM},
          Verb{"pause", &VMServiceProtocol::pauseVM}, Verb{"resume", &VMServiceProtocol::resumeVM},
          Verb{"suspend", &VMServiceProtocol::suspendVM}})
        add(verb.name, [&app, operation = verb.operation](JSON params) {
            return run(app, std::move(params), operation);
        });
    // A client that goes away during its start doesn't want the machine: the start is cancelled.
    methods["start"].withdraw = nullptr;
}

}  // namespace dorvane
