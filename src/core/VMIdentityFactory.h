// SPDX-License-Identifier: Apache-2.0
// Fresh identities for a copied machine, so that two machines never share one.
#pragma once

#include "core/DorvaneVMConfig.h"
#include "platform/HostSystem.h"

namespace dorvane {

struct VMIdentityFactory {
    /// The configuration with a new MAC address and, where present, new machine identifiers. The hardware
    /// model stays: it must match the installed system.
    static DorvaneVMConfig rotatedIdentity(DorvaneVMConfig config, const HostSystem& host);
};

}  // namespace dorvane
