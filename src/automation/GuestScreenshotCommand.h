// SPDX-License-Identifier: Apache-2.0
// What prints a PNG of a guest's screen to standard output when the guest's default shell runs it.
#pragma once

#include <string>

#include "core/VMOSType.h"

namespace dorvane {

std::string guestScreenshotCommand(VMOSType os);

}  // namespace dorvane
