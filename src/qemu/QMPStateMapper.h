// SPDX-License-Identifier: Apache-2.0
// What QEMU's events say about a machine's end.
#pragma once

#include "core/VMStatus.h"
#include "qemu/QMPValue.h"

namespace dorvane {

struct QMPStateMapper {
    /// Maps the data of a "SHUTDOWN" event.
    static VMStopReason stopReason(const QMPObject& shutdownData, bool wasRequested);
};

}  // namespace dorvane
