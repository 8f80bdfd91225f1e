// SPDX-License-Identifier: Apache-2.0
#include "qemu/QEMUCapabilities.h"

#include <algorithm>

#include "base/Text.h"
#include "qemu/QEMUMachineVersion.h"

namespace dorvane {
namespace {

/// The first word of each line behind the header, up to an empty line: what follows it is prose.
std::vector<std::string> listedWords(std::string_view text) {
    std::vector<std::string> words;
    const auto lines = split(text, '\n');
    for (std::size_t i = 1; i < lines.size(); ++i) {
        const auto line = trimmed(lines[i]);
        if (line.empty()) break;
        words.emplace_back(line.substr(0, line.find_first_of(" \t")));
    }
    return words;
}

std::set<std::string> listedSet(std::string_view text) {
    const auto words = listedWords(text);
    return {words.begin(), words.end()};
}

/// The names of lines like "  ppi=<bool>             - on/off (default: on)".
std::set<std::string> listedProperties(std::string_view text) {
    std::set<std::string> names;
    for (const auto& word : listedWords(text))
        if (const auto equals = word.find('='); equals != std::string::npos)
            names.insert(word.substr(0, equals));
    return names;
}

/// The names of lines like `name "nvme", bus PCI, desc "Non-Volatile Memory Express"`.
std::set<std::string> listedDevices(std::string_view text) {
    constexpr std::string_view start = "name \"";
    std::set<std::string> names;
    for (const auto& line : split(text, '\n')) {
        if (!line.starts_with(start)) continue;
        const auto end = line.find('"', start.size());
        if (end != std::string::npos) names.insert(line.substr(start.size(), end - start.size()));
    }
    return names;
}

std::vector<std::string> listedMachineTypes(std::string_view text) {
    std::vector<QEMUMachineVersion> versions;
    for (const auto& word : listedWords(text))
        if (const auto version = QEMUMachineVersion::parse(word)) versions.push_back(*version);
    std::sort(versions.rbegin(), versions.rend());
    std::vector<std::string> types;
    for (const auto& version : versions) types.push_back(version.machineType());
    return types;
}

std::string toldVersion(std::string_view text) {
    constexpr std::string_view start = "version ";
    const auto at = text.find(start);
    if (at == std::string_view::npos) return {};
    text.remove_prefix(at + start.size());
    return std::string(text.substr(0, std::min(text.find_first_not_of("0123456789."), text.size())));
}

}  // namespace

const std::vector<std::string>& QEMUCapabilities::inspectedDevices() {
    static const std::vector<std::string> names{"tpm-tis-device", "virtio-gpu-pci", "virtio-gpu-gl-pci"};
    return names;
}

QEMUCapabilities QEMUCapabilities::parse(const QEMUHelpTexts& texts) {
    QEMUCapabilities result;
    result.version = toldVersion(texts.version);
    result.machineTypes = listedMachineTypes(texts.machines);
    result.machineProperties = listedProperties(texts.machineProperties);
    result.accelerators = listedSet(texts.accelerators);
    result.displays = listedSet(texts.displays);
    result.audioDrivers = listedSet(texts.audioDrivers);
    result.devices = listedDevices(texts.devices);
    for (const auto& [device, text] : texts.deviceProperties)
        if (auto names = listedProperties(text); !names.empty())
            result.deviceProperties.emplace(device, std::move(names));
    return result;
}

bool QEMUCapabilities::mayHaveProperty(const std::string& device, const std::string& property) const {
    const auto known = deviceProperties.find(device);
    return known == deviceProperties.end() || known->second.contains(property);
}

}  // namespace dorvane
