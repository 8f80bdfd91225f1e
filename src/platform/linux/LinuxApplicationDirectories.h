// SPDX-License-Identifier: Apache-2.0
// The folders of the XDG Base Directory Specification 0.8 and of xdg-user-dirs.
#pragma once

#include "platform/ApplicationDirectories.h"
#include "runtime/ChildProcess.h"

namespace dorvane {

/// Reads the variables HOME, TMPDIR and XDG_* (relative values count as unset) and "user-dirs.dirs". Makes
/// only the folder for sockets when it has to lie in a public place: `runtime` and `temporary` are then one
/// folder that nobody else can enter. `temporary` may lie in memory: work with large files belongs beside its
/// destination.
ApplicationDirectories linuxApplicationDirectories(const Environment& environment);

/// "$XDG_DATA_HOME/Trash".
std::filesystem::path linuxHomeTrash(const Environment& environment);

}  // namespace dorvane
