// SPDX-License-Identifier: Apache-2.0
// Disposable sandboxes.
#include "app/ServiceCommands.h"
#include "base/Localized.h"

namespace dorvane {
namespace {

/// Far beyond any sandbox's life, and far from where the sum of dates would overflow.
constexpr std::int64_t maximumExtensionSeconds = 366LL * 86400;

Task<JSON> createSandbox(AppState& app, JSON params) {
    const JSONReader reader(params);
    const auto minutes = reader.optional<std::int64_t>("ttlMinutes").value_or(defaultSandboxMinutes);
    if (minutes < 1 || minutes > maximumSandboxMinutes)
        throw ControlError(
            ControlErrorCode::invalidParams,
            localized("A sandbox lives for 1 to %lld minutes (one week).", maximumSandboxMinutes));
    const bool isolated = reader.optional<bool>("isolated").value_or(false);
    const auto vm = co_await resolveMachine(app, params);
    const Duration ttl = std::chrono::minutes(minutes);
    const auto sandbox = co_await app.sandboxService().createSandbox(vm, ttl, isolated);
    auto shown = machineObject(*sandbox);
    shown["clonedFrom"] = vm->name;
    shown["network"] = isolated ? "isolated" : "inherit";
    co_return shown;
}

Task<JSON> keep(AppState& app, JSON params) {
    const auto vm = co_await resolveMachine(app, params);
    app.sandboxService().keep(vm);
    co_return machineObject(*vm);
}

Task<JSON> extend(AppState& app, JSON params) {
    const auto by = JSONReader(params).required<std::int64_t>("seconds");
    if (by < -maximumExtensionSeconds || by > maximumExtensionSeconds)
        throw ControlError(ControlErrorCode::invalidParams, localized("That is too long a time."));
    const auto vm = co_await resolveMachine(app, params);
    if (!vm->isEphemeral())
        throw ControlError(ControlErrorCode::operationFailed,
                           localized("“%@” is a regular machine: it has no end of life to move.", vm->name));
    app.sandboxService().extend(vm, std::chrono::seconds(by), app.runtime().clock.date());
    co_return machineObject(*vm);
}

}  // namespace

void addSandboxCommands(ControlMethods& methods, AppState& app) {
    const auto add = [&methods, &app](const char* name, Task<JSON> (*perform)(AppState&, JSON)) {
        methods[name] = {
            [&app, perform](JSON params, const ProgressReporter&) { return perform(app, std::move(params)); },
            runToTheEnd};
    };
    add("sandbox.create", createSandbox);
    add("keep", keep);
    add("extend", extend);
}

}  // namespace dorvane
