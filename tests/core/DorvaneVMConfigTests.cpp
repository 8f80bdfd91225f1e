// SPDX-License-Identifier: Apache-2.0
#include "core/DorvaneVMConfig.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/TemporaryDirectory.h"

namespace dorvane::test {
namespace {

using testing::HasSubstr;
using testing::ThrowsMessage;

DorvaneVMConfig fullConfig() {
    DorvaneVMConfig config;
    config.os = VMOSType::linux;
    config.cpuCount = 4;
    config.memoryBytes = std::uint64_t{4096} << 20;
    config.diskSizeBytes = 18446744073709551615U;
    config.macAddress = "02:00:00:00:00:01";
    config.display = {1440, 900, 80};
    config.macPlatform = MacPlatformIdentity{{0, 1, 255}, {7}};
    config.linuxPlatform = LinuxPlatformIdentity{{1, 2, 3, 4}};
    config.windowsPlatform = WindowsPlatformIdentity{"virt-11.1", true, true};
    config.linuxRosetta = config.linuxSecureBoot = config.windowsFileDrop = config.audioOutput = false;
    config.linuxClipboard = config.linuxGuestAgent = config.windowsClipboard = true;
    config.windowsDisplayDriverMissing = config.audioInput = config.serialConsole = true;
    config.windowsShares = WindowsSharesConfig{true, 50123, "se/cret"};
    config.windowsSSH = WindowsSSHConfig{false, 2222};
    config.windowsGraphics = WindowsGraphicsMode::accelerated;
    config.network = NetworkConfig{NetworkConfig::Mode::bridged, "en0"};
    return config;
}

JSON minimal() {
    return parseJSON(R"({"version":1,"os":"windows","cpuCount":2,"memoryBytes":1073741824,"diskSizeBytes":5,
        "macAddress":"x","display":{"widthInPixels":1,"heightInPixels":2,"pixelsPerInch":80}})");
}

TEST(DorvaneVMConfig, everyFieldSurvivesTheFile) {
    const TemporaryDirectory folder;
    const auto config = fullConfig();
    config.write(folder / "config.json");
    EXPECT_EQ(DorvaneVMConfig::read(folder / "config.json"), config);
    EXPECT_EQ(config.encoded().size(), 24U);
}

TEST(DorvaneVMConfig, absentKeysStayAbsentAndUnknownOnesAreDropped) {
    auto value = minimal();
    value["futureFeature"] = {1, 2};
    value["network"] = nullptr;
    value["version"] = 9'000'000'000;
    const auto config = DorvaneVMConfig::decoded(value);
    EXPECT_FALSE(config.network || config.audioOutput || config.linuxClipboard || config.windowsShares);
    auto expected = minimal();
    expected["version"] = 9'000'000'000;
    EXPECT_EQ(config.encoded(), expected);
}

TEST(DorvaneVMConfig, refusesTheWholeFileForOneWrongValue) {
    const std::vector<std::pair<JSON, std::string>> replacements{
        {{{"os", "beos"}}, "os"},
        {{{"cpuCount", "2"}}, "cpuCount"},
        {{{"cpuCount", true}}, "cpuCount"},
        {{{"memoryBytes", -1}}, "memoryBytes"},
        {{{"memoryBytes", 1.5}}, "memoryBytes"},
        {{{"display", {{"widthInPixels", 1}}}}, "heightInPixels"},
        {{{"display", nullptr}}, "display"},
        {{{"linuxPlatform", {{"machineIdentifierData", "not base64!"}}}}, "machineIdentifierData"},
        {{{"windowsShares", {{"enabled", 1}, {"hostPort", 1}, {"token", ""}}}}, "enabled"},
        {{{"windowsGraphics", "fancy"}}, "windowsGraphics"},
        {{{"network", {{"mode", "wifi"}}}}, "mode"},
        {{{"audioInput", 0}}, "audioInput"},
    };
    for (const auto& [patch, key] : replacements) {
        auto value = minimal();
        value.update(patch);
        EXPECT_THAT([&] { DorvaneVMConfig::decoded(value); },
                    ThrowsMessage<JSONError>(HasSubstr("\"" + key + "\"")))
            << patch;
    }
    for (const auto* key :
         {"version", "os", "cpuCount", "memoryBytes", "diskSizeBytes", "macAddress", "display"}) {
        auto value = minimal();
        value.erase(key);
        EXPECT_THAT([&] { DorvaneVMConfig::decoded(value); },
                    ThrowsMessage<JSONError>("Missing key \"" + std::string(key) + "\"."));
    }
    EXPECT_THAT([] { DorvaneVMConfig::decoded(JSON::array()); },
                ThrowsMessage<JSONError>("The VM configuration is not a JSON object."));
}

TEST(DorvaneVMConfig, refusesWhatIsNoSmallTextFileAndSaysWhy) {
    const TemporaryDirectory folder;
    std::filesystem::create_directory(folder / "directory");
    ASSERT_EQ(::mkfifo((folder / "fifo").c_str(), 0600), 0);
    truncateFile(folder / "huge", std::uint64_t{2} << 30);
    writeFileAtomically(folder / "latin1", "{\"macAddress\":\"\xE9\"}");
    writeFileAtomically(folder / "empty", "");
    const std::vector<std::pair<std::string, std::string>> expected{
        {"directory", "Is a directory"}, {"fifo", "not a regular file"},
        {"huge", "File too large"},      {"latin1", "UTF-8"},
        {"empty", "not valid"},          {"absent", "No such file"}};
    for (const auto& [name, part] : expected) {
        const auto file = folder / name;
        EXPECT_THAT([&] { DorvaneVMConfig::read(file); }, ThrowsMessage<std::exception>(HasSubstr(part)));
    }
}

}  // namespace
}  // namespace dorvane::test
