// SPDX-License-Identifier: Apache-2.0
// Sandboxes made in a fake library.
#pragma once

#include "automation/EphemeralSandboxServicing.h"
#include "support/FakeVMService.h"

namespace dorvane::test {

class FakeSandboxService : public EphemeralSandboxServicing {
  public:
    FakeSandboxService(FakeVMService& vmService, const Clock& clock) : vmService_(vmService), clock_(clock) {}

    std::vector<UUID> isolated;

    Task<VMRecordPointer> createSandbox(VMRecordPointer source, Duration ttl, bool isolatesNetwork) override;
    void keep(VMRecordPointer vm) override;
    void extend(VMRecordPointer vm, Duration by, Date) override;
    Task<std::vector<std::string>> reap(Date now) override;

  private:
    FakeVMService& vmService_;
    const Clock& clock_;
};

}  // namespace dorvane::test
