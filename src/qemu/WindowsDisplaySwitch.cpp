// SPDX-License-Identifier: Apache-2.0
#include "qemu/WindowsDisplaySwitch.h"

namespace dorvane::WindowsDisplaySwitch {
namespace {

bool lacksDriver(const DorvaneVMConfig& config) {
    return config.os == VMOSType::windows && config.windowsDisplayDriverMissing.value_or(false);
}

}  // namespace

bool noteGuestTools(const DorvaneVMConfig& config, const VMBundle& bundle) {
    const auto marker = bundle.guestToolsDetectedMarker();
    if (!lacksDriver(config) || std::filesystem::exists(marker)) return false;
    writeFileAtomically(marker, std::string_view());
    return true;
}

bool apply(DorvaneVMConfig& config, const VMBundle& bundle) {
    const auto marker = bundle.guestToolsDetectedMarker();
    if (bundle.hasSavedState() || !lacksDriver(config) || !std::filesystem::exists(marker)) return false;
    config.windowsDisplayDriverMissing = false;
    config.write(bundle.configFile());
    std::error_code ignored;
    std::filesystem::remove(marker, ignored);
    return true;
}

}  // namespace dorvane::WindowsDisplaySwitch
