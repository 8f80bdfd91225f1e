// SPDX-License-Identifier: Apache-2.0
#include "support/FakeSandboxService.h"

namespace dorvane::test {

Task<VMRecordPointer> FakeSandboxService::createSandbox(VMRecordPointer source, Duration ttl,
                                                        bool isolatesNetwork) {
    auto sandbox = vmService_.add(source->name + "-sandbox", source->osType);
    const auto now = clock_.date();
    sandbox->ephemeral =
        EphemeralInfo{now, now + std::chrono::duration_cast<Date::duration>(ttl), source->id};
    if (isolatesNetwork) isolated.push_back(sandbox->id);
    co_return sandbox;
}

void FakeSandboxService::keep(VMRecordPointer vm) { vm->ephemeral.reset(); }

void FakeSandboxService::extend(VMRecordPointer vm, Duration by, Date) {
    if (vm->ephemeral) vm->ephemeral->expiresAt += std::chrono::duration_cast<Date::duration>(by);
}

Task<std::vector<std::string>> FakeSandboxService::reap(Date now) {
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

}  // namespace dorvane::test
