// SPDX-License-Identifier: Apache-2.0
#include "core/application/AppState.h"

#include <gtest/gtest.h>

#include "support/EngineMachine.h"
#include "support/FakeDefaultsStore.h"
#include "support/FakeFileManager.h"
#include "support/FakeHostSystem.h"
#include "support/FakeKeychain.h"
#include "support/FakeProcesses.h"
#include "support/FakeQEMUInstallation.h"
#include "support/InMemoryModelContext.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"
#include "support/TestRuntime.h"
#include "support/TimePump.h"

namespace dorvane::test {
namespace {

/// The application on a host that runs Windows guests; every other start fails.
class AppStateTest : public testing::Test {
  protected:
    AppStateTest() { app.settingsService().setStoragePath(storage); }
    ~AppStateTest() override { host.run(app.shutDown()); }

    VMRecordPointer addVM(const std::string& name, VMOSType os = VMOSType::linux) {
        const VMBundle bundle(storage / name);
        std::filesystem::create_directories(bundle.directoryURL);
        auto config = windowsGuest({"virt", false, true});
        config.os = os;
        config.windowsSSH = WindowsSSHConfig{false, 0};
        config.write(bundle.configFile());
        writeFileAtomically(bundle.systemDisk(os), "disk");
        auto vm = std::make_shared<VMRecord>();
        vm->name = name;
        vm->osType = os;
        vm->vmPath = bundle.directoryURL.string();
        vm->createdAt = host.clock().date() + std::chrono::seconds(serial_++);
        context.insert(vm);
        return vm;
    }
    void makeSandbox(const VMRecordPointer& vm, Date expiresAt) {
        vm->ephemeral = EphemeralInfo{host.clock().date(), expiresAt, std::nullopt};
    }
    static ApplicationDirectories directoriesIn(const TemporaryDirectory& folder) {
        ApplicationDirectories made;
        made.applicationSupport = folder / "support";
        made.configuration = folder / "config";
        made.caches = folder / "caches";
        made.temporary = folder / "tmp";
        return made;
    }

    LogCapture log;
    TemporaryDirectory folder;
    Path storage = folder / "VMs";
    TestRuntime host{TestRuntime::TimeMode::manual};
    FakeDefaultsStore defaults;
    FakeKeychain keychain;
    ApplicationDirectories directories = directoriesIn(folder);
    FakeFileManager files{folder / "Trash"};
    FakeProcesses processes;
    FakeHostSystem system;
    IdentityHostAdapter adapter;
    InMemoryModelContext context;
    FakeQEMUInstallation qemu;
    HostServices services{host.runtime(), defaults, keychain,      directories, files, processes,
                          system,         adapter,  {qemu.root()}, {},          "1"};
    AppState app{services, context};

  private:
    int serial_ = 0;
};

TEST_F(AppStateTest, startsWhatIsMarkedOneAfterTheOtherAndNoSandbox) {
    addVM("plain");
    for (const auto* name : {"first", "second", "box"}) addVM(name)->startsWithDorvane = true;
    makeSandbox(context.fetchRecords().back(), host.clock().date() + std::chrono::hours(1));
    host.run(app.runStartSequence());
    std::vector<std::string> tried;
    for (const auto& line : log.lines())
        if (line.category == "LaunchVMs")
            tried.push_back(line.message.substr(0, line.message.find(" at launch")));
    EXPECT_EQ(tried, (std::vector<std::string>{"Could not start first", "Could not start second"}));
    const auto lines = log.lines().size();
    host.run(app.startVMsMarkedForLaunch());
    EXPECT_EQ(log.lines().size(), lines) << "once only";
}

TEST_F(AppStateTest, aQuitEndsTheStartSequenceWhateverHasBegunAlready) {
    const auto first = addVM("first", VMOSType::windows), second = addVM("second", VMOSType::windows);
    for (const auto& vm : {first, second, addVM("third", VMOSType::windows)}) vm->startsWithDorvane = true;
    const TimePump pump(host.clock());
    auto starting = spawn(host.runtime().main.executor(), app.startVMsMarkedForLaunch(), "starting");
    host.driveUntil([&] { return app.makeSharedVMService().isStarting(second->id); });
    EXPECT_EQ(first->status, VMStatus::running);
    starting.cancel();
    host.run(app.quitFlow().stopAllVMs());
    host.driveUntil([&] { return starting.isFinished(); });
    EXPECT_TRUE(log.contains("Started first because it is set to start with Dorvane"));
    EXPECT_FALSE(log.contains("Could not start")) << "a start that is called off hasn't failed";
    EXPECT_EQ(qemu.count("qemu-system-aarch64 pid="), 1);
    EXPECT_TRUE(qemu.survivors().empty());
}

TEST_F(AppStateTest, settingsThatCannotBeWrittenStopNothingButTheirUser) {
    defaults.failSets = true;
    EXPECT_NO_THROW(AppState(services, context));
    EXPECT_TRUE(log.contains("The setting backendMode could not be kept: "));
    EXPECT_THROW(app.completeOnboarding(), FileError);
}

TEST_F(AppStateTest, expiredSandboxesGoAtTheStartAndEveryHalfHour) {
    makeSandbox(addVM("old"), host.clock().date() - std::chrono::hours(1));
    makeSandbox(addVM("young"), host.clock().date() + std::chrono::minutes(40));
    addVM("plain");
    host.run(app.runStartSequence());
    host.driveUntil([&] { return std::filesystem::exists(folder / "Trash/old"); });
    host.settle();
    for (const int minutes : {30, 29}) {
        host.clock().advance(std::chrono::minutes(minutes));
        host.settle();
        EXPECT_TRUE(std::filesystem::exists(storage / "young"));
    }
    host.clock().advance(std::chrono::minutes(1));
    host.driveUntil([&] { return std::filesystem::exists(folder / "Trash/young"); });
    EXPECT_TRUE(std::filesystem::exists(storage / "plain"));
}

TEST_F(AppStateTest, linksShowTheirAlertAndAskForTheDisplay) {
    const auto vm = addVM("Ubuntu");
    host.run(app.handle("dorvane:show?vm=Ubuntu"));
    EXPECT_TRUE(log.contains("Dorvane links are turned off.")) << "nobody shows it";
    std::vector<std::string> shown;
    std::vector<UUID> displays;
    app.urlCommandAlert.connect(
        [&](const auto& title, const auto& text) { shown.push_back(title + ": " + text); });
    app.displayRequested.connect([&](const UUID& id) { displays.push_back(id); });
    defaults.set(defaultsKey::urlCommandsEnabled, true);
    EXPECT_EQ(host.run(app.handle("dorvane:show?vm=ubuntu")).kind, LinkOutcome::Kind::done);
    host.run(app.handle("dorvane:show?vm=nobody"));
    host.run(app.handle("no link"));
    EXPECT_EQ(displays, std::vector{vm->id});
    EXPECT_EQ(shown, std::vector<std::string>{"Dorvane link: There is no VM named “nobody”."});
}

}  // namespace
}  // namespace dorvane::test
