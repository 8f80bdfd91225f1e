// SPDX-License-Identifier: Apache-2.0
#include "automation/EphemeralSandboxService.h"

#include <algorithm>
#include <ctime>
#include <set>

#include "base/RandomBytes.h"
#include "core/DorvaneError.h"

namespace dorvane {
namespace {

constexpr Duration shortestLife = std::chrono::seconds(60);
constexpr Duration longestLife = std::chrono::seconds(604800);
constexpr int nameAttempts = 8;

Date later(Date date, Duration by) { return date + std::chrono::duration_cast<Date::duration>(by); }

std::string localDateText(Date date) {
    const std::time_t time = std::chrono::system_clock::to_time_t(date);
    std::tm local{};
    ::localtime_r(&time, &local);
    return fmt::format("{:02}{:02}{:02}-{:02}{:02}{:02}", local.tm_year % 100, local.tm_mon + 1,
                       local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
}

unsigned random16Bits() {
    std::array<std::uint8_t, 2> bytes{};
    fillRandom(bytes);
    return bytes[0] << 8U | bytes[1];
}

}  // namespace

std::string EphemeralSandboxService::makeSandboxName(const std::string& sourceName, Date now,
                                                     const std::function<bool(const std::string&)>& isTaken) {
    const auto stem = sourceName + "-sandbox-" + localDateText(now) + "-";
    for (int attempt = 0; attempt < nameAttempts; ++attempt) {
        auto name = stem + fmt::format("{:04x}", random16Bits());
        if (!isTaken(name)) return name;
    }
    return stem + UUID::random().shortText();
}

Task<VMRecordPointer> EphemeralSandboxService::createSandbox(VMRecordPointer source, Duration ttl,
                                                             bool isolatesNetwork) {
    std::set<std::string> names;
    for (const auto& vm : vmService_.vms()) names.insert(vm->name);
    const auto newName = makeSandboxName(source->name, clock_.date(),
                                         [&](const std::string& name) { return names.contains(name); });
    const auto clone = co_await vmService_.cloneVM(source, newName);
    // It is there now: whoever asked may have gone, but it must not stay as a regular machine.
    co_await ignoreCancellation();
    if (isolatesNetwork) co_await isolate(clone);
    const auto now = clock_.date();
    clone->ephemeral = EphemeralInfo{now, later(now, std::clamp(ttl, shortestLife, longestLife)), source->id};
    clone->updatedAt = now;
    store(*clone);
    logger_.info("Created sandbox %{public}s from %{public}s", clone->name, source->name);
    co_return clone;
}

/// A machine for untrusted work must not be left with its source's network.
Task<void> EphemeralSandboxService::isolate(VMRecordPointer clone) {
    VMConfiguration configuration;
    configuration.network = NetworkConfig{NetworkConfig::Mode::isolated};
    std::exception_ptr failure;
    try {
        co_await vmService_.updateVMConfiguration(clone, configuration);
    } catch (...) {
        failure = std::current_exception();
    }
    if (!failure) co_return;
    try {
        co_await vmService_.deleteVM(clone, true);
    } catch (const std::exception&) {
        // What went wrong first is what the caller hears.
    }
    std::rethrow_exception(failure);
}

void EphemeralSandboxService::keep(VMRecordPointer vm) {
    if (!vm->isEphemeral()) return;
    vm->ephemeral.reset();
    vm->updatedAt = clock_.date();
    store(*vm);
    logger_.info("Kept sandbox %{public}s as a regular VM", vm->name);
}

void EphemeralSandboxService::extend(VMRecordPointer vm, Duration by, Date now) {
    if (!vm->isEphemeral()) return;
    const auto base = std::max(now, vm->ephemeral->expiresAt);
    vm->ephemeral->expiresAt = std::min(later(base, by), later(now, longestLife));
    vm->updatedAt = clock_.date();
    store(*vm);
}

void EphemeralSandboxService::store(VMRecord& vm) {
    try {
        if (vm.ephemeral)
            vm.bundle().writeEphemeralMarker(*vm.ephemeral);
        else
            vm.bundle().removeEphemeralMarker();
    } catch (const std::exception&) {
        // The record is what counts.
    }
    modelContext_.save();
}

bool EphemeralSandboxService::isDue(const VMRecord& vm, Date now) const {
    return !vm.isDeleted && vm.ephemeral && now >= vm.ephemeral->expiresAt && vm.isShutDownForEditing() &&
           !isStarting_(vm.id);
}

Task<std::vector<std::string>> EphemeralSandboxService::reap(Date now) {
    std::vector<std::string> reaped;
    std::exception_ptr failure;
    try {
        // At the start nothing is listed yet, and a crash leaves records that claim to run.
        co_await vmService_.refreshVMList();
    } catch (...) {
        failure = std::current_exception();
    }
    if (isCancellation(failure)) std::rethrow_exception(failure);
    const auto known = vmService_.vms();
    for (const auto& vm : known) {
        if (!isDue(*vm, now)) continue;
        const auto name = vm->name;
        failure = nullptr;
        try {
            co_await vmService_.deleteVM(vm, false);
        } catch (...) {
            failure = std::current_exception();
        }
        if (isCancellation(failure)) std::rethrow_exception(failure);
        if (failure)
            logger_.error("Failed to reap sandbox %{public}s: %{public}s", name,
                          localizedDescription(failure));
        else
            reaped.push_back(name);
    }
    if (!reaped.empty()) logger_.info("Reaped %{public}ld expired sandbox(es)", reaped.size());
    co_return reaped;
}

}  // namespace dorvane
