// SPDX-License-Identifier: Apache-2.0
#include "support/FakeGuestChannelRouter.h"

namespace dorvane::test {

Task<GuestCommandResult> FakeGuestChannelRouter::executeByAgent(VMRecordPointer, GuestAgentCommand command,
                                                                Duration limit) {
    agentCommands.push_back(std::move(command));
    agentLimits.push_back(limit);
    if (!agentAnswer) throw agentFailure;
    co_return *agentAnswer;
}

bool FakeGuestChannelRouter::isChannelUnavailable(const std::exception_ptr& error, bool idempotent) const {
    try {
        std::rethrow_exception(error);
    } catch (const DorvaneError& known) {
        using Case = DorvaneError::Case;
        if (known.which() == Case::guestAgentNoReply) return idempotent;
        return known.which() == Case::guestAgentNotEnabled || known.which() == Case::guestAgentUnavailable ||
               known.which() == Case::guestAgentTimedOut;
    } catch (...) {
        return false;
    }
}

Task<GuestCommandResult> FakeGuestChannelRouter::executeBySSH(VMRecordPointer, GuestSSHEndpoint endpoint,
                                                              std::string command,
                                                              std::optional<std::string> username,
                                                              Duration timeout) {
    sshCommands.push_back({std::move(endpoint), std::move(command), std::move(username), timeout});
    if (!sshAnswer) throw DorvaneError(DorvaneError::Case::guestSSHNotConfigured);
    co_return *sshAnswer;
}

Task<GuestScreenshot> FakeGuestChannelRouter::screenshot(VMRecordPointer vm,
                                                         std::optional<std::string> username,
                                                         std::string sshCommand,
                                                         std::function<Task<GuestSSHEndpoint>()> endpoint) {
    if (agentScreen) co_return *agentScreen;
    if (beforeFallback) beforeFallback();
    const auto where = co_await endpoint();
    sshCommands.push_back({where, std::move(sshCommand), std::move(username), seconds(60)});
    if (!sshScreen) throw DorvaneError(DorvaneError::Case::guestAgentFailed, vm->name);
    co_return *sshScreen;
}

}  // namespace dorvane::test
