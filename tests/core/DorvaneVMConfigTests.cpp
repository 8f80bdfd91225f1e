// SPDX-License-Identifier: Apache-2.0
#include "core/DorvaneVMConfig.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/TemporaryDirectory.h"

namespace dorvane {
namespace {

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

std::string failureOf(const JSON& value) {
    try {
        DorvaneVMConfig::decoded(value);
    } catch (const JSONError& error) {
        return error.what();
    }
    return "(it was read)";
}

TEST(DorvaneVMConfig, everyFieldSurvivesTheFile) {
    const test::TemporaryDirectory folder;
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
        EXPECT_NE(failureOf(value).find("\"" + key + "\""), std::string::npos) << patch << failureOf(value);
    }
    for (const auto* key :
         {"version", "os", "cpuCount", "memoryBytes", "diskSizeBytes", "macAddress", "display"}) {
        auto value = minimal();
        value.erase(key);
        EXPECT_EQ(failureOf(value), "Missing key \"" + std::string(key) + "\".");
    }
    EXPECT_EQ(failureOf(JSON::array()), "The VM configuration is not a JSON object.");
}

TEST(DorvaneVMConfig, refusesWhatIsNoSmallTextFileAndSaysWhy) {
    const test::TemporaryDirectory folder;
    const auto failure = [&](const std::string& name) -> std::string {
        try {
            DorvaneVMConfig::read(folder / name);
        } catch (const std::exception& error) {
            return error.what();
        }
        return "(it was read)";
    };
    std::filesystem::create_directory(folder / "directory");
    ASSERT_EQ(::mkfifo((folder / "fifo").c_str(), 0600), 0);
    truncateFile(folder / "huge", std::uint64_t{2} << 30);
    writeFileAtomically(folder / "latin1", "{\"macAddress\":\"\xE9\"}");
    writeFileAtomically(folder / "empty", "");
    const std::vector<std::pair<std::string, std::string>> expected{
        {"directory", "Is a directory"}, {"fifo", "not a regular file"},
        {"huge", "File too large"},      {"latin1", "UTF-8"},
        {"empty", "not valid"},          {"absent", "No such file"}};
    for (const auto& [name, part] : expected)
        EXPECT_NE(failure(name).find(part), std::string::npos) << failure(name);
}

TEST(DorvaneVMConfig, aFailedWriteKeepsTheOldFile) {
    const test::TemporaryDirectory folder;
    auto config = fullConfig();
    config.write(folder / "config.json");
    EXPECT_THROW(config.write(folder / "missing/config.json"), FileError);
    config.cpuCount = 8;
    config.write(folder / "config.json");
    EXPECT_EQ(DorvaneVMConfig::read(folder / "config.json").cpuCount, 8);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.path()), {}), 1);
}

TEST(DorvaneVMConfig, onlyAWindowsGuestIsAccelerated) {
    auto config = fullConfig();
    EXPECT_FALSE(config.isGraphicsAccelerated());
    config.os = VMOSType::windows;
    EXPECT_TRUE(config.isGraphicsAccelerated());
    config.windowsGraphics = WindowsGraphicsMode::basic;
    EXPECT_FALSE(config.isGraphicsAccelerated());
}

}  // namespace
}  // namespace dorvane
