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
        sandbox->ephemeral = EphemeralInfo{now, now + inDateUnits(ttl), source->id};
        if (isolatesNetwork) isolated.push_back(sandbox->id);
        co_return sandbox;
    }
    void keep(VMRecordPointer vm) override { vm->ephemeral.reset(); }
    void extend(VMRecordPointer vm, Duration by, Date) override {
        if (vm->ephemeral) vm->ephemeral->expiresAt += inDateUnits(by);
    }
    Task<std::vector<std::string>> reap(Date now) override {
        co_await vmService_.refreshVMList();
        const auto known = vmService_.vms();
        std::vector<std::string> names;
        for (const auto& vm : known) {
            if (!vm->ephemeral || now < vm->ephemeral->expiresAt || !vm->isShutDownForEditing()) continue;
            names.push_back(vm->name);
            co_await vmService_.deleteVM(vm, false);
        }
        co_return names;
    }

  private:
    static Date::duration inDateUnits(Duration time) {
        return std::chrono::duration_cast<Date::duration>(time);
    }

    FakeVMService& vmService_;
    const Clock& clock_;
};

}  // namespace dorvane::test
