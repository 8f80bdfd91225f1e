// SPDX-License-Identifier: Apache-2.0
// What this machine and session offer to a QEMU child.
#pragma once

#include "runtime/ChildProcess.h"

namespace dorvane {

/// A plain value.
struct LinuxQEMUHostFacts {
    bool isARM64 = false;
    bool canOpenKVM = false;
    bool hasRenderNode = false;  // a DRM render node that this user can open
    bool hasPipeWire = false;
    bool hasPulseAudio = false;
    bool hasALSA = false;

    /// Looks at the device files below `devices` and at the session that the environment names.
    static LinuxQEMUHostFacts probe(const Environment& environment, const Path& devices = "/dev");

    bool operator==(const LinuxQEMUHostFacts&) const = default;
};

}  // namespace dorvane
