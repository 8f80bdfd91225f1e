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

    Task<VMRecordPointer> createSandbox(VMRecordPointer source, Duration ttl, bool isolatesNetwork) override {
        auto sandbox = vmService_.add(source->name + "-sandbox", source->osType);
        const auto now = clock_.date();
        sandbox->ephemeral =
            EphemeralInfo{now, now + std::chrono::duration_cast<Date::duration>(ttl), source->id};
        if (isolatesNetwork) isolated.push_back(sandbox->id);
        co_return sandbox;
    }
    Task<void> reap(Date now) override {
        co_await vmService_.refreshVMList();
        const auto known = vmService_.vms();
        for (const auto& vm : known)
            if (vm->ephemeral && now >= vm->ephemeral->expiresAt && vm->isShutDownForEditing())
                co_await vmService_.deleteVM(vm, false);
    }

  private:
    FakeVMService& vmService_;
    const Clock& clock_;
};

}  // namespace dorvane::test
