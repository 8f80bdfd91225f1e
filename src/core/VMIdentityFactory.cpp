// SPDX-License-Identifier: Apache-2.0
#include "core/VMIdentityFactory.h"

namespace dorvane {

DorvaneVMConfig VMIdentityFactory::rotatedIdentity(DorvaneVMConfig config, const HostSystem& host) {
    config.macAddress = host.randomMACAddress();
    if (config.macPlatform) config.macPlatform->machineIdentifierData = host.newMacMachineIdentifier();
    if (config.linuxPlatform)
        config.linuxPlatform->machineIdentifierData = host.newGenericMachineIdentifier();
    return config;
}

}  // namespace dorvane
