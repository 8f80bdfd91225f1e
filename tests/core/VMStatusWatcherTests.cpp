// SPDX-License-Identifier: Apache-2.0
#include "core/VMServiceHarness.h"

namespace dorvane::test {
namespace {

class VMStatusWatcherTest : public VMServiceTest {};

TEST_F(VMStatusWatcherTest, theRecordFollowsEveryReport) {
    const auto vm = addRunningVM("alpha");
    int published = 0;
    const Subscription subscription = service.vmsChanged.connect([&] { ++published; });
    for (const auto status : {VMStatus::paused, VMStatus::running, VMStatus::error}) {
        host.clock().advance(seconds(1));
        engine.report(vm->id, status);
        host.settle();
        EXPECT_EQ(vm->status, status);
        EXPECT_EQ(vm->updatedAt, host.clock().date());
    }
    EXPECT_EQ(published, 3);
    engine.report(vm->id, VMStatus::error);
    host.settle();
    EXPECT_EQ(published, 3) << "no change, no news";
}

TEST_F(VMStatusWatcherTest, whatHappensJustBeforeTheWatchIsSeen) {
    for (const auto status : {VMStatus::stopped, VMStatus::paused, VMStatus::error}) {
        const auto vm = addVM(rawValue(status));
        bool hasChanged = false;
        // The list is published between the end of the launch and the watch.
        const Subscription published = service.vmsChanged.connect([&] {
            if (std::exchange(hasChanged, true)) return;
            if (status == VMStatus::stopped)
                engine.vanish(vm->id, VMStopReason::guestInitiated());
            else
                engine.report(vm->id, status);
        });
        run(service.startVM(vm));
        host.settle();
        EXPECT_EQ(vm->status, status) << vm->name;
        if (!engine.status(vm->id)) continue;
        engine.report(vm->id, VMStatus::running);
        host.settle();
        EXPECT_EQ(vm->status, VMStatus::running) << vm->name << ": still watched";
    }
}

TEST_F(VMStatusWatcherTest, aStreamThatEndsWithoutALastValueMeansStopped) {
    const auto vm = addVM("alpha");
    vm->setBookmark(toBytes("/media/disc.iso"), "/media/disc.iso");
    run(service.startVM(vm));
    vm->pendingInstallerImagePath = "/installer.iso";
    writeFileAtomically(vm->bundle().rawDisk(), "installed now");
    host.clock().advance(seconds(3));
    engine.vanish(vm->id, VMStopReason::guestInitiated());
    host.settle();
    EXPECT_EQ(vm->status, VMStatus::stopped);
    EXPECT_EQ(vm->updatedAt, host.clock().date());
    EXPECT_TRUE(resources.open.empty());
    EXPECT_FALSE(vm->hasPendingInstallerImage()) << "the guest has installed itself";
}

TEST_F(VMStatusWatcherTest, followsWhileTheStoreFailsButNotARecordThatIsGone) {
    const auto vm = addRunningVM("alpha");
    context.failNextSave = true;
    engine.report(vm->id, VMStatus::paused);
    host.settle();
    EXPECT_EQ(vm->status, VMStatus::paused);
    EXPECT_TRUE(log.contains("the store can't be written"));

    context.remove(vm);
    engine.report(vm->id, VMStatus::running);
    host.settle();
    EXPECT_EQ(vm->status, VMStatus::paused);
    EXPECT_TRUE(service.vms().empty()) << "the list was fetched anew to look for it";
}

TEST_F(VMStatusWatcherTest, aReportAfterTheServiceHasGoneHarmsNobody) {
    {
        VMService brief(collaborators());
        makeBundle("beta");
        run(brief.refreshVMList());
        run(brief.startVM(brief.vms().front()));
        engine.report(brief.vms().front()->id, VMStatus::paused);
    }
    host.settle();
    EXPECT_EQ(context.fetchRecords().front()->status, VMStatus::running);
}

}  // namespace
}  // namespace dorvane::test
