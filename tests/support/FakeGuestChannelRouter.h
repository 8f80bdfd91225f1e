// SPDX-License-Identifier: Apache-2.0
// Guests whose agent and SSH answer as a test says, and that remember what reached them.
#pragma once

#include "core/DorvaneError.h"
#include "guestagent/GuestChannelRouting.h"

namespace dorvane::test {

class FakeGuestChannelRouter : public GuestChannelRouting {
  public:
    /// Absent answers fail with the error below.
    std::optional<GuestCommandResult> agentAnswer, sshAnswer;
    std::optional<GuestScreenshot> agentScreen, sshScreen;
    DorvaneError agentFailure{DorvaneError::Case::guestAgentNotEnabled};

    struct SSHCommand {
        GuestSSHEndpoint endpoint;
        std::string command;
        std::optional<std::string> username;
        Duration timeout;
    };
    std::vector<GuestAgentCommand> agentCommands;
    std::vector<Duration> agentLimits;
    std::vector<SSHCommand> sshCommands;

    Task<GuestCommandResult> executeByAgent(VMRecordPointer, GuestAgentCommand command,
                                            Duration limit) override {
        agentCommands.push_back(std::move(command));
        agentLimits.push_back(limit);
        if (!agentAnswer) throw agentFailure;
        co_return *agentAnswer;
    }
    bool isChannelUnavailable(const std::exception_ptr& error, bool idempotent) const override {
        try {
            std::rethrow_exception(error);
        } catch (const DorvaneError& known) {
            using Case = DorvaneError::Case;
            if (known.which() == Case::guestAgentNoReply) return idempotent;
            return known.which() == Case::guestAgentNotEnabled ||
                   known.which() == Case::guestAgentUnavailable || known.which() == Case::guestAgentTimedOut;
        } catch (...) {
            return false;
        }
    }
    Task<GuestCommandResult> executeBySSH(VMRecordPointer, GuestSSHEndpoint endpoint, std::string command,
                                          std::optional<std::string> username, Duration timeout) override {
        sshCommands.push_back({std::move(endpoint), std::move(command), std::move(username), timeout});
        if (!sshAnswer) throw DorvaneError(DorvaneError::Case::guestSSHNotConfigured);
        co_return *sshAnswer;
    }
    Task<GuestScreenshot> screenshot(VMRecordPointer vm, std::optional<std::string> username,
                                     std::string sshCommand,
                                     std::function<Task<GuestSSHEndpoint>()> endpoint) override {
        if (agentScreen) co_return *agentScreen;
        const auto where = co_await endpoint();
        sshCommands.push_back({where, std::move(sshCommand), std::move(username), seconds(60)});
        if (!sshScreen) throw DorvaneError(DorvaneError::Case::guestAgentFailed, vm->name);
        co_return *sshScreen;
    }
};

}  // namespace dorvane::test
