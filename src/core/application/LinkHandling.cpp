// SPDX-License-Identifier: Apache-2.0
#include "core/application/LinkHandling.h"

#include "base/Localized.h"
#include "base/Text.h"
#include "core/DorvaneError.h"
#include "core/SettingsService.h"

namespace dorvane {
namespace {

using Kind = URLCommand::Kind;

LinkOutcome refused(LinkOutcome outcome, LinkOutcome::Kind kind, std::string sentence) {
    outcome.kind = kind;
    outcome.alert = std::move(sentence);
    return outcome;
}

/// Returns whether the machine's state left anything to do.
Task<bool> act(LinkServices services, VMRecordPointer vm, URLCommand command) {
    const bool isUp = vm->status == VMStatus::running || vm->status == VMStatus::paused;
    if (command.kind == Kind::start && vm->isShutDownForEditing())
        co_await services.vmService.startVM(vm);
    else if (command.kind == Kind::stop && isUp)
        co_await services.vmService.stopVM(vm, false);
    else if (command.kind == Kind::snapshot)
        co_await services.snapshotService.takeSnapshot(vm, command.name, false, VMSnapshotKind::manual);
    else
        co_return command.kind == Kind::show;
    co_return true;
}

Task<void> perform(LinkServices services, LinkOutcome& outcome) {
    const auto command = *outcome.command;
    co_await services.vmService.refreshVMList();
    outcome.vm = findLinkedVM(services.vmService.vms(), command.vm);
    if (!outcome.vm) {
        outcome =
            refused(outcome, LinkOutcome::Kind::failed, localized("There is no VM named “%@”.", command.vm));
        co_return;
    }
    outcome.hasActed = co_await act(services, outcome.vm, command);
    const bool opensOnStart = services.defaults.boolean(defaultsKey::opensDisplayOnStart).value_or(true);
    outcome.wantsDisplay = command.kind == Kind::show || (command.kind == Kind::start && opensOnStart);
    outcome.kind = LinkOutcome::Kind::done;
}

}  // namespace

VMRecordPointer findLinkedVM(const std::vector<VMRecordPointer>& vms, const std::string& nameOrID) {
    const auto firstWhere = [&](auto matches) {
        const auto found = std::ranges::find_if(vms, matches);
        return found == vms.end() ? nullptr : *found;
    };
    if (auto vm = firstWhere([&](const auto& record) { return record->id.text() == nameOrID; })) return vm;
    if (auto vm = firstWhere([&](const auto& record) { return record->name == nameOrID; })) return vm;
    const auto folded = lowercased(nameOrID);
    return firstWhere([&](const auto& record) { return lowercased(record->name) == folded; });
}

Task<LinkOutcome> performLink(LinkServices services, std::string url) {
    LinkOutcome outcome;
    outcome.command = URLCommand::parse(url, services.clock.date());
    if (!outcome.command) co_return outcome;
    if (!services.defaults.boolean(defaultsKey::urlCommandsEnabled).value_or(false))
        co_return refused(
            outcome, LinkOutcome::Kind::turnedOff,
            localized("Dorvane links are turned off. To let shortcuts and scripts start, stop and "
                      "snapshot VMs with dorvane:// links, turn them on in Settings > Automation."));
    std::exception_ptr failure;
    try {
        co_await perform(services, outcome);
    } catch (...) {
        failure = std::current_exception();
    }
    if (isCancellation(failure)) std::rethrow_exception(failure);
    if (failure) co_return refused(outcome, LinkOutcome::Kind::failed, localizedDescription(failure));
    co_return outcome;
}

}  // namespace dorvane
