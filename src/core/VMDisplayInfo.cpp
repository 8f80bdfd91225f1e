// SPDX-License-Identifier: Apache-2.0
#include "core/VMDisplayInfo.h"

#include "base/Localized.h"

namespace dorvane {

std::string NetworkSummary::label() const {
    if (isIsolated) return localized("Isolated");
    if (!isBridged) return localized("Shared (NAT)");
    if (!bridgedInterfaceIdentifier) return localized("Bridged");
    return localized("Bridged (%@)", *bridgedInterfaceIdentifier);
}

std::string NetworkSummary::absentAddressText() const {
    if (isIsolated)
        return localized(
            "This VM is isolated, so it has no network address at all. Switch it to shared (NAT) if it needs "
            "one.");
    if (isBridged && isBridgedOverWireless)
        return localized(
            "No address yet. This VM bridges onto a Wi-Fi interface, and wireless networks usually will not "
            "carry a "
            "VM's own address. Use a wired interface, or switch this VM to shared (NAT).");
    if (isBridged)
        return localized("No address yet. A bridged VM appears here once it has used the network.");
    if (!hasHostVisibleAddress)
        return localized(
            "This VM's address is private to its shared network, so this Mac cannot look it up. Run ipconfig "
            "inside "
            "the guest to see it.");
    return localized("No address yet. The VM may still be starting up.");
}

}  // namespace dorvane
