// SPDX-License-Identifier: Apache-2.0
#include "core/EngineRouter.h"

#include <gtest/gtest.h>

#include "core/DorvaneVMConfig.h"
#include "support/ErrorOf.h"
#include "support/FakeEngine.h"
#include "support/TemporaryDirectory.h"
#include "support/TestRuntime.h"

namespace dorvane::test {
namespace {

using Case = DorvaneError::Case;

class EngineRouterTest : public testing::Test {
  protected:
    VMBundle bundle(VMOSType os) {
        DorvaneVMConfig config;
        config.os = os;
        config.write(folder / "config.json");
        return VMBundle(folder.path());
    }
    DorvaneError failureOf(Task<void> task) {
        return errorOf([&] { host.run(std::move(task)); });
    }

    TemporaryDirectory folder;
    TestRuntime host;
    FakeEngine native, qemu;
    EngineRouter router{host.runtime(), &native, &qemu};
    const UUID id = UUID::random();
};

TEST_F(EngineRouterTest, launchesOnTheEngineOfTheGuestFamily) {
    const std::vector<std::pair<VMOSType, FakeEngine*>> table{
        {VMOSType::macOS, &native}, {VMOSType::linux, &native}, {VMOSType::windows, &qemu}};
    for (const auto& [os, engine] : table) {
        const auto vm = UUID::random();
        host.run(router.launch(vm, bundle(os), {}));
        EXPECT_EQ(engine->status(vm), VMStatus::running) << rawValue(os);
        EXPECT_EQ(router.status(vm), VMStatus::running);
        EXPECT_TRUE(router.hasRunningVMs());
    }
    EXPECT_EQ(router.runningVMIDs().size(), 3u);
    qemu.canSave = false;
    for (const auto& [os, engine] : table) EXPECT_EQ(router.canSaveStateNow(os), engine == &native);
}

TEST_F(EngineRouterTest, aFamilyWithoutEngineFailsInPlainWordsAndLeavesNoRoute) {
    EngineRouter bare(host.runtime(), nullptr, nullptr);
    const std::vector<std::pair<VMOSType, std::string>> table{
        {VMOSType::windows, "Windows guests are not supported yet."},
        {VMOSType::linux, "Virtualization is not available on this host."},
        {VMOSType::macOS, "Virtualization is not available on this host."}};
    for (const auto& [os, words] : table) {
        EXPECT_EQ(failureOf(bare.launch(id, bundle(os), {})), DorvaneError(Case::vmStartupFailed, words));
        EXPECT_FALSE(bare.status(id));
        EXPECT_TRUE(bare.canSaveStateNow(os));
    }
    EXPECT_FALSE(bare.hasRunningVMs());
}

TEST_F(EngineRouterTest, aFailedLaunchLeavesNoRoute) {
    qemu.failNext("launch");
    EXPECT_THROW(host.run(router.launch(id, bundle(VMOSType::windows), {})), std::runtime_error);
    EXPECT_FALSE(router.status(id));
    EXPECT_FALSE(router.statusUpdates(id));
    // Now another engine has it: a route left behind would hide that.
    native.adopt(id);
    EXPECT_EQ(router.status(id), VMStatus::running);
}

TEST_F(EngineRouterTest, theRouteStandsWhileTheLaunchTakesItsTime) {
    const auto release = qemu.hold("launch");
    const auto launch =
        spawn(host.runtime().main.executor(), router.launch(id, bundle(VMOSType::windows), {}), "launch");
    host.settle();
    qemu.adopt(id, VMStatus::starting);
    native.adopt(id, VMStatus::paused);
    EXPECT_EQ(router.status(id), VMStatus::starting);
    qemu.vanish(id, VMStopReason::requested());
    release.set();
    host.driveUntil([&] { return launch.isFinished(); });
    EXPECT_EQ(router.status(id), VMStatus::running);
}

TEST_F(EngineRouterTest, anUnknownMachineCanOnlyBeStoppedUntilAnEngineKnowsIt) {
    host.run(router.stop(id, true));
    const auto notFound = DorvaneError::vmNotFound(id);
    EXPECT_EQ(failureOf(router.pause(id)), notFound);
    EXPECT_EQ(failureOf(router.resume(id)), notFound);
    EXPECT_EQ(failureOf(router.saveState(id, folder / "state")), notFound);
    EXPECT_EQ(failureOf(router.attachSystemDiskOverlay(id, "a", "b", {})), notFound);
    EXPECT_THROW(host.run(router.connectToGuestAgent(id)), DorvaneError);
    EXPECT_FALSE(router.displayHandle(id));

    qemu.adopt(id);
    EXPECT_EQ(router.status(id), VMStatus::running);
    host.run(router.pause(id));
    EXPECT_EQ(qemu.status(id), VMStatus::paused);
    auto updates = router.statusUpdates(id);
    EXPECT_EQ(host.run(updates->next()), VMStatus::paused);
}

TEST_F(EngineRouterTest, theStopReasonOutlivesTheMachine) {
    host.run(router.launch(id, bundle(VMOSType::windows), {}));
    host.run(router.stop(id, true));
    EXPECT_EQ(router.stopReason(id), VMStopReason::forced());
    EXPECT_FALSE(router.status(id));
    qemu.macAddresses[id] = "02:00:00:00:00:01";
    EXPECT_EQ(router.macAddress(id), "02:00:00:00:00:01");
}

TEST_F(EngineRouterTest, shutsTheEnginesDownEachWithTheWholeTime) {
    native.adopt(UUID::random());
    qemu.adopt(UUID::random());
    host.run(router.shutdownAll(seconds(30)));
    for (const auto* engine : {&native, &qemu})
        EXPECT_EQ(engine->shutdowns, std::vector<Duration>{seconds(30)});
    EXPECT_FALSE(router.hasRunningVMs());
}

}  // namespace
}  // namespace dorvane::test
