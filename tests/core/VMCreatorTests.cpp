// SPDX-License-Identifier: Apache-2.0
#include "core/VMServiceHarness.h"

namespace dorvane::test {
namespace {

class VMCreatorTest : public VMServiceTest {
  protected:
    void expectNothingLeft() {
        EXPECT_TRUE(!std::filesystem::exists(storage) || std::filesystem::is_empty(storage));
        EXPECT_TRUE(context.fetchRecords().empty());
        EXPECT_TRUE(service.vms().empty());
    }
};

TEST_F(VMCreatorTest, makesALinuxMachineWithTheDefaults) {
    VMConfiguration request;
    request.pendingInstallerImagePath = "/installer.iso";
    request.linuxRosetta = true;
    request.windowsClipboard = false;
    const auto vm = run(service.createVM("alpha", VMOSType::linux, request));
    const auto config = DorvaneVMConfig::read(vm->bundle().configFile());
    EXPECT_EQ(config.cpuCount, 4);
    EXPECT_EQ(config.memoryBytes, std::uint64_t{4096} << 20);
    EXPECT_EQ(config.display, (VMDisplayConfig{1440, 900, 80}));
    EXPECT_EQ(config.macAddress, "02:00:00:00:00:01");
    EXPECT_TRUE(config.linuxPlatform);
    EXPECT_EQ(config.linuxRosetta, true);
    EXPECT_EQ(config.linuxGuestAgent, true);
    EXPECT_FALSE(config.windowsClipboard) << "another family's field";
    EXPECT_FALSE(config.network);
    EXPECT_EQ(vm->bundle().diskImageLogicalSize(), std::uint64_t{64} << 30);
    EXPECT_TRUE(vm->hasPendingInstallerImage());
    EXPECT_TRUE(files.isExcludedFromBackup(vm->vmPath));
    EXPECT_EQ(service.vms().size(), 1u);
    EXPECT_TRUE(log.contains("Created VM: alpha"));
    const VMRecordFields before = *vm;
    run(service.refreshVMList());
    EXPECT_EQ(static_cast<const VMRecordFields&>(*vm), before) << "record and bundle agree from the start";
}

TEST_F(VMCreatorTest, makesAWindowsMachine) {
    VMConfiguration request;
    request.storagePath = (folder / "other").string();
    request.windowsShares = false;
    request.windowsGraphics = WindowsGraphicsMode::accelerated;
    const auto vm = run(service.createVM("win", VMOSType::windows, request));
    const auto config = DorvaneVMConfig::read(folder.path() / "other" / "win" / "config.json");
    EXPECT_EQ(config.windowsPlatform, (WindowsPlatformIdentity{"virt-11.1", true, true}));
    EXPECT_EQ(config.windowsShares, (WindowsSharesConfig{false, 47007, "secret"}));
    EXPECT_EQ(config.windowsFileDrop, true);
    EXPECT_FALSE(config.windowsGraphics) << "absent at creation";
    EXPECT_EQ(readTextFile(vm->bundle().qcow2Disk()), "qcow2 68719476736");
}

TEST_F(VMCreatorTest, saysWhyAFamilyCannotBeMade) {
    const auto expectFailure = [&](VMOSType os, const std::string& words) {
        EXPECT_EQ(failureOf(service.createVM("vm", os, {})), DorvaneError(Case::vmCreationFailed, words));
        expectNothingLeft();
    };
    windows.reason = "This Mac is too old.";
    expectFailure(VMOSType::windows, "This Mac is too old.");
    windows.reason.reset();
    windows.hasTool = false;
    expectFailure(VMOSType::windows, "This version of Dorvane does not include Windows support.");
    expectFailure(VMOSType::macOS, "This version of Dorvane cannot install macOS on this host.");
}

TEST_F(VMCreatorTest, refusesBadRequestsAndTakenNames) {
    VMConfiguration tooMany;
    tooMany.cpuCount = 1025;
    EXPECT_EQ(failureOf(service.createVM("vm", VMOSType::linux, tooMany)).which(),
              Case::invalidConfiguration);
    EXPECT_EQ(failureOf(service.createVM("../vm", VMOSType::linux, {})).which(), Case::invalidConfiguration);
    expectNothingLeft();
    addVM("alpha");
    EXPECT_EQ(failureOf(service.createVM("alpha", VMOSType::linux, {})),
              DorvaneError(Case::vmNameCollision, "alpha"));
    // An unknown directory of that name is left alone.
    std::filesystem::create_directories(storage / "beta" / "mine");
    EXPECT_EQ(failureOf(service.createVM("beta", VMOSType::linux, {})).which(), Case::vmCreationFailed);
    EXPECT_TRUE(std::filesystem::exists(storage / "beta" / "mine"));
}

TEST_F(VMCreatorTest, aFailureOfDiskOrStoreLeavesNothing) {
    windows.tool.fails = true;
    EXPECT_EQ(failureOf(service.createVM("win", VMOSType::windows, {})).text(), "the tool failed");
    expectNothingLeft();
    context.failNextSave = true;
    EXPECT_EQ(failureOf(service.createVM("alpha", VMOSType::linux, {})).text(), "the store can't be written");
    expectNothingLeft();
    EXPECT_NO_THROW(run(service.createVM("alpha", VMOSType::linux, {}))) << "the name is free again";
}

TEST_F(VMCreatorTest, twoAtOnceWithOneNameMakeOneMachine) {
    VMConfiguration elsewhere;
    elsewhere.storagePath = (folder / "other").string();
    const auto first = begin(service.createVM("alpha", VMOSType::linux, {}));
    const auto second = begin(service.createVM("alpha", VMOSType::linux, elsewhere));
    const auto refresh = begin(service.refreshVMList());
    finish(first, second, refresh);
    EXPECT_EQ(context.fetchRecords().size(), 1u);
    EXPECT_TRUE(log.contains("test failed: A VM named 'alpha' already exists."));
}

/// Makes a bundle as the installer does and tells its progress.
class FakeMacOSInstaller : public MacOSInstalling {
  public:
    Task<MacOSInstallResult> installLatestMacOS(MacOSInstallRequest request,
                                                std::function<void(MacOSInstallPhase)> onProgress) override {
        onProgress({MacOSInstallPhase::Kind::installing, 0.5});
        VMBundle::create(request.directory, request.diskSizeBytes);
        MacOSInstallResult result{{}, "macOS 27.0 (26A1)", "ipsw:26A1"};
        result.config.os = VMOSType::macOS;
        result.config.cpuCount = request.cpuCount;
        result.config.write(request.directory / "config.json");
        co_return result;
    }
};

/// Remembers whose account waits.
class FakeProvisioningStore : public GuestProvisioningStoring {
  public:
    void validate(const MacProvisioningDraft& draft) const override {
        if (draft.request.username.empty()) throw DorvaneError(Case::invalidConfiguration, "no user name");
    }
    void save(const UUID& vmID, const VMBundle&, const MacProvisioningDraft&) override {
        waiting.insert(vmID);
    }
    void discard(const UUID& vmID, const VMBundle&) override { waiting.erase(vmID); }
    std::set<UUID> waiting;
};

TEST_F(VMCreatorTest, installsMacOSWithPhasesAndAccount) {
    FakeMacOSInstaller installer;
    FakeProvisioningStore accounts;
    auto with = collaborators();
    with.macOSInstaller = &installer;
    with.provisioningStore = &accounts;
    VMService installing(std::move(with));
    std::vector<std::optional<MacOSInstallPhase>> phases;
    std::vector<std::string> labels;
    const Subscription subscription = installing.macOSInstallPhaseChanged.connect([&] {
        phases.push_back(installing.macOSInstallPhase());
        for (const auto& [id, label] : operations.active()) labels.push_back(label);
    });
    VMConfiguration request;
    request.macProvisioning = MacProvisioningDraft{};
    EXPECT_EQ(failureOf(installing.createVM("mac", VMOSType::macOS, request)), refusal("no user name"));
    request.macProvisioning->request.username = "ada";
    const auto vm = run(installing.createVM("mac", VMOSType::macOS, request));
    EXPECT_EQ(vm->osVersionLabel, "macOS 27.0 (26A1)");
    EXPECT_EQ(vm->imageSource, "ipsw:26A1");
    EXPECT_EQ(accounts.waiting, std::set<UUID>{vm->id});
    ASSERT_EQ(phases.size(), 2u);
    EXPECT_EQ(phases.front()->fraction, 0.5);
    EXPECT_FALSE(phases.back());
    EXPECT_EQ(labels, std::vector<std::string>{"Installing macOS"});
    run(installing.deleteVM(vm, true));
    EXPECT_TRUE(accounts.waiting.empty());
}

}  // namespace
}  // namespace dorvane::test
