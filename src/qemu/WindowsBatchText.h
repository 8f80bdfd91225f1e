// SPDX-License-Identifier: Apache-2.0
// The line ends that Windows' command interpreter wants.
#pragma once

#include <string>
#include <string_view>

namespace dorvane {

/// Every line feed becomes a carriage return and a line feed; the text holds no carriage returns yet.
std::string withDOSLineEnds(std::string_view text);

}  // namespace dorvane
