// SPDX-License-Identifier: Apache-2.0
// What a user is told about a QEMU that ended by itself. Pure functions.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "runtime/ChildProcess.h"

namespace dorvane::QEMUStartupFailure {

/// The last five lines that say something, without QEMU's own name in front, each of at most 300 characters.
std::vector<std::string> detailLines(std::string_view fromStderr);
/// For a child that ended before it ran.
std::string reason(const ExitStatus& status, std::string_view stderrText);
/// For a child that ended with a status other than 0 after it ran.
std::string exitReason(const ExitStatus& status, std::string_view stderrText);

}  // namespace dorvane::QEMUStartupFailure
