// SPDX-License-Identifier: Apache-2.0
#include "MCPToolFixture.h"
#include "automation/GuestScreenshotCommand.h"
#include "base/Hex.h"

namespace dorvane::test {
namespace {

constexpr auto onLinux = R"({"vm":"L","command":"x"})", onWindows = R"({"vm":"W","command":"x"})";
const Bytes png = {0x89, 0x50, 0x4E, 0x47, 0x0D, 0x0A, 0x1A, 0x0A, 0x00};

class MCPGuestToolsTest : public MCPToolFixture {
  protected:
    MCPGuestToolsTest() {
        vmService.guest(linuxVM).ipAddress = "10.0.0.2";
        vmService.guest(windowsVM).sshPort = 2201;
    }
    static GuestCommandResult said(const std::string& text, int exitCode = 0) {
        GuestCommandResult result;
        result.exitCode = exitCode;
        result.standardOutput = toBytes(text);
        return result;
    }

    VMRecordPointer linuxVM = vmService.add("L", VMOSType::linux, VMStatus::running);
    VMRecordPointer windowsVM = vmService.add("W", VMOSType::windows, VMStatus::running);
};

TEST_F(MCPGuestToolsTest, runACommandOverTheAgent) {
    router.agentAnswer = said("hi\n", 3);
    router.agentAnswer->standardError = "oops";
    EXPECT_EQ(value("exec_shell", R"({"vm":"L","command":"x","username":"me","timeout":2.5})").dump(),
              R"({"channel":"vsock","exitCode":3,"stderr":"oops","stdout":"hi\n"})");
    EXPECT_EQ(router.agentCommands[0].command, "x");
    EXPECT_EQ(router.agentCommands[0].user, "me");
    EXPECT_EQ(router.agentCommands[0].timeoutSeconds, 2.5);
    EXPECT_EQ(router.agentLimits[0], seconds(7.5));
}

TEST_F(MCPGuestToolsTest, boundTheTimeout) {
    router.agentAnswer = said("");
    const std::pair<const char*, double> cases[] = {{"0", 1},   {"-5", 1},      {"9999", 600}, {"1e300", 600},
                                                    {"30", 30}, {"\"30\"", 60}, {"true", 60},  {"null", 60}};
    for (const auto& [given, expected] : cases) {
        value("exec_shell", R"({"vm":"L","command":"x","timeout":)" + std::string(given) + "}");
        EXPECT_EQ(router.agentCommands.back().timeoutSeconds, expected) << given;
    }
}

TEST_F(MCPGuestToolsTest, fallBackToSSHOnlyWhenTheAgentWasNotReached) {
    router.sshAnswer = said("by ssh");
    EXPECT_EQ(value("exec_shell", R"({"vm":"L","command":"x","timeout":30})").dump(),
              R"({"channel":"ssh","exitCode":0,"stderr":"","stdout":"by ssh"})");
    EXPECT_EQ(router.sshCommands[0].endpoint, (GuestSSHEndpoint{"10.0.0.2", std::nullopt}));
    EXPECT_EQ(router.sshCommands[0].timeout, seconds(30));
    EXPECT_TRUE(log.contains("vsock unavailable for L, falling back to SSH"));
    value("exec_shell", onWindows);
    EXPECT_EQ(router.sshCommands[1].endpoint, (GuestSSHEndpoint{"127.0.0.1", 2201}));
    router.agentFailure = DorvaneError(DorvaneError::Case::guestAgentNoReply, "L");
    EXPECT_EQ(failure("exec_shell", onLinux), told(router.agentFailure));
    EXPECT_EQ(router.sshCommands.size(), 2u) << "a command that may have run isn't run again";
}

TEST_F(MCPGuestToolsTest, sayWhyThereIsNoWayIn) {
    vmService.guest(windowsVM).sshPort.reset();
    EXPECT_EQ(failure("exec_shell", onWindows),
              "SSH is not available for VM 'W'. Start the VM, then run             Install-Dorvane-Drivers "
              "inside Windows once (it enables OpenSSH Server),             and run Configure-Dorvane-SSH "
              "from the Dorvane disc to install this VM's key.");
    linuxVM->status = VMStatus::stopped;
    EXPECT_EQ(failure("exec_shell", onLinux),
              "VM 'L' is not running, so it has no IP address. Start it first with start_vm.");
    EXPECT_EQ(failure("exec_shell", R"({"vm":"L","command":""})"), "Missing required argument: command");
    linuxVM->status = VMStatus::running;
    makeHandler(false);
    for (const auto* tool : {"exec_shell", "screenshot"})
        EXPECT_EQ(failure(tool, onLinux),
                  "Commands and screenshots inside guests are not available in this build yet.");
}

TEST_F(MCPGuestToolsTest, cutLongOutputByCharacters) {
    std::string text;
    while (text.size() < 200000) text += "ü";
    router.agentAnswer = said(text);
    EXPECT_FALSE(value("exec_shell", onLinux).contains("stdoutTruncated"));
    router.agentAnswer = said(text + "x");
    const auto cut = value("exec_shell", onLinux);
    EXPECT_EQ(cut["stdout"], text);
    EXPECT_EQ(cut["stdoutTruncated"], true);
    router.agentAnswer = said("short");
    router.agentAnswer->outputTruncated = router.agentAnswer->timedOut = true;
    EXPECT_EQ(
        value("exec_shell", onLinux).dump(),
        R"({"channel":"vsock","exitCode":0,"stderr":"","stdout":"short","stdoutTruncated":true,"timedOut":true})");
}

TEST_F(MCPGuestToolsTest, decodeOutputFromTheGuestsCodePage) {
    const struct {
        int page;
        std::string bytes, text;
    } cases[] = {
        {850, "Gr\201\341e", "Grüße"},
        {936, "\xD6\xD0\xCE\xC4", "中文"},
        {65001, "Gr\303\274\303\237e", "Grüße"},
        {65001, "a\xFF", "a\uFFFD"},
        {99999, "Gr\xC3\xBC", "Grü"},
        {932, "ok\x81", "ok\uFFFD"},
    };
    for (const auto& one : cases) {
        router.sshAnswer = said(one.bytes);
        router.sshAnswer->textEncoding = GuestTextEncoding::windowsCodePage;
        router.sshAnswer->codePage = one.page;
        const auto result = value("exec_shell", onWindows);
        EXPECT_EQ(result["stdout"], one.text) << one.page;
        EXPECT_EQ(result["guestCodePage"], one.page);
    }
}

TEST_F(MCPGuestToolsTest, hintAtWhatKeepsSSHOutOfWindows) {
    const std::pair<const char*, const char*> cases[] = {
        {"remote username contains INVALID characters", "The SSH username for this VM contains characters"},
        {"me@127.0.0.1: Permission denied (publickey)", "OpenSSH Server is reachable but rejected the key."},
        {"No supported authentication methods", "OpenSSH Server is reachable but rejected the key."},
        {"Connection refused", "Could not reach OpenSSH Server inside this Windows VM."},
    };
    for (const auto& [words, start] : cases) {
        router.sshAnswer = said("", 255);
        router.sshAnswer->standardError = words;
        const auto hint = value("exec_shell", onWindows)["hint"];
        EXPECT_TRUE(hint.is_string() && hint.get<std::string>().starts_with(start)) << words;
        EXPECT_FALSE(value("exec_shell", onLinux).contains("hint")) << "Windows alone gets one";
        router.sshAnswer->exitCode = 1;
        EXPECT_FALSE(value("exec_shell", onWindows).contains("hint"));
    }
}

TEST_F(MCPGuestToolsTest, captureWindowsOnTheHost) {
    vmService.guest(windowsVM).screen = png;
    EXPECT_EQ(call("screenshot", onWindows).encoded().dump(),
              R"({"content":[{"data":")" + base64Text(png) +
                  R"(","mimeType":"image/png","type":"image"}],"isError":false})");
    vmService.guest(windowsVM).screen = toBytes("\x89PNG....");
    EXPECT_EQ(failure("screenshot", onWindows), "The VM display returned data that was not a PNG image.");
    vmService.guest(windowsVM).screen.reset();
    EXPECT_EQ(failure("screenshot", onWindows),
              "VM 'W' is not running, so there is no display to capture. Start it first with start_vm.");
}

TEST_F(MCPGuestToolsTest, captureOthersFromInside) {
    router.agentScreen = GuestScreenshot{png, GuestChannel::vsock};
    EXPECT_FALSE(call("screenshot", onLinux).isError);
    router.agentScreen->png = toBytes("nothing");
    EXPECT_EQ(failure("screenshot", onLinux),
              "Screenshot failed in guest 'L' over vsock. If the guest needs different capture steps, run "
              "them with exec_shell and pipe PNG data to stdout.");
    router.agentScreen.reset();
    router.sshScreen = GuestScreenshot{png, GuestChannel::ssh};
    EXPECT_FALSE(call("screenshot", R"({"vm":"L","username":"me"})").isError);
    EXPECT_EQ(router.sshCommands[0].endpoint.host, "10.0.0.2");
    EXPECT_EQ(router.sshCommands[0].username, "me");
    EXPECT_EQ(router.sshCommands[0].command, guestScreenshotCommand(VMOSType::linux));
}

}  // namespace
}  // namespace dorvane::test
