// SPDX-License-Identifier: Apache-2.0
#include "qemu/QEMUSuspendFingerprint.h"

#include <algorithm>
#include <array>
#include <fstream>

#include "base/SHA256.h"
#include "base/Text.h"

namespace dorvane {
namespace {

constexpr std::array<std::string_view, 6> deviceFlags{"-machine", "-cpu", "-smp", "-m", "-rtc", "-device"};
constexpr std::size_t digestChunkBytes = 1 << 20;

bool isDeviceFlag(std::string_view argument) {
    return std::find(deviceFlags.begin(), deviceFlags.end(), argument) != deviceFlags.end();
}

}  // namespace

std::string QEMUSuspendFingerprint::deviceDigest(const std::vector<std::string>& arguments) {
    // Socket paths, drive files and ports change between launches without changing what the guest sees.
    std::vector<std::string> lines;
    for (std::size_t i = 0; i + 1 < arguments.size(); ++i) {
        if (!isDeviceFlag(arguments[i])) continue;
        lines.push_back(arguments[i] + " " + arguments[i + 1]);
        ++i;
    }
    return SHA256::hex(joined(lines, "\n"));
}

std::string QEMUSuspendFingerprint::engineDigest(const Path& executable) {
    std::ifstream file(executable, std::ios::binary);
    if (!file) return unreadableEngine;
    SHA256 hash;
    std::vector<char> chunk(digestChunkBytes);
    while (file.read(chunk.data(), static_cast<std::streamsize>(chunk.size())) || file.gcount() > 0)
        hash.update(asBytes({chunk.data(), static_cast<std::size_t>(file.gcount())}));
    return hash.finishHex();
}

std::string QEMUSuspendFingerprint::serialized() const {
    return "devices=" + devices + "\nengine=" + engine + "\n";
}

std::optional<QEMUSuspendFingerprint> QEMUSuspendFingerprint::parse(std::string_view serialized) {
    std::optional<std::string> devices, engine;
    for (const auto& line : split(serialized, '\n')) {
        const auto equals = line.find('=');
        if (equals == std::string::npos) continue;
        const auto key = std::string_view(line).substr(0, equals);
        if (key == "devices") devices = line.substr(equals + 1);
        if (key == "engine") engine = line.substr(equals + 1);
    }
    if (!devices || !engine) return std::nullopt;
    return QEMUSuspendFingerprint{*devices, *engine};
}

}  // namespace dorvane
