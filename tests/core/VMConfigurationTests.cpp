// SPDX-License-Identifier: Apache-2.0
#include "core/VMConfiguration.h"

#include <gtest/gtest.h>

#include "core/DorvaneError.h"
#include "core/VMDisplayInfo.h"
#include "core/VMIdentityFactory.h"
#include "core/VMResourceOptions.h"
#include "support/FakeHostSystem.h"

namespace dorvane {
namespace {

using Values = VMResourceOptions::Values;

std::string refusal(const auto& check) {
    try {
        check();
    } catch (const DorvaneError& error) {
        EXPECT_EQ(error.which(), DorvaneError::Case::invalidConfiguration);
        return error.text();
    }
    return {};
}

TEST(VMConfiguration, rangesAreTestedInOrderAndOnlyWhenPresent) {
    const auto check = [](std::optional<std::int64_t> cpus, std::optional<std::int64_t> memory,
                          std::optional<std::int64_t> disk) {
        VMConfiguration request;
        request.cpuCount = cpus;
        request.memoryMB = memory;
        request.diskSizeGB = disk;
        return refusal([&] { request.validateRanges(); });
    };
    const std::string cpuText = "CPU count must be between 1 and 1024.";
    const std::string memoryText = "Memory must be between 256 MB and 16777216 MB.";
    const std::string diskText = "Disk size must be between 1 GB and 65536 GB.";
    EXPECT_EQ(check({}, {}, {}), "");
    EXPECT_EQ(check(1, 256, 1), "");
    EXPECT_EQ(check(1024, 16777216, 65536), "");
    EXPECT_EQ(check(0, 0, 0), cpuText);
    EXPECT_EQ(check(1025, {}, {}), cpuText);
    EXPECT_EQ(check({}, 255, 0), memoryText);
    EXPECT_EQ(check({}, 16777217, {}), memoryText);
    EXPECT_EQ(check({}, {}, 0), diskText);
    EXPECT_EQ(check({}, {}, 65537), diskText);
}

TEST(VMNameRules, aNameMustBeFitForADirectory) {
    std::string umlauts;
    for (int i = 0; i < 100; ++i) umlauts += "ä";
    for (const auto& good : {std::string(200, 'a'), umlauts, std::string("Windows 11 – Büro (2)"),
                             std::string("a.b"), std::string("e\xCC\x81"), std::string("日本 💻")})
        EXPECT_EQ(refusal([&] { VMNameRules::validate(good); }), "") << good;
    for (const auto& bad :
         {std::string(), std::string(201, 'a'), umlauts + "ä", std::string(".vm"), std::string("."),
          std::string("a/b"), std::string("a:b"), std::string("a\nb"), std::string("a\0b", 3),
          std::string("a\x7F"), std::string("a\xC2\x85"), std::string("a\xC2\xAD"),
          std::string("a\xE2\x80\x8B"), std::string("\xE2\x80\xAEgpj.exe"), std::string("\xEF\xBB\xBFvm"),
          std::string("a\xF3\xA0\x81\x81"), std::string("a\xFF")})
        EXPECT_EQ(
            refusal([&] { VMNameRules::validate(bad); }),
            "VM names cannot be empty, start with a period, or contain \"/\", \":\" or control characters.")
            << bad;
}

TEST(VMResourceOptions, offersWhatHostAndGuestCanUse) {
    constexpr std::uint64_t gigabyte = std::uint64_t{1} << 30;
    EXPECT_EQ(VMResourceOptions::cpuCounts(1), Values{2});
    EXPECT_EQ(VMResourceOptions::cpuCounts(1, 3), (Values{2, 3}));
    EXPECT_EQ(VMResourceOptions::cpuCounts(10, 6), (Values{2, 4, 6, 8, 10}));
    EXPECT_EQ(VMResourceOptions::memoryMB(4 * gigabyte, VMOSType::linux), Values{2048});
    EXPECT_EQ(VMResourceOptions::memoryMB(2 * gigabyte, VMOSType::windows), Values{4096});
    EXPECT_EQ(VMResourceOptions::memoryMB(16 * gigabyte, VMOSType::macOS, 6000),
              (Values{2048, 4096, 6000, 8192, 12288}));
    EXPECT_EQ(VMResourceOptions::diskSizesGB(VMOSType::windows).front(), 64);
    EXPECT_EQ(VMResourceOptions::diskSizesGB(VMOSType::linux).front(), 32);
    EXPECT_EQ(VMResourceOptions::diskSizesGB(VMOSType::linux, 100, 100),
              (Values{100, 128, 256, 512, 1024, 2048}));
    EXPECT_EQ(VMResourceOptions::describeMemory(1536), "1536 MB");
    EXPECT_EQ(VMResourceOptions::describeMemory(2048), "2 GB");
}

TEST(VMIdentityFactory, replacesIdentitiesAndNothingElse) {
    const test::FakeHostSystem host;
    DorvaneVMConfig config;
    config.macAddress = "old";
    config.macPlatform = MacPlatformIdentity{toBytes("model"), toBytes("old")};
    config.windowsShares = WindowsSharesConfig{true, 5000, "token"};
    const auto fresh = VMIdentityFactory::rotatedIdentity(config, host);
    EXPECT_NE(fresh.macAddress, config.macAddress);
    EXPECT_NE(fresh.macPlatform->machineIdentifierData, config.macPlatform->machineIdentifierData);
    EXPECT_FALSE(fresh.linuxPlatform);
    auto restored = fresh;
    restored.macAddress = config.macAddress;
    restored.macPlatform->machineIdentifierData = config.macPlatform->machineIdentifierData;
    EXPECT_EQ(restored, config);
    EXPECT_NE(VMIdentityFactory::rotatedIdentity(config, host).macAddress, fresh.macAddress);
}

TEST(NetworkSummary, explainsAnAbsentAddress) {
    NetworkSummary summary;
    EXPECT_EQ(summary.absentAddressText(), "No address yet. The VM may still be starting up.");
    summary.hasHostVisibleAddress = false;
    EXPECT_EQ(summary.absentAddressText().substr(0, 42), "This VM's address is private to its shared");
    summary.isBridged = true;
    summary.bridgedInterfaceIdentifier = "wlan0";
    EXPECT_EQ(summary.label(), "Bridged (wlan0)");
    EXPECT_EQ(summary.absentAddressText(),
              "No address yet. A bridged VM appears here once it has used the network.");
    summary.isBridgedOverWireless = true;
    EXPECT_NE(summary.absentAddressText().find("Wi-Fi"), std::string::npos);
    summary.isIsolated = true;
    EXPECT_EQ(summary.label(), "Isolated");
    EXPECT_EQ(summary.absentAddressText().substr(0, 19), "This VM is isolated");
}

}  // namespace
}  // namespace dorvane
