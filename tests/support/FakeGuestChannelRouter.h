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
    /// Called when a screenshot falls back to SSH, before the endpoint is asked for.
    std::function<void()> beforeFallback;

    Task<GuestCommandResult> executeByAgent(VMRecordPointer, GuestAgentCommand command,
                                            Duration limit) override;
    bool isChannelUnavailable(const std::exception_ptr& error, bool idempotent) const override;
    Task<GuestCommandResult> executeBySSH(VMRecordPointer, GuestSSHEndpoint endpoint, std::string command,
                                          std::optional<std::string> username, Duration timeout) override;
    Task<GuestScreenshot> screenshot(VMRecordPointer vm, std::optional<std::string> username,
                                     std::string sshCommand,
                                     std::function<Task<GuestSSHEndpoint>()> endpoint) override;
};

}  // namespace dorvane::test
