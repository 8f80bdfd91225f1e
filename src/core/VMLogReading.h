// SPDX-License-Identifier: Apache-2.0
// The developer log's lines about one machine.
#pragma once

#include <string>

#include "core/VMRecord.h"

namespace dorvane {

class VMLogReading {
  public:
    virtual ~VMLogReading() = default;

    /// The lines, oldest first, each ending in a line feed; empty when there are none. Safe on any thread.
    virtual std::string lines(const VMRecordFields& vm) const = 0;
};

}  // namespace dorvane
