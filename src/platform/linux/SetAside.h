// SPDX-License-Identifier: Apache-2.0
// What happens to a file of ours that can't be understood.
#pragma once

#include "runtime/Files.h"

namespace dorvane {

/// Renames a file beside itself ("settings.json" to "settings.json.damaged", then ".damaged-2" and so on), so
/// that a new one may be written without losing what stood there. Returns the new path; throws FileError.
Path setAside(const Path& path);

}  // namespace dorvane
