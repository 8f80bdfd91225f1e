// SPDX-License-Identifier: Apache-2.0
#include "automation/MCPGuestTools.h"

#include "automation/GuestOutputText.h"
#include "automation/GuestScreenshotCommand.h"
#include "automation/MCPErrors.h"
#include "automation/MCPToolTargets.h"
#include "base/Text.h"

namespace dorvane {
namespace {

constexpr double defaultTimeoutSeconds = 60, shortestTimeoutSeconds = 1, longestTimeoutSeconds = 600;
/// The host waits this much longer than the guest agent is told to.
constexpr double agentGraceSeconds = 5;
constexpr std::size_t maximumOutputCharacters = 100000;
constexpr int sshFailureExitCode = 255;

/// A command's result and the way it took.
struct ShellRun {
    GuestCommandResult result;
    const char* channel = "ssh";
};

double timeoutSeconds(const MCPToolArguments& arguments) {
    const auto wished = arguments.number("timeout").value_or(defaultTimeoutSeconds);
    return std::clamp(wished, shortestTimeoutSeconds, longestTimeoutSeconds);
}

/// Absent when the agent was never reached; throws when the command may have run.
Task<std::optional<GuestCommandResult>> runByAgent(const MCPToolContext& context, VMRecordPointer vm,
                                                   GuestAgentCommand command) {
    std::optional<GuestCommandResult> result;
    auto* router = context.services.guestChannelRouter;
    if (router == nullptr) co_return result;
    std::exception_ptr failure;
    try {
        const auto limit = seconds(command.timeoutSeconds + agentGraceSeconds);
        result = co_await router->executeByAgent(vm, command, limit);
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure && !router->isChannelUnavailable(failure, false)) std::rethrow_exception(failure);
    co_return result;
}

Task<ShellRun> runCommand(const MCPToolContext& context, VMRecordPointer vm, GuestAgentCommand command) {
    ShellRun run;
    auto byAgent = co_await runByAgent(context, vm, command);
    if (byAgent) {
        run.result = *std::move(byAgent);
        run.channel = "vsock";
        co_return run;
    }
    context.logger.info("vsock unavailable for %{public}s, falling back to SSH", vm->name);
    const auto endpoint = co_await MCPToolTargets::requireSSHEndpoint(context, vm);
    run.result = co_await context.requireGuestChannelRouter().executeBySSH(
        vm, endpoint, command.command, command.user, seconds(command.timeoutSeconds));
    co_return run;
}

JSON shellValue(const ShellRun& run, VMOSType os) {
    const auto text = guestOutputText(run.result);
    const auto shown = prefixOfScalars(text, maximumOutputCharacters);
    JSON value;
    value["exitCode"] = run.result.exitCode;
    value["stdout"] = std::string(shown);
    value["stderr"] = run.result.standardError;
    value["channel"] = run.channel;
    if (shown.size() < text.size() || run.result.outputTruncated) value["stdoutTruncated"] = true;
    putOptional(value, "guestCodePage", run.result.codePage);
    if (run.result.timedOut) value["timedOut"] = true;
    if (os == VMOSType::windows)
        putOptional(value, "hint",
                    MCPGuestTools::windowsSSHHint(run.result.exitCode, run.result.standardError));
    return value;
}

bool looksLikePNG(const Bytes& bytes) {
    constexpr std::array<std::uint8_t, 4> signature{0x89, 0x50, 0x4E, 0x47};
    return bytes.size() >= 9 && std::equal(signature.begin(), signature.end(), bytes.begin());
}

Task<MCPToolResult> screenshotFromHost(const MCPToolContext& context, VMRecordPointer vm) {
    const auto png = co_await context.services.vmService.captureHostFramebuffer(vm);
    if (!png)
        throw MCPToolError(
            "VM '" + vm->name +
            "' is not running, so there is no display to capture. Start it first with start_vm.");
    if (!looksLikePNG(*png)) throw MCPToolError("The VM display returned data that was not a PNG image.");
    co_return MCPToolResult::png(*png);
}

Task<GuestSSHEndpoint> endpointWhileAlive(std::weak_ptr<const MCPToolContext> weak, VMRecordPointer vm) {
    const auto context = weak.lock();
    if (!context) throw MCPToolError("Dorvane is shutting down.");
    auto endpoint = co_await MCPToolTargets::requireSSHEndpoint(*context, vm);
    co_return endpoint;
}

}  // namespace

Task<JSON> MCPGuestTools::execShell(const MCPToolContext& context, const MCPToolArguments& arguments) {
    const auto vm = co_await MCPToolTargets::resolveVM(context, arguments);
    GuestAgentCommand command;
    command.command = arguments.requiredText("command", "Missing required argument: command");
    command.user = arguments.text("username");
    command.timeoutSeconds = timeoutSeconds(arguments);
    const auto run = co_await runCommand(context, vm, command);
    co_return shellValue(run, vm->osType);
}

Task<MCPToolResult> MCPGuestTools::screenshot(const MCPToolContext& context,
                                              const MCPToolArguments& arguments) {
    const auto vm = co_await MCPToolTargets::resolveVM(context, arguments);
    if (vm->osType == VMOSType::windows) {
        auto captured = co_await screenshotFromHost(context, vm);
        co_return captured;
    }
    auto endpoint = [weak = context.weak_from_this(), vm] { return endpointWhileAlive(weak, vm); };
    const auto captured = co_await context.requireGuestChannelRouter().screenshot(
        vm, arguments.text("username"), guestScreenshotCommand(vm->osType), std::move(endpoint));
    if (!looksLikePNG(captured.png))
        throw MCPToolError(
            "Screenshot failed in guest '" + vm->name + "' over " +
            (captured.channel == GuestChannel::ssh ? "ssh" : "vsock") +
            ". If the guest needs different capture steps, run them with exec_shell and pipe PNG data "
            "to stdout.");
    co_return MCPToolResult::png(captured.png);
}

std::optional<std::string> MCPGuestTools::windowsSSHHint(int exitCode, const std::string& standardError) {
    if (exitCode != sshFailureExitCode) return std::nullopt;
    const auto words = lowercased(standardError);
    const auto says = [&](const char* part) { return words.find(part) != std::string::npos; };
    if (says("username contains invalid characters"))
        return "The SSH username for this VM contains characters OpenSSH refuses to send (quotes, spaces and "
               "shell "
               "metacharacters among them). Windows allows them in account names but ssh does not, so this "
               "account "
               "cannot be reached over SSH. Create a plain-ASCII administrator account inside Windows and "
               "set that "
               "as the VM's SSH username; the key Dorvane installed works for any administrator.";
    if (says("permission denied") || says("no supported authentication"))
        return "OpenSSH Server is reachable but rejected the key. Run Configure-Dorvane-SSH from the Dorvane "
               "disc "
               "inside Windows as administrator; it writes this VM's key and fixes the permissions on it. A "
               "key file "
               "that is readable by more than Administrators and SYSTEM is ignored by sshd without any "
               "error.";
    return "Could not reach OpenSSH Server inside this Windows VM. Start the VM, then run "
           "Install-Dorvane-Drivers "
           "from the Dorvane drivers disc once (it needs the VM to have internet access the first time), "
           "then try "
           "again.";
}

}  // namespace dorvane
