// SPDX-License-Identifier: Apache-2.0
#include "core/VMServiceHarness.h"

namespace dorvane::test {
namespace {

class VMReconfigurerTest : public VMServiceTest {
  protected:
    VMRecordPointer vm = addVM("alpha");
    VMConfiguration request;

    DorvaneVMConfig update() {
        run(service.updateVMConfiguration(vm, request));
        return DorvaneVMConfig::read(vm->bundle().configFile());
    }
    DorvaneError refused() {
        const auto before = contentsOf(storage);
        const VMRecordFields fields = *vm;
        auto error = failureOf(service.updateVMConfiguration(vm, request));
        EXPECT_EQ(contentsOf(storage), before) << "a refused change changes nothing";
        EXPECT_EQ(static_cast<const VMRecordFields&>(*vm), fields);
        EXPECT_FALSE(gate.isBusy(vm->id));
        return error;
    }
};

TEST_F(VMReconfigurerTest, changesWhatIsGivenAndKeepsTheRest) {
    request.cpuCount = 8;
    request.memoryMB = 6000;
    request.displayResolution = DisplayResolution{800, 600};
    request.network = NetworkConfig{NetworkConfig::Mode::isolated};
    request.linuxRosetta = true;
    request.windowsFileDrop = true;
    request.mountedImages = {{"/tools.iso"}};
    host.clock().advance(seconds(1));
    const auto config = update();
    EXPECT_EQ(config.cpuCount, 8);
    EXPECT_EQ(config.memoryBytes, std::uint64_t{6000} << 20);
    EXPECT_EQ(config.display, (VMDisplayConfig{800, 600, 80}));
    EXPECT_EQ(config.network->mode, NetworkConfig::Mode::isolated);
    EXPECT_EQ(config.linuxRosetta, true);
    EXPECT_FALSE(config.windowsFileDrop) << "another family's field";
    EXPECT_EQ(config.macAddress, "02:aa:aa:aa:aa:aa");
    EXPECT_EQ(vm->cpuCount, 8);
    EXPECT_EQ(vm->memoryMB, 6000);
    EXPECT_EQ(vm->displayResolution, (DisplayResolution{800, 600}));
    EXPECT_EQ(vm->mountedImages->size(), 1u);
    EXPECT_EQ(vm->updatedAt, host.clock().date());
    request = {};
    EXPECT_EQ(update(), config);
}

TEST_F(VMReconfigurerTest, startsFromWhatRecoveryLeaves) {
    recovery.action = [&](const VMRecord&) {
        writeConfig(vm->bundle(), [](DorvaneVMConfig& config) { config.cpuCount = 6; });
    };
    EXPECT_EQ(update().cpuCount, 6);
    recovery.action = [](VMRecord& record) { record.status = VMStatus::running; };
    EXPECT_EQ(failureOf(service.updateVMConfiguration(vm, {})),
              refusal("Shut down the VM before changing its configuration."))
        << "it was started meanwhile";
}

TEST_F(VMReconfigurerTest, aDiskOnlyGrows) {
    request.diskSizeGB = 31;
    EXPECT_EQ(refused(), refusal("The system disk can only grow; shrinking is not supported."));
    request.diskSizeGB = 40;
    EXPECT_EQ(update().diskSizeBytes, std::uint64_t{40} << 30);
    EXPECT_EQ(vm->bundle().diskImageLogicalSize(), std::uint64_t{40} << 30);
    EXPECT_EQ(vm->diskSizeBytes, std::int64_t{40} << 30);

    vm = addVM("win", VMOSType::windows);
    windows.tool.fails = true;
    EXPECT_EQ(refused().text(), "the tool failed");
    windows.tool.fails = false;
    update();
    EXPECT_EQ(readTextFile(vm->bundle().qcow2Disk()), "qcow2 42949672960");
    windows.hasTool = false;
    request.diskSizeGB = 50;
    EXPECT_EQ(refused(), refusal("The disk image tool is missing from this build."));
    request.diskSizeGB = 40;
    EXPECT_NO_THROW(update()) << "an equal size needs no tool";
}

TEST_F(VMReconfigurerTest, refusalsChangeNothing) {
    request.cpuCount = 0;
    EXPECT_EQ(refused(), refusal("CPU count must be between 1 and 1024."));
    request.cpuCount = 4;
    request.diskSizeGB = 64;
    request.linuxSecureBoot = true;
    system.osVersion = {26, 5, 0};
    EXPECT_EQ(refused(), refusal("Secure Boot for Linux guests needs macOS 27 or later on this Mac."));
    run(service.startVM(vm));
    EXPECT_EQ(refused(), refusal("Shut down the VM before changing its configuration."));
    run(service.stopVM(vm, true));
    writeFileAtomically(vm->bundle().configFile(), "garbage");
    EXPECT_EQ(refused(), refusal("Could not read the VM configuration."));
    std::filesystem::remove_all(vm->vmPath);
    EXPECT_EQ(refused(),
              refusal("Dorvane can't read this VM's files at " + vm->vmPath +
                      ". If they are on an external disk, connect it. Otherwise choose the folder again in "
                      "Settings > Storage."));
}

TEST_F(VMReconfigurerTest, sharesKeepTheirAddressOnceTheyHaveOne) {
    vm = addVM("win", VMOSType::windows);
    writeFileAtomically(vm->bundle().rawDisk(), "");
    request.windowsShares = true;
    EXPECT_EQ(update().windowsShares, (WindowsSharesConfig{true, 47007, "secret"}));
    EXPECT_FALSE(std::filesystem::exists(vm->bundle().rawDisk())) << "the stray empty disk goes";
    writeConfig(vm->bundle(), [](auto& config) {
        config.windowsShares = WindowsSharesConfig{true, 47050, "old"};
    });
    request.windowsShares = false;
    EXPECT_EQ(update().windowsShares, (WindowsSharesConfig{false, 47050, "old"}));
    request.windowsShares = true;
    EXPECT_EQ(update().windowsShares, (WindowsSharesConfig{true, 47050, "old"}));
}

TEST_F(VMReconfigurerTest, renamesWithoutRegardToCaseAndLeavesTheDirectory) {
    addVM("Beta");
    EXPECT_EQ(failureOf(service.renameVM(vm, "bETA")), DorvaneError(Case::vmNameCollision, "bETA"));
    EXPECT_EQ(failureOf(service.renameVM(vm, " \n")).which(), Case::invalidConfiguration);
    run(service.renameVM(vm, " ALPHA\n"));
    EXPECT_EQ(vm->name, "ALPHA");
    EXPECT_EQ(vm->vmPath, (storage / "alpha").string());
    EXPECT_TRUE(log.contains("Renamed VM alpha to ALPHA"));
}

TEST_F(VMReconfigurerTest, completesAnInstallationOnRequest) {
    vm->pendingInstallerImagePath = "/installer.iso";
    vm->status = VMStatus::running;
    EXPECT_EQ(failureOf(service.completeInstallation(vm)),
              refusal("Shut down the VM before removing the installer image."));
    vm->status = VMStatus::stopped;
    run(service.completeInstallation(vm));
    EXPECT_FALSE(vm->pendingInstallerImagePath);
    vm->osType = VMOSType::macOS;
    EXPECT_EQ(failureOf(service.completeInstallation(vm)),
              refusal("Only VMs installed from an ISO can finish the installer boot flow."));
}

}  // namespace
}  // namespace dorvane::test
