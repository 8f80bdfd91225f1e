// SPDX-License-Identifier: Apache-2.0
// Commands and screenshots inside a guest, by the guest agent or by SSH, as the tools see them.
#pragma once

#include <functional>

#include "core/VMRecord.h"
#include "runtime/Clock.h"

namespace dorvane {

enum class GuestTextEncoding { utf8, windowsCodePage };

struct GuestCommandResult {
    int exitCode = -1;
    Bytes standardOutput;
    std::string standardError;
    bool timedOut = false;
    GuestTextEncoding textEncoding = GuestTextEncoding::utf8;
    std::optional<int> codePage;
    bool outputTruncated = false;
};

struct GuestSSHEndpoint {
    std::string host;
    std::optional<int> port;
    bool operator==(const GuestSSHEndpoint&) const = default;
};

/// One command for the guest agent.
struct GuestAgentCommand {
    std::string command;
    std::optional<std::string> user;
    double timeoutSeconds = 60;
};

/// What a screenshot came over.
enum class GuestChannel { vsock, ssh };

struct GuestScreenshot {
    Bytes png;
    GuestChannel channel = GuestChannel::ssh;
};

/// Main thread only.
class GuestChannelRouting {
  public:
    virtual ~GuestChannelRouting() = default;

    /// Runs a command over the guest agent, waiting at most `limit`. Throws a guest agent error.
    virtual Task<GuestCommandResult> executeByAgent(VMRecordPointer vm, GuestAgentCommand command,
                                                    Duration limit) = 0;
    /// Whether a failure means that the agent was never reached, so that another way may be tried. For a
    /// command that is not idempotent, a failure after it was sent is none.
    virtual bool isChannelUnavailable(const std::exception_ptr& error, bool idempotent) const = 0;
    /// Runs a command over SSH. Throws guestSSHNotConfigured, guestSSHKeyUnreadable or the tool's own error.
    virtual Task<GuestCommandResult> executeBySSH(VMRecordPointer vm, GuestSSHEndpoint endpoint,
                                                  std::string command, std::optional<std::string> username,
                                                  Duration timeout) = 0;
    /// A screenshot from inside the guest: by the agent, else by `sshCommand` over the endpoint.
    virtual Task<GuestScreenshot> screenshot(VMRecordPointer vm, std::optional<std::string> username,
                                             std::string sshCommand,
                                             std::function<Task<GuestSSHEndpoint>()> endpoint) = 0;
};

}  // namespace dorvane
