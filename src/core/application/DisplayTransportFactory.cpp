// SPDX-License-Identifier: Apache-2.0
#include "core/application/DisplayTransportFactory.h"

#include "base/Localized.h"
#include "core/DorvaneError.h"
#include "core/SettingsService.h"
#include "display/rfb/RFBConnection.h"

namespace dorvane {

std::shared_ptr<GuestDisplayTransport> DisplayTransportFactory::makeTransport(
    const GuestDisplayChannel& channel) {
    const auto* vnc = std::get_if<VNCChannel>(&channel);
    if (vnc == nullptr)
        throw DorvaneError(DorvaneError::Case::invalidConfiguration,
                           localized("This version of Dorvane cannot show an accelerated display yet."));
    const bool preferTight = defaults_.boolean(defaultsKey::vncPreferTight).value_or(false);
    return std::make_shared<RFBConnection>(runtime_, vnc->socketPath, preferTight);
}

}  // namespace dorvane
