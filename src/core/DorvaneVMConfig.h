// SPDX-License-Identifier: Apache-2.0
// The machine description that travels with a VM: "config.json" in its bundle.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "base/JSON.h"
#include "core/VMOSType.h"
#include "runtime/Files.h"

namespace dorvane {

struct VMDisplayConfig {
    /// Of every display that the system itself writes.
    static constexpr auto standardPixelsPerInch = 80;

    int widthInPixels = 0;
    int heightInPixels = 0;
    int pixelsPerInch = 0;
    bool operator==(const VMDisplayConfig&) const = default;
};

struct MacPlatformIdentity {
    Bytes hardwareModelData;
    Bytes machineIdentifierData;
    bool operator==(const MacPlatformIdentity&) const = default;
};

struct LinuxPlatformIdentity {
    Bytes machineIdentifierData;
    bool operator==(const LinuxPlatformIdentity&) const = default;
};

struct WindowsPlatformIdentity {
    std::string machineType;
    bool hasTPM = false;
    bool hasSecureBoot = false;
    bool operator==(const WindowsPlatformIdentity&) const = default;
};

struct WindowsSharesConfig {
    bool enabled = false;
    int hostPort = 0;
    std::string token;
    bool operator==(const WindowsSharesConfig&) const = default;
};

struct WindowsSSHConfig {
    bool enabled = false;
    int hostPort = 0;
    bool operator==(const WindowsSSHConfig&) const = default;
};

enum class WindowsGraphicsMode { basic, accelerated };
std::string rawValue(WindowsGraphicsMode mode);
std::optional<WindowsGraphicsMode> graphicsModeFromRawValue(std::string_view text);

struct NetworkConfig {
    enum class Mode { nat, bridged, isolated };
    Mode mode = Mode::nat;
    std::optional<std::string> bridgedInterfaceIdentifier = {};
    bool operator==(const NetworkConfig&) const = default;
};
std::string rawValue(NetworkConfig::Mode mode);
std::optional<NetworkConfig::Mode> networkModeFromRawValue(std::string_view text);

/// A plain value. The engines read nothing else about a machine's hardware.
struct DorvaneVMConfig {
    static constexpr auto fileName = "config.json";

    std::int64_t version = 1;
    VMOSType os = VMOSType::windows;
    int cpuCount = 0;
    std::uint64_t memoryBytes = 0;
    std::uint64_t diskSizeBytes = 0;
    std::string macAddress;
    VMDisplayConfig display;
    std::optional<MacPlatformIdentity> macPlatform;
    std::optional<LinuxPlatformIdentity> linuxPlatform;
    std::optional<WindowsPlatformIdentity> windowsPlatform;
    std::optional<bool> linuxRosetta;
    std::optional<bool> linuxClipboard;
    std::optional<bool> linuxGuestAgent;
    std::optional<bool> linuxSecureBoot;
    std::optional<bool> windowsClipboard;
    std::optional<WindowsSharesConfig> windowsShares;
    std::optional<bool> windowsFileDrop;
    std::optional<WindowsSSHConfig> windowsSSH;
    std::optional<bool> windowsDisplayDriverMissing;
    std::optional<WindowsGraphicsMode> windowsGraphics;
    std::optional<NetworkConfig> network;
    std::optional<bool> audioInput;
    std::optional<bool> audioOutput;
    std::optional<bool> serialConsole;

    /// Such a machine can't be suspended or take a live memory state.
    bool isGraphicsAccelerated() const;

    /// The JSON form: sorted keys, absent optionals left out, bytes as base64.
    JSON encoded() const;
    /// Throws JSONError for a missing required key, a wrong type or an unknown enumeration value.
    static DorvaneVMConfig decoded(const JSON& value);
    /// Loads and decodes a file of at most 1 MiB. Throws FileError or JSONError.
    static DorvaneVMConfig read(const Path& file);
    /// Replaces the file atomically. Throws FileError.
    void write(const Path& to) const;

    bool operator==(const DorvaneVMConfig&) const = default;
};

}  // namespace dorvane
