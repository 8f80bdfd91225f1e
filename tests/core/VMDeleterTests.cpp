// SPDX-License-Identifier: Apache-2.0
#include "core/VMServiceHarness.h"

namespace dorvane::test {
namespace {

class VMDeleterTest : public VMServiceTest {
  protected:
    VMRecordPointer vm = addVM("alpha");
};

TEST_F(VMDeleterTest, movesToTheTrashOrErases) {
    const auto snapshot = std::make_shared<VMSnapshot>();
    snapshot->vmID = vm->id;
    context.insert(snapshot);
    run(service.deleteVM(vm, false));
    EXPECT_TRUE(std::filesystem::exists(folder.path() / "Trash" / "alpha" / "config.json"));
    EXPECT_TRUE(service.vms().empty());
    EXPECT_TRUE(context.fetchSnapshots(vm->id).empty());
    EXPECT_TRUE(
        log.contains("Deleted VM: alpha (moved to Trash: " + (folder / "Trash").string() + "/alpha)"));

    const auto other = addVM("beta");
    run(service.deleteVM(other, true));
    EXPECT_FALSE(std::filesystem::exists(other->vmPath));
    EXPECT_TRUE(log.contains("Deleted VM: beta (erased permanently)"));
    EXPECT_EQ(failureOf(service.deleteVM(other, true)), DorvaneError::vmNotFound(other->id));
}

TEST_F(VMDeleterTest, powersARunningMachineOffFirst) {
    run(service.startVM(vm));
    const auto failed = addVM("beta");
    engine.adopt(failed->id);
    failed->status = VMStatus::error;
    for (const auto& running : {vm, failed}) {
        run(service.deleteVM(running, true));
        EXPECT_EQ(engine.calls.back(), "forced stop");
        EXPECT_FALSE(engine.status(running->id));
        engine.calls.clear();
    }
    host.settle();
    EXPECT_TRUE(context.fetchRecords().empty()) << "late reports don't bring a record back";
}

TEST_F(VMDeleterTest, aCrashIsMadeGoodFirstButNeedNotBe) {
    bool wasThere = false;
    recovery.action = [&](const VMRecord& record) {
        wasThere = record.status == VMStatus::stopped && record.bundle().isValid();
        throw DorvaneError(Case::invalidConfiguration, "The chain is broken.");
    };
    vm->status = VMStatus::running;
    run(service.deleteVM(vm, true));
    EXPECT_TRUE(wasThere);
    EXPECT_FALSE(std::filesystem::exists(vm->vmPath));
    EXPECT_TRUE(log.contains("The chain is broken."));
}

TEST_F(VMDeleterTest, aMachineThatWillNotStopStaysAndIsStillWatched) {
    run(service.startVM(vm));
    engine.failNext("forced stop", "it hangs");
    EXPECT_EQ(failureOf(service.deleteVM(vm, true)).text(), "it hangs");
    EXPECT_TRUE(vm->bundle().isValid());
    engine.report(vm->id, VMStatus::paused);
    host.settle();
    EXPECT_EQ(vm->status, VMStatus::paused);
}

TEST_F(VMDeleterTest, aDirectoryThatCannotGoKeepsItsRecordUnlessItIsGoneAlready) {
    vm->setBookmark(toBytes("/media/disc.iso"), "/media/disc.iso");
    files.failTrash = true;
    const auto error = failureOf(service.deleteVM(vm, false));
    EXPECT_EQ(error.which(), Case::vmDeleteFailed);
    EXPECT_THAT(error.text(), testing::HasSubstr("Permission denied"));
    EXPECT_TRUE(vm->bundle().isValid());
    EXPECT_EQ(service.vms().size(), 1u);
    EXPECT_TRUE(resources.open.empty());
    EXPECT_FALSE(gate.isBusy(vm->id));
    EXPECT_THROW(disposer.dispose(folder / "absent", true), FileError) << "erasing tells its failures too";

    std::filesystem::remove_all(vm->vmPath);
    run(service.deleteVM(vm, false));
    EXPECT_TRUE(context.fetchRecords().empty());
}

}  // namespace
}  // namespace dorvane::test
