// SPDX-License-Identifier: Apache-2.0
#include "core/VMOSType.h"

namespace dorvane {

std::string rawValue(VMOSType os) {
    switch (os) {
        case VMOSType::macOS:
            return "macos";
        case VMOSType::linux:
            return "linux";
        case VMOSType::windows:
            break;
    }
    return "windows";
}

std::optional<VMOSType> osTypeFromRawValue(std::string_view text) {
    for (const auto os : {VMOSType::macOS, VMOSType::linux, VMOSType::windows})
        if (text == rawValue(os)) return os;
    return std::nullopt;
}

}  // namespace dorvane
