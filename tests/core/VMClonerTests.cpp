// SPDX-License-Identifier: Apache-2.0
#include <sys/stat.h>

#include "core/VMServiceHarness.h"

namespace dorvane::test {
namespace {

class VMClonerTest : public VMServiceTest {
  protected:
    /// A Windows machine with everything that a clone must not inherit.
    VMRecordPointer addSource() {
        const auto vm = addVM("source", VMOSType::windows);
        const auto bundle = vm->bundle();
        std::filesystem::create_directories(bundle.snapshotsDirectory() / "one");
        writeFileAtomically(bundle.snapshotsDirectory() / "one" / "disk.qcow2", "layer");
        for (const auto& file : {bundle.savedState(), bundle.savedStateHash(), bundle.savedStateDevices()})
            writeFileAtomically(file, "state");
        bundle.writeEphemeralMarker({host.clock().date(), host.clock().date(), {}});
        vm->ephemeral = EphemeralInfo{host.clock().date(), host.clock().date(), {}};
        vm->tags = {"work"};
        vm->sshUsername = "ada";
        vm->startsWithDorvane = true;
        return vm;
    }
};

TEST_F(VMClonerTest, makesAColdFlatMachineWithAnIdentityOfItsOwn) {
    const auto source = addSource();
    const auto before = contentsOf(source->vmPath);
    const auto clone = run(service.cloneVM(source, "copy"));
    EXPECT_EQ(contentsOf(source->vmPath), before);

    const auto bundle = clone->bundle();
    EXPECT_EQ(bundle.directoryURL, storage / "copy");
    EXPECT_EQ(readTextFile(bundle.qcow2Disk()), "flat");
    EXPECT_EQ(contentsOf(bundle.directoryURL).size(), 2u) << "config and disk, nothing else";
    EXPECT_NE(DorvaneVMConfig::read(bundle.configFile()).macAddress,
              DorvaneVMConfig::read(source->bundle().configFile()).macAddress);
    EXPECT_NE(clone->id, source->id);
    EXPECT_EQ(clone->tags, source->tags);
    EXPECT_EQ(clone->sshUsername, "ada");
    EXPECT_EQ(clone->status, VMStatus::stopped);
    EXPECT_FALSE(clone->ephemeral);
    EXPECT_FALSE(clone->startsWithDorvane);
    EXPECT_EQ(service.vms().size(), 2u);
    EXPECT_FALSE(gate.isBusy(source->id));
    EXPECT_TRUE(files.isExcludedFromBackup(storage / "copy") || log.contains("Excluded from Time Machine"));
    EXPECT_TRUE(log.contains("Cloned VM: source to copy"));
}

TEST_F(VMClonerTest, whicheverStepFailsNothingIsLeftAndTheSourceIsUntouched) {
    const auto source = addSource();
    const auto before = contentsOf(storage);
    const auto uncopyable = source->bundle().directoryURL / "fifo", taken = storage / "copy" / "taken";
    struct Fault {
        std::string step;
        std::function<void()> arrange;
        Case expected = Case::vmCloneFailed;
    };
    const auto flatten = flattening.action;
    const auto flatteningDoes = [&](std::function<void(const VMBundle&)> action) {
        return [this, action] { flattening.action = action; };
    };
    const std::vector<Fault> faults{
        {"copy", [&] { ::mkfifo(uncopyable.c_str(), 0600); }},
        {"flatten", flatteningDoes([](const VMBundle&) { throw std::runtime_error("no tool"); })},
        {"read",
         flatteningDoes([](const VMBundle& copy) { writeFileAtomically(copy.configFile(), "garbage"); })},
        {"move", flatteningDoes([&](const VMBundle&) { std::filesystem::create_directories(taken); })},
        {"store", [&] { context.failNextSave = true; }, Case::unknown},
    };
    for (const auto& fault : faults) {
        fault.arrange();
        EXPECT_EQ(failureOf(service.cloneVM(source, "copy")).which(), fault.expected) << fault.step;
        flattening.action = flatten;
        std::filesystem::remove(uncopyable);
        const bool wasTaken = std::filesystem::remove(taken);
        EXPECT_EQ(wasTaken, fault.step == "move") << fault.step << ": somebody else's is left alone";
        if (wasTaken) std::filesystem::remove(taken.parent_path());
        EXPECT_EQ(contentsOf(storage), before) << fault.step;
        EXPECT_EQ(context.fetchRecords().size(), 1u) << fault.step;
        EXPECT_FALSE(gate.isBusy(source->id)) << fault.step;
        EXPECT_TRUE(resources.open.empty()) << fault.step;
    }
    EXPECT_NO_THROW(run(service.cloneVM(source, "copy"))) << "nothing stands in the way any more";
}

TEST_F(VMClonerTest, refusesInPlainWords) {
    const auto source = addSource();
    const auto expectFailure = [&](const std::string& name, const DorvaneError& expected) {
        EXPECT_EQ(failureOf(service.cloneVM(source, name)), expected);
    };
    expectFailure("source", DorvaneError(Case::vmNameCollision, "source"));
    std::filesystem::create_directories(storage / "taken");
    expectFailure("taken",
                  DorvaneError(Case::vmCloneFailed, "A directory named 'taken' already exists in storage."));
    gate.begin(source->id, source->name);
    expectFailure("copy", DorvaneError(Case::vmBusy, "source"));
    gate.end(source->id);
    source->status = VMStatus::error;
    expectFailure("copy", DorvaneError(Case::vmCloneFailed, "Shut down the VM before cloning it."));
    source->status = VMStatus::stopped;
    std::filesystem::remove(source->bundle().configFile());
    expectFailure("copy", DorvaneError(Case::vmCloneFailed, "The source VM bundle is incomplete."));
}

TEST_F(VMClonerTest, withoutADiskToolOnlyLayeredDisksAreRefused) {
    auto with = collaborators();
    with.diskFlattening = nullptr;
    VMService bare(std::move(with));
    const auto source = addSource();
    run(bare.refreshVMList());
    EXPECT_THAT(failureOf(bare.cloneVM(source, "copy")).text(),
                testing::HasSubstr("The disk image tool is missing from this build."));
    std::filesystem::remove_all(source->bundle().snapshotsDirectory());
    EXPECT_NO_THROW(run(bare.cloneVM(source, "copy")));
}

TEST_F(VMClonerTest, aRefreshDuringTheCopyNeitherAdoptsNorSweepsIt) {
    const auto source = addSource();
    flattening.action = [&](const VMBundle& copy) {
        // The main thread goes on while this one works: scans see both the half copy and the finished one.
        EXPECT_NE(copy.directoryURL, storage / "copy");
        EXPECT_TRUE(copy.isValid());
    };
    const auto clone = begin(service.cloneVM(source, "copy"));
    const auto refresh = begin(service.refreshVMList());
    finish(clone, refresh);
    EXPECT_EQ(context.fetchRecords().size(), 2u);
    EXPECT_TRUE(std::filesystem::exists(storage / "copy" / "config.json"));
}

}  // namespace
}  // namespace dorvane::test
