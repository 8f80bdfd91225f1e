// SPDX-License-Identifier: Apache-2.0
// `dorvane:` links, as a browser or a script hands them over.
#include "app/ServiceCommands.h"
#include "base/Localized.h"

namespace dorvane {
namespace {

const char* verbOf(URLCommand::Kind kind) {
    using Kind = URLCommand::Kind;
    switch (kind) {
        case Kind::start:
            return "start";
        case Kind::stop:
            return "stop";
        case Kind::show:
            return "show";
        case Kind::snapshot:
            return "snapshot";
    }
    return "";
}

/// The sentences of the alerts, and what a person at a command line needs besides.
[[noreturn]] void throwRefusal(const LinkOutcome& outcome, const std::string& url) {
    if (outcome.kind == LinkOutcome::Kind::ignored)
        throw ControlError(ControlErrorCode::operationFailed,
                           localized("This is not a Dorvane link: %@", url));
    if (outcome.kind == LinkOutcome::Kind::turnedOff)
        throw ControlError(
            ControlErrorCode::operationFailed,
            outcome.alert + "\n" +
                localized("On the command line: dorvane settings set DorvaneURLCommandsEnabled true"));
    throw ControlError(ControlErrorCode::operationFailed, outcome.alert);
}

Task<JSON> open(AppState& app, JSON params) {
    const auto url = requiredText(params, "url");
    const auto outcome = co_await app.handle(url);
    if (outcome.kind != LinkOutcome::Kind::done) throwRefusal(outcome, url);
    const bool hasDisplays = !app.displayRequested.empty();
    if (outcome.command->kind == URLCommand::Kind::show && !hasDisplays)
        throw ControlError(
            ControlErrorCode::operationFailed,
            localized("This build of Dorvane has no window to show “%@” in. For a picture of its screen: "
                      "dorvane screenshot",
                      outcome.vm->name));
    JSON shown{{"command", verbOf(outcome.command->kind)},
               {"vm", outcome.vm->name},
               {"id", outcome.vm->id.text()},
               {"status", rawValue(outcome.vm->status)},
               {"acted", outcome.hasActed},
               {"forced", outcome.hasActed && outcome.command->kind == URLCommand::Kind::stop &&
                              app.makeSharedVMService().lastStopWasForced(*outcome.vm)},
               {"displayOpened", outcome.wantsDisplay && hasDisplays}};
    shown["name"] = outcome.command->name.empty() ? outcome.vm->name : outcome.command->name;
    co_return shown;
}

}  // namespace

void addLinkCommand(ControlMethods& methods, AppState& app) {
    methods["open"] = {[&app](JSON params, const ProgressReporter&) { return open(app, std::move(params)); },
                       runToTheEnd};
}

}  // namespace dorvane
