// SPDX-License-Identifier: Apache-2.0
// A backup service in real time over a folder that outlives it, and the programs beside it.
#pragma once

#include <fmt/format.h>

#include <cstdlib>

#include "qemu_tools/RealQEMU.h"
#include "snapshots/VMBackupScene.h"

namespace dorvane::test {

using RealBackupScene = VMBackupScene<RealTime>;

/// Runs a shell command; the name `bsdtar` in it is that of DORVANE_BSDTAR, if set.
inline bool shell(std::string command) {
    if (const char* given = std::getenv("DORVANE_BSDTAR"))
        for (auto at = command.find("bsdtar "); at != std::string::npos;
             at = command.find("bsdtar ", at + 1 + std::strlen(given)))
            command.replace(at, 6, given);
    return std::system(("set -e; " + command).c_str()) == 0;
}

}  // namespace dorvane::test
