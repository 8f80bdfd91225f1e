// SPDX-License-Identifier: Apache-2.0
#include "qemu/QMPStateMapper.h"

#include "base/Localized.h"

namespace dorvane {

VMStopReason QMPStateMapper::stopReason(const QMPObject& shutdownData, bool wasRequested) {
    if (wasRequested) return VMStopReason::requested();
    const auto* guest = findMember(shutdownData, "guest");
    if (guest != nullptr && guest->boolean() == true) return VMStopReason::guestInitiated();
    return VMStopReason::failure(localized("QEMU reported an unexpected shutdown"));
}

}  // namespace dorvane
