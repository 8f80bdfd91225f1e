// SPDX-License-Identifier: Apache-2.0
// Makes the transport for a guest's screen.
#pragma once

#include "display/GuestDisplayTransport.h"
#include "platform/DefaultsStore.h"
#include "runtime/Runtime.h"

namespace dorvane {

/// From any thread; both arguments outlive it.
class DisplayTransportFactory : public GuestDisplayTransportMaking {
  public:
    DisplayTransportFactory(const Runtime& runtime, const DefaultsStore& defaults)
        : runtime_(runtime), defaults_(defaults) {}

    /// Throws invalidConfiguration for the D-Bus display, which this build can't show.
    std::shared_ptr<GuestDisplayTransport> makeTransport(const GuestDisplayChannel& channel) override;

  private:
    const Runtime& runtime_;
    const DefaultsStore& defaults_;
};

}  // namespace dorvane
