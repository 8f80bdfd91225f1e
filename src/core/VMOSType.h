// SPDX-License-Identifier: Apache-2.0
// Guest families.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace dorvane {

enum class VMOSType { macOS, linux, windows };

/// "macos", "linux", "windows": the form in files and on the wire.
std::string rawValue(VMOSType os);
std::optional<VMOSType> osTypeFromRawValue(std::string_view text);

}  // namespace dorvane
