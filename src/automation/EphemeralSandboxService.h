// SPDX-License-Identifier: Apache-2.0
// Throw-away copies of machines with an end of life.
#pragma once

#include <functional>
#include <string>

#include "automation/EphemeralSandboxServicing.h"
#include "core/ModelContext.h"
#include "core/VMServiceProtocol.h"
#include "runtime/Clock.h"
#include "runtime/Logger.h"

namespace dorvane {

/// Main thread only; the arguments outlive it. A sandbox is an ordinary machine whose record holds an
/// EphemeralInfo. The marker in its bundle repeats that for a library that has lost the record; one that
/// can't be written changes nothing.
class EphemeralSandboxService : public EphemeralSandboxServicing {
  public:
    /// `isStarting` tells of a machine whose record doesn't show yet that it is on its way up.
    EphemeralSandboxService(VMServiceProtocol& vmService, ModelContext& modelContext, const Clock& clock,
                            std::function<bool(const UUID&)> isStarting)
        : vmService_(vmService),
          modelContext_(modelContext),
          clock_(clock),
          isStarting_(std::move(isStarting)) {}

    /// A clone that can't be isolated is erased. One whose record can't be saved stays, since only its end of
    /// life is lost.
    Task<VMRecordPointer> createSandbox(VMRecordPointer source, Duration ttl, bool isolatesNetwork) override;
    void keep(VMRecordPointer vm) override;
    void extend(VMRecordPointer vm, Duration by, Date now) override;
    /// A sandbox that can't be deleted is logged and tried again by the next pass.
    Task<std::vector<std::string>> reap(Date now) override;

    /// "<source>-sandbox-260101-134500-9f3c", in the host's time zone.
    static std::string makeSandboxName(const std::string& sourceName, Date now,
                                       const std::function<bool(const std::string&)>& isTaken);

  private:
    bool isDue(const VMRecord& vm, Date now) const;
    Task<void> isolate(VMRecordPointer clone);
    /// Stores what the record holds now, marker first.
    void store(VMRecord& vm);

    VMServiceProtocol& vmService_;
    ModelContext& modelContext_;
    const Clock& clock_;
    std::function<bool(const UUID&)> isStarting_;
    Logger logger_{"EphemeralSandboxService"};
};

}  // namespace dorvane
