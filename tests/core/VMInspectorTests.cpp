// SPDX-License-Identifier: Apache-2.0
#include "core/VMInspector.h"

#include "core/RecentLog.h"
#include "core/VMServiceHarness.h"

namespace dorvane::test {
namespace {

class FakeAddresses : public GuestAddressResolving {
  public:
    std::optional<std::string> ipAddress(const std::string& macAddress) const override {
        if (macAddress == "02:aa:aa:aa:aa:aa") return "192.168.64.2";
        if (macAddress == "02:bb:bb:bb:bb:bb") return "192.168.64.3";
        return std::nullopt;
    }
};

class FakeCapture : public HostFramebufferCapturing {
  public:
    Task<Bytes> capturePNG(GuestDisplaySource::Kind source, Duration) override {
        co_return toBytes(std::get<GuestDisplaySource::VNC>(source).socketPath);
    }
};

class VMInspectorTest : public VMServiceTest {
  protected:
    FakeAddresses addresses;
    FakeCapture capture;
    RecentLog lines{host.clock()};
    VMServiceCollaborators full() {
        auto with = collaborators();
        with.addresses = &addresses;
        with.framebufferCapture = &capture;
        with.log = &lines;
        return with;
    }
    VMService seeing{full()};
};

TEST_F(VMInspectorTest, tellsAddressAndScreenOfARunningMachine) {
    const auto vm = addVM("alpha");
    run(seeing.refreshVMList());
    EXPECT_FALSE(run(seeing.getVMDisplayInfo(vm))) << "a machine that is down has neither";
    run(seeing.startVM(vm));
    auto info = run(seeing.getVMDisplayInfo(vm));
    EXPECT_EQ(info->ipAddress, "192.168.64.2") << "by the configuration's address";
    EXPECT_EQ(info->resolution, "1024x768");
    EXPECT_FALSE(info->hasUsableDisplay);
    EXPECT_EQ(info->absentAddressText, "No address yet. The VM may still be starting up.");
    engine.macAddresses[vm->id] = "02:bb:bb:bb:bb:bb";
    engine.screen = GuestDisplaySource::VNC{"/v.sock", {}};
    info = run(seeing.getVMDisplayInfo(vm));
    EXPECT_EQ(info->ipAddress, "192.168.64.3") << "the engine's address comes first";
    EXPECT_TRUE(info->hasUsableDisplay);
}

TEST_F(VMInspectorTest, summarisesTheNetwork) {
    const std::vector<NetworkInterface> interfaces{{"eth0", false}, {"wlan0", true}};
    const auto summaryOf = [&](VMOSType os, std::optional<NetworkConfig> network) {
        DorvaneVMConfig config;
        config.os = os;
        config.network = std::move(network);
        return networkSummary(config, interfaces);
    };
    using Mode = NetworkConfig::Mode;
    EXPECT_EQ(summaryOf(VMOSType::linux, {}), NetworkSummary());
    EXPECT_FALSE(summaryOf(VMOSType::windows, {}).hasHostVisibleAddress);
    EXPECT_TRUE(summaryOf(VMOSType::linux, NetworkConfig{Mode::isolated}).isIsolated);
    const auto wireless = summaryOf(VMOSType::windows, NetworkConfig{Mode::bridged, "wlan0"});
    EXPECT_TRUE(wireless.isBridgedOverWireless && wireless.hasHostVisibleAddress);
    EXPECT_FALSE(summaryOf(VMOSType::linux, NetworkConfig{Mode::bridged, "eth0"}).isBridgedOverWireless);
}

TEST_F(VMInspectorTest, capturesTheScreenOfARunningMachine) {
    const auto vm = addRunningVM("alpha");
    EXPECT_FALSE(run(seeing.captureHostFramebuffer(vm)));
    engine.screen = GuestDisplaySource::Virtualization{};
    EXPECT_FALSE(run(seeing.captureHostFramebuffer(vm)));
    engine.screen = GuestDisplaySource::VNC{"/v.sock", {}};
    EXPECT_EQ(run(seeing.captureHostFramebuffer(vm)), toBytes("/v.sock"));
    EXPECT_EQ(failureOf(service.captureHostFramebuffer(vm)),
              refusal("This version of Dorvane cannot capture the screen of a VM."));
}

TEST_F(VMInspectorTest, knowsTheForwardedSSHPortWhileItIsOn) {
    const auto vm = addVM("win", VMOSType::windows);
    EXPECT_FALSE(run(service.sshForwardedPort(vm)));
    for (const bool enabled : {false, true}) {
        writeConfig(vm->bundle(), [&](auto& config) {
            config.windowsSSH = WindowsSSHConfig{enabled, 47105};
        });
        EXPECT_EQ(run(service.sshForwardedPort(vm)), enabled ? std::optional(47105) : std::nullopt);
    }
    std::filesystem::remove(vm->bundle().configFile());
    EXPECT_FALSE(run(service.sshForwardedPort(vm)));
}

TEST_F(VMInspectorTest, joinsTheLogWithTheEndOfTheConsole) {
    const auto vm = addVM("alpha");
    for (const auto& message : {std::string("Started VM: alpha"), std::string("Started VM: alpha2"),
                                "lost " + vm->id.text() + ", again"})
        lines.note({LogLevel::info, "VMService", message});
    const auto told =
        "2026-01-01T00:00:00Z [VMService] Started VM: alpha\n"
        "2026-01-01T00:00:00Z [VMService] lost " +
        vm->id.text() + ", again\n";
    EXPECT_EQ(run(seeing.getVMLogs(vm)), told);
    writeFileAtomically(vm->bundle().consoleLog(), "login:\xFF\n");
    EXPECT_EQ(run(seeing.getVMLogs(vm)),
              told + "\n=== Guest console (console.log) ===\nlogin:\xEF\xBF\xBD\n");
    std::string long_;
    for (int line = 0; line < 20000; ++line) long_ += "line " + std::to_string(line) + "\n";
    writeFileAtomically(vm->bundle().consoleLog(), long_);
    const auto tail = run(service.getVMLogs(vm));
    EXPECT_TRUE(tail.starts_with("=== Guest console (console.log) ===\nline 1"));
    EXPECT_TRUE(tail.ends_with("line 19999\n"));
    EXPECT_LT(tail.size(), 66000u);
    for (std::size_t count = 0; count < RecentLog::capacity; ++count) lines.note({LogLevel::info, "x", "y"});
    EXPECT_EQ(run(seeing.getVMLogs(vm)), tail) << "old lines of the log make room";
}

}  // namespace
}  // namespace dorvane::test
