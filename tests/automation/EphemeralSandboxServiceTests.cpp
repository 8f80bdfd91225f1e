// SPDX-License-Identifier: Apache-2.0
#include "automation/EphemeralSandboxService.h"

#include <gmock/gmock.h>

#include <set>

#include "support/FakeVMService.h"
#include "support/InMemoryModelContext.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"
#include "support/TestRuntime.h"

namespace dorvane::test {
namespace {

using std::chrono::hours;
using Seconds = std::chrono::seconds;

constexpr auto week = Seconds(604800);

/// A library whose clones have a folder of their own, for the marker.
class SandboxVMService : public FakeVMService {
  public:
    explicit SandboxVMService(Path folder) : folder_(std::move(folder)) {}

    Task<VMRecordPointer> cloneVM(VMRecordPointer vm, std::string newName) override {
        auto clone = co_await FakeVMService::cloneVM(vm, newName);
        clone->vmPath = (folder_ / newName).string();
        if (copying) co_await copying->waitUncancelled();
        if (hasFolders) std::filesystem::create_directories(clone->vmPath);
        co_return clone;
    }
    Task<void> updateVMConfiguration(VMRecordPointer vm, VMConfiguration configuration) override {
        nextFailure = configurationFailure;
        co_await FakeVMService::updateVMConfiguration(vm, configuration);
    }
    Task<void> deleteVM(VMRecordPointer vm, bool permanently) override {
        if (undeletable && vm->name.starts_with(*undeletable))
            throw std::runtime_error("the folder is locked");
        co_await FakeVMService::deleteVM(vm, permanently);
    }

    bool hasFolders = true;
    /// Work in the background, which a cancellation doesn't reach.
    std::optional<OneShot<void>> copying;
    std::exception_ptr configurationFailure;
    /// Machines whose names begin like this can't be deleted.
    std::optional<std::string> undeletable;

  private:
    Path folder_;
};

class EphemeralSandboxServiceTest : public testing::Test {
  protected:
    VMRecordPointer create(Duration ttl, bool isolates = false) {
        return host.run(sandboxes.createSandbox(source, ttl, isolates));
    }
    VMRecordPointer addSandbox(const std::string& name, VMStatus status, Date expiresAt) {
        const auto vm = vmService.add(name, VMOSType::linux, status);
        vm->ephemeral = EphemeralInfo{expiresAt - hours(1), expiresAt, std::nullopt};
        return vm;
    }
    std::vector<std::string> names() {
        host.run(vmService.refreshVMList());
        std::vector<std::string> result;
        for (const auto& vm : vmService.vms()) result.push_back(vm->name);
        return result;
    }
    Date now() { return host.clock().date(); }

    TestRuntime host;
    LogCapture log;
    TemporaryDirectory folder;
    SandboxVMService vmService{folder.path()};
    InMemoryModelContext context;
    std::set<UUID> starting;
    EphemeralSandboxService sandboxes{vmService, context, host.clock(),
                                      [this](const UUID& id) { return starting.contains(id); }};
    VMRecordPointer source = vmService.add("Ubuntu");
};

TEST_F(EphemeralSandboxServiceTest, createsAMarkedCloneWithAnEnd) {
    const auto sandbox = create(hours(2));
    EXPECT_THAT(sandbox->name, testing::MatchesRegex("Ubuntu-sandbox-[0-9]{6}-[0-9]{6}-[0-9a-f]{4}"));
    const EphemeralInfo info{now(), now() + hours(2), source->id};
    EXPECT_EQ(sandbox->ephemeral, info);
    EXPECT_EQ(sandbox->updatedAt, now());
    EXPECT_EQ(EphemeralInfo::decoded(parseJSON(readTextFile(sandbox->bundle().ephemeralMarker()))), info);
    EXPECT_EQ(context.saveCount, 1);
    EXPECT_FALSE(vmService.lastConfiguration.network);
    EXPECT_TRUE(log.contains("Created sandbox " + sandbox->name + " from Ubuntu"));
}

TEST_F(EphemeralSandboxServiceTest, clampsTheTimeToLive) {
    for (const auto& [ttl, life] : {std::pair{Seconds(0), Seconds(60)}, std::pair{Seconds(-5), Seconds(60)},
                                    std::pair{Seconds(61), Seconds(61)}, std::pair{Seconds(1000000), week}})
        EXPECT_EQ(create(ttl)->ephemeral->expiresAt, now() + life) << ttl.count();
}

TEST_F(EphemeralSandboxServiceTest, erasesACloneThatCannotBeIsolated) {
    vmService.configurationFailure = std::make_exception_ptr(std::runtime_error("no such network"));
    const auto tellsTheFirstFailure = testing::ThrowsMessage<std::runtime_error>("no such network");
    EXPECT_THAT([&] { create(hours(1), true); }, tellsTheFirstFailure);
    EXPECT_EQ(names(), std::vector<std::string>{"Ubuntu"});
    EXPECT_EQ(vmService.erased.size(), 1u);
    EXPECT_TRUE(vmService.trashed.empty());
    EXPECT_EQ(context.saveCount, 0);
    vmService.undeletable = "Ubuntu-sandbox";
    EXPECT_THAT([&] { create(hours(1), true); }, tellsTheFirstFailure);
}

TEST_F(EphemeralSandboxServiceTest, isolatesTheNetworkOfACloneThatNobodyWaitsForAnyMore) {
    vmService.copying.emplace();
    auto creating = spawn(
        host.runtime().main.executor(),
        deliver(sandboxes.createSandbox(source, hours(1), true), OneShot<VMRecordPointer>()), "creating");
    host.settle();
    creating.cancel();
    vmService.copying->succeed();
    host.driveUntil([&] { return creating.isFinished(); });
    ASSERT_EQ(names().size(), 2U);
    EXPECT_TRUE(vmService.vms().back()->isEphemeral());
    EXPECT_EQ(vmService.lastConfiguration.network, NetworkConfig{NetworkConfig::Mode::isolated});
    EXPECT_FALSE(vmService.lastConfiguration.cpuCount || vmService.lastConfiguration.sharedFolders);
}

TEST_F(EphemeralSandboxServiceTest, keepsTheCloneWhenTheSaveFails) {
    context.failNextSave = true;
    EXPECT_THROW(create(hours(1)), std::runtime_error);
    EXPECT_EQ(names().size(), 2u);
    EXPECT_TRUE(vmService.erased.empty() && vmService.trashed.empty());
}

TEST_F(EphemeralSandboxServiceTest, needsNoMarker) {
    vmService.hasFolders = false;
    const auto sandbox = create(hours(1));
    EXPECT_TRUE(sandbox->isEphemeral());
    sandboxes.extend(sandbox, hours(1), now());
    sandboxes.keep(sandbox);
    EXPECT_EQ(context.saveCount, 3);
}

TEST_F(EphemeralSandboxServiceTest, keepMakesItARegularMachine) {
    const auto sandbox = create(hours(1));
    host.clock().advance(hours(2));
    sandboxes.keep(sandbox);
    EXPECT_FALSE(sandbox->isEphemeral());
    EXPECT_EQ(sandbox->updatedAt, now());
    EXPECT_FALSE(std::filesystem::exists(sandbox->bundle().ephemeralMarker()));
    EXPECT_EQ(context.saveCount, 2);
    sandboxes.keep(source);
    EXPECT_EQ(source->updatedAt, Date{});
    EXPECT_EQ(context.saveCount, 2);
}

TEST_F(EphemeralSandboxServiceTest, extendsFromNowOrTheEndAtMostToAWeek) {
    struct Case {
        Seconds end, by, result;
    };
    for (const auto& [end, by, result] :
         {Case{hours(-24), hours(1), hours(1)}, Case{hours(2), hours(1), hours(3)},
          Case{hours(2), hours(24 * 30), week}, Case{week, Seconds(1), week},
          Case{hours(2), hours(-1), hours(1)}, Case{hours(-24), hours(-1), hours(-1)}}) {
        const auto vm = create(hours(1));
        vm->ephemeral->expiresAt = now() + end;
        sandboxes.extend(vm, by, now());
        EXPECT_EQ(vm->ephemeral->expiresAt, now() + result) << end.count() << " by " << by.count();
        EXPECT_EQ(EphemeralInfo::decoded(parseJSON(readTextFile(vm->bundle().ephemeralMarker()))),
                  *vm->ephemeral);
    }
    sandboxes.extend(source, hours(1), now());
    EXPECT_FALSE(source->isEphemeral());
}

TEST_F(EphemeralSandboxServiceTest, reapsWhatHasExpiredAndStands) {
    addSandbox("stopped", VMStatus::stopped, now());
    addSandbox("failed", VMStatus::error, now() - hours(1));
    addSandbox("locked", VMStatus::stopped, now() - hours(1));
    for (const auto status : {VMStatus::starting, VMStatus::running, VMStatus::paused})
        addSandbox(rawValue(status), status, now() - hours(1));
    addSandbox("fresh", VMStatus::stopped, now() + std::chrono::microseconds(1));
    starting = {addSandbox("about to start", VMStatus::stopped, now() - hours(1))->id};
    vmService.undeletable = "locked";
    EXPECT_EQ(host.run(sandboxes.reap(now())), (std::vector<std::string>{"stopped", "failed"}));
    EXPECT_EQ(names(), (std::vector<std::string>{"Ubuntu", "locked", "starting", "running", "paused", "fresh",
                                                 "about to start"}));
    EXPECT_EQ(vmService.trashed, (std::vector<std::string>{"stopped", "failed"}));
    EXPECT_TRUE(vmService.erased.empty());
    EXPECT_TRUE(log.contains("Failed to reap sandbox locked: the folder is locked"));
    EXPECT_TRUE(log.contains("Reaped 2 expired sandbox(es)"));
    vmService.undeletable.reset();
    EXPECT_EQ(host.run(sandboxes.reap(now())), std::vector<std::string>{"locked"})
        << "the next pass tries again";
}

TEST(SandboxName, isInLocalTimeAndAvoidsTakenOnes) {
    const char* zone = std::getenv("TZ");
    const std::string previous = zone == nullptr ? "" : zone;
    ::setenv("TZ", "XYZ5", 1);
    ::tzset();
    const auto date = *parseISO8601("2026-01-02T03:04:05Z");
    std::vector<std::string> asked;
    const auto nameAfter = [&](std::size_t tries) {
        return EphemeralSandboxService::makeSandboxName("A", date, [&](const std::string& candidate) {
            asked.push_back(candidate);
            return asked.size() < tries;
        });
    };
    const auto name = nameAfter(3), last = nameAfter(100);
    previous.empty() ? ::unsetenv("TZ") : ::setenv("TZ", previous.c_str(), 1);
    ::tzset();
    EXPECT_EQ(asked.size(), 3u + 8u);
    EXPECT_EQ(name, asked[2]);
    for (const auto& candidate : asked)
        EXPECT_THAT(candidate, testing::MatchesRegex("A-sandbox-260101-220405-[0-9a-f]{4}"));
    EXPECT_THAT(last, testing::MatchesRegex("A-sandbox-260101-220405-[0-9A-F]{8}"));
}

}  // namespace
}  // namespace dorvane::test
