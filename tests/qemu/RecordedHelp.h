// SPDX-License-Identifier: Apache-2.0
// What real releases of QEMU print about themselves, kept in tests/qemu/recorded.
#pragma once

#include "qemu/QEMUCapabilities.h"
#include "runtime/Files.h"

namespace dorvane::test {

/// `release`: "7.2", "10.0" or "11.1". Lines that no reader looks at were left out when they were recorded.
inline QEMUHelpTexts recordedHelp(const std::string& release) {
    const auto text = [directory = Path(DORVANE_SOURCE_DIR) / "tests/qemu/recorded" / release](
                          const std::string& name) { return readTextFile(directory / (name + ".txt")); };
    QEMUHelpTexts texts;
    texts.version = text("version");
    texts.machines = text("machine");
    texts.machineProperties = text("machine-virt");
    texts.accelerators = text("accel");
    texts.displays = text("display");
    texts.audioDrivers = text("audiodev");
    texts.devices = text("device");
    for (const auto& device : QEMUCapabilities::inspectedDevices())
        texts.deviceProperties[device] = text("device-" + device);
    return texts;
}

inline QEMUCapabilities recordedCapabilities(const std::string& release) {
    return QEMUCapabilities::parse(recordedHelp(release));
}

}  // namespace dorvane::test
