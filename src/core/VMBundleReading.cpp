// SPDX-License-Identifier: Apache-2.0
#include "core/VMBundleReading.h"

#include "base/Localized.h"

namespace dorvane {

void requireComplete(const VMBundle& bundle, DorvaneError::Case which) {
    if (bundle.isValid()) return;
    throw DorvaneError(which, localized("The VM bundle at %@ is missing its config or system disk.",
                                        bundle.directoryURL.string()));
}

DorvaneVMConfig readConfiguration(const VMBundle& bundle) {
    try {
        return DorvaneVMConfig::read(bundle.configFile());
    } catch (const std::exception&) {
        throw DorvaneError(DorvaneError::Case::invalidConfiguration,
                           localized("Could not read the VM configuration."));
    }
}

}  // namespace dorvane
