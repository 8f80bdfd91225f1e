// SPDX-License-Identifier: Apache-2.0
// A guest command's output as text.
#pragma once

#include <string>

#include "guestagent/GuestChannelRouting.h"

namespace dorvane {

/// The standard output, from the guest's Windows code page or from UTF-8. Never fails: what doesn't decode,
/// or comes in a code page that nobody knows, is read as UTF-8 with U+FFFD for bad sequences.
std::string guestOutputText(const GuestCommandResult& result);

}  // namespace dorvane
