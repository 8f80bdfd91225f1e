// SPDX-License-Identifier: Apache-2.0
// What one QEMU binary can do, as its own help tells.
#pragma once

#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace dorvane {

/// What the binary printed, by what it was asked. A text that could not be had is empty.
struct QEMUHelpTexts {
    std::string version;                                  // --version
    std::string machines;                                 // -machine help
    std::string machineProperties;                        // -machine virt,help
    std::string accelerators;                             // -accel help
    std::string displays;                                 // -display help
    std::string audioDrivers;                             // -audiodev help
    std::string devices;                                  // -device help
    std::map<std::string, std::string> deviceProperties;  // -device NAME,help, by name

    bool operator==(const QEMUHelpTexts&) const = default;
};

/// A plain value. Unreadable text gives empty sets, never an error; what isn't listed is taken as not
/// offered.
struct QEMUCapabilities {
    /// The devices of the command line whose properties differ from release to release.
    static const std::vector<std::string>& inspectedDevices();

    std::string version;                    // "11.1.3"; empty when unknown
    std::vector<std::string> machineTypes;  // versioned "virt-N.M", newest first
    std::set<std::string> machineProperties;
    std::set<std::string> accelerators;
    std::set<std::string> displays;
    std::set<std::string> audioDrivers;
    std::set<std::string> devices;
    /// Only of devices whose properties are known.
    std::map<std::string, std::set<std::string>> deviceProperties;

    static QEMUCapabilities parse(const QEMUHelpTexts& texts);

    bool hasDevice(const std::string& name) const { return devices.contains(name); }
    /// False only when the device's properties are known and this is none of them.
    bool mayHaveProperty(const std::string& device, const std::string& property) const;

    bool operator==(const QEMUCapabilities&) const = default;
};

}  // namespace dorvane
