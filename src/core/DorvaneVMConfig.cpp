// SPDX-License-Identifier: Apache-2.0
#include "core/DorvaneVMConfig.h"

#include "base/Hex.h"

namespace dorvane {
namespace {

constexpr std::size_t maximumFileBytes = 1 << 20;

Bytes requiredBytes(const JSONReader& reader, std::string_view key) {
    auto bytes = parseBase64(reader.required<std::string>(key));
    if (!bytes) detail::throwMistyped(key, "base64 data");
    return *std::move(bytes);
}

template <typename T>
T known(const std::optional<T>& value, std::string_view key) {
    if (!value) detail::throwMistyped(key, "one of its known values");
    return *value;
}

/// Decodes a nested object; absent when the member is missing or null.
template <typename T>
std::optional<T> optionalObject(const JSONReader& reader, std::string_view key,
                                T (*decode)(const JSONReader&)) {
    const auto* member = reader.find(key);
    if (member == nullptr || member->is_null()) return std::nullopt;
    return decode(JSONReader(*member, "The value of \"" + std::string(key) + "\""));
}

template <typename T>
T requiredObject(const JSONReader& reader, std::string_view key, T (*decode)(const JSONReader&)) {
    return decode(JSONReader(reader.required<JSON>(key), "The value of \"" + std::string(key) + "\""));
}

VMDisplayConfig displayFrom(const JSONReader& reader) {
    return {reader.required<int>("widthInPixels"), reader.required<int>("heightInPixels"),
            reader.required<int>("pixelsPerInch")};
}

MacPlatformIdentity macPlatformFrom(const JSONReader& reader) {
    return {requiredBytes(reader, "hardwareModelData"), requiredBytes(reader, "machineIdentifierData")};
}

LinuxPlatformIdentity linuxPlatformFrom(const JSONReader& reader) {
    return {requiredBytes(reader, "machineIdentifierData")};
}

WindowsPlatformIdentity windowsPlatformFrom(const JSONReader& reader) {
    return {reader.required<std::string>("machineType"), reader.required<bool>("hasTPM"),
            reader.required<bool>("hasSecureBoot")};
}

WindowsSharesConfig sharesFrom(const JSONReader& reader) {
    return {reader.required<bool>("enabled"), reader.required<int>("hostPort"),
            reader.required<std::string>("token")};
}

WindowsSSHConfig sshFrom(const JSONReader& reader) {
    return {reader.required<bool>("enabled"), reader.required<int>("hostPort")};
}

NetworkConfig networkFrom(const JSONReader& reader) {
    return {known(networkModeFromRawValue(reader.required<std::string>("mode")), "mode"),
            reader.optional<std::string>("bridgedInterfaceIdentifier")};
}

void encodePlatforms(const DorvaneVMConfig& config, JSON& value) {
    if (const auto& mac = config.macPlatform)
        value["macPlatform"] = {{"hardwareModelData", base64Text(mac->hardwareModelData)},
                                {"machineIdentifierData", base64Text(mac->machineIdentifierData)}};
    if (const auto& generic = config.linuxPlatform)
        value["linuxPlatform"] = {{"machineIdentifierData", base64Text(generic->machineIdentifierData)}};
    if (const auto& windows = config.windowsPlatform)
        value["windowsPlatform"] = {{"machineType", windows->machineType},
                                    {"hasTPM", windows->hasTPM},
                                    {"hasSecureBoot", windows->hasSecureBoot}};
}

void encodeServices(const DorvaneVMConfig& config, JSON& value) {
    if (const auto& shares = config.windowsShares)
        value["windowsShares"] = {
            {"enabled", shares->enabled}, {"hostPort", shares->hostPort}, {"token", shares->token}};
    if (const auto& ssh = config.windowsSSH)
        value["windowsSSH"] = {{"enabled", ssh->enabled}, {"hostPort", ssh->hostPort}};
    if (config.windowsGraphics) value["windowsGraphics"] = rawValue(*config.windowsGraphics);
    if (config.network) {
        JSON network{{"mode", rawValue(config.network->mode)}};
        putOptional(network, "bridgedInterfaceIdentifier", config.network->bridgedInterfaceIdentifier);
        value["network"] = std::move(network);
    }
}

/// The plain switches, one place for both directions.
template <typename Config, typename Visit>
void forEachSwitch(Config& config, const Visit& visit) {
    visit("linuxRosetta", config.linuxRosetta);
    visit("linuxClipboard", config.linuxClipboard);
    visit("linuxGuestAgent", config.linuxGuestAgent);
    visit("linuxSecureBoot", config.linuxSecureBoot);
    visit("windowsClipboard", config.windowsClipboard);
    visit("windowsFileDrop", config.windowsFileDrop);
    visit("windowsDisplayDriverMissing", config.windowsDisplayDriverMissing);
    visit("audioInput", config.audioInput);
    visit("audioOutput", config.audioOutput);
    visit("serialConsole", config.serialConsole);
}

}  // namespace

std::string rawValue(WindowsGraphicsMode mode) {
    return mode == WindowsGraphicsMode::basic ? "basic" : "accelerated";
}

std::optional<WindowsGraphicsMode> graphicsModeFromRawValue(std::string_view text) {
    for (const auto mode : {WindowsGraphicsMode::basic, WindowsGraphicsMode::accelerated})
        if (text == rawValue(mode)) return mode;
    return std::nullopt;
}

std::string rawValue(NetworkConfig::Mode mode) {
    switch (mode) {
        case NetworkConfig::Mode::nat:
            return "nat";
        case NetworkConfig::Mode::bridged:
            return "bridged";
        case NetworkConfig::Mode::isolated:
            break;
    }
    return "isolated";
}

std::optional<NetworkConfig::Mode> networkModeFromRawValue(std::string_view text) {
    using Mode = NetworkConfig::Mode;
    for (const auto mode : {Mode::nat, Mode::bridged, Mode::isolated})
        if (text == rawValue(mode)) return mode;
    return std::nullopt;
}

bool DorvaneVMConfig::isGraphicsAccelerated() const {
    return os == VMOSType::windows && windowsGraphics == WindowsGraphicsMode::accelerated;
}

JSON DorvaneVMConfig::encoded() const {
    JSON value{{"version", version},
               {"os", rawValue(os)},
               {"cpuCount", cpuCount},
               {"memoryBytes", memoryBytes},
               {"diskSizeBytes", diskSizeBytes},
               {"macAddress", macAddress},
               {"display",
                {{"widthInPixels", display.widthInPixels},
                 {"heightInPixels", display.heightInPixels},
                 {"pixelsPerInch", display.pixelsPerInch}}}};
    encodePlatforms(*this, value);
    encodeServices(*this, value);
    forEachSwitch(*this, [&](const char* key, const auto& setting) { putOptional(value, key, setting); });
    return value;
}

DorvaneVMConfig DorvaneVMConfig::decoded(const JSON& value) {
    const JSONReader reader(value, "The VM configuration");
    DorvaneVMConfig config;
    config.version = reader.required<std::int64_t>("version");
    config.os = known(osTypeFromRawValue(reader.required<std::string>("os")), "os");
    config.cpuCount = reader.required<int>("cpuCount");
    config.memoryBytes = reader.required<std::uint64_t>("memoryBytes");
    config.diskSizeBytes = reader.required<std::uint64_t>("diskSizeBytes");
    config.macAddress = reader.required<std::string>("macAddress");
    config.display = requiredObject(reader, "display", displayFrom);
    config.macPlatform = optionalObject(reader, "macPlatform", macPlatformFrom);
    config.linuxPlatform = optionalObject(reader, "linuxPlatform", linuxPlatformFrom);
    config.windowsPlatform = optionalObject(reader, "windowsPlatform", windowsPlatformFrom);
    config.windowsShares = optionalObject(reader, "windowsShares", sharesFrom);
    config.windowsSSH = optionalObject(reader, "windowsSSH", sshFrom);
    config.network = optionalObject(reader, "network", networkFrom);
    if (const auto mode = reader.optional<std::string>("windowsGraphics"))
        config.windowsGraphics = known(graphicsModeFromRawValue(*mode), "windowsGraphics");
    forEachSwitch(config, [&](const char* key, auto& setting) { setting = reader.optional<bool>(key); });
    return config;
}

DorvaneVMConfig DorvaneVMConfig::read(const Path& file) {
    try {
        return decoded(parseJSON(readTextFile(file, maximumFileBytes)));
    } catch (const FileError& error) {
        if (error.number() == EINVAL) throw JSONError("The VM configuration is not a regular file.");
        throw;
    }
}

void DorvaneVMConfig::write(const Path& to) const { writeFileAtomically(to, prettyJSON(encoded())); }

}  // namespace dorvane
