// SPDX-License-Identifier: Apache-2.0
#include "core/VMConfiguration.h"

#include <gtest/gtest.h>

#include "core/VMDisplayInfo.h"
#include "core/VMIdentityFactory.h"
#include "core/VMResourceOptions.h"
#include "support/ErrorOf.h"
#include "support/FakeHostSystem.h"

namespace dorvane::test {
namespace {

using namespace std::string_literals;
using Case = DorvaneError::Case;
using Values = VMResourceOptions::Values;

TEST(VMConfiguration, rangesAreTestedInOrderAndOnlyWhenPresent) {
    using Number = std::optional<std::int64_t>;
    const auto check = [](Number cpus, Number memory, Number disk) {
        VMConfiguration request;
        request.cpuCount = cpus;
        request.memoryMB = memory;
        request.diskSizeGB = disk;
        return errorOf([&] { request.validateRanges(); });
    };
    const DorvaneError none(Case::unknown, "nothing was thrown");
    const DorvaneError cpus(Case::invalidConfiguration, "CPU count must be between 1 and 1024.");
    const DorvaneError memory(Case::invalidConfiguration, "Memory must be between 256 MB and 16777216 MB.");
    const DorvaneError disk(Case::invalidConfiguration, "Disk size must be between 1 GB and 65536 GB.");
    EXPECT_EQ(check({}, {}, {}), none);
    EXPECT_EQ(check(1, 256, 1), none);
    EXPECT_EQ(check(1024, 16777216, 65536), none);
    EXPECT_EQ(check(0, 0, 0), cpus);
    EXPECT_EQ(check(1025, {}, {}), cpus);
    EXPECT_EQ(check({}, 255, 0), memory);
    EXPECT_EQ(check({}, 16777217, {}), memory);
    EXPECT_EQ(check({}, {}, 0), disk);
    EXPECT_EQ(check({}, {}, 65537), disk);
}

TEST(VMNameRules, aNameMustBeFitForADirectory) {
    std::string umlauts;
    for (int i = 0; i < 100; ++i) umlauts += "ä";
    for (const auto& good :
         {std::string(200, 'a'), umlauts, "Windows 11 – Büro (2)"s, "a.b"s, "e\xCC\x81"s, "日本 💻"s})
        EXPECT_NO_THROW(VMNameRules::validate(good)) << good;
    const DorvaneError refusal(
        Case::invalidConfiguration,
        "VM names cannot be empty, start with a period, or contain \"/\", \":\" or control characters.");
    for (const auto& bad : {""s, std::string(201, 'a'), umlauts + "ä", ".vm"s, "."s, "a/b"s, "a:b"s, "a\nb"s,
                            "a\0b"s, "a\x7F"s, "a\xC2\x85"s, "a\xC2\xAD"s, "a\xE2\x80\x8B"s,
                            "\xE2\x80\xAEgpj.exe"s, "\xEF\xBB\xBFvm"s, "a\xF3\xA0\x81\x81"s, "a\xFF"s})
        EXPECT_EQ(errorOf([&] { VMNameRules::validate(bad); }), refusal) << bad;
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
}

TEST(VMIdentityFactory, replacesIdentitiesAndNothingElse) {
    const FakeHostSystem host;
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
}  // namespace dorvane::test
