// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "app/ServiceCommands.h"
#include "support/FakeDefaultsStore.h"
#include "support/FakeFileManager.h"
#include "support/FakeHostSystem.h"
#include "support/FakeKeychain.h"
#include "support/FakeProcesses.h"
#include "support/InMemoryModelContext.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"
#include "support/TestRuntime.h"

namespace dorvane::test {
namespace {

/// The commands over an application without an emulator: a start that gets as far as the engine fails and
/// leaves "error".
class MachineCommandsTest : public testing::Test {
  protected:
    MachineCommandsTest() {
        app.settingsService().setStoragePath(folder / "VMs");
        addMachineCommands(methods, app);
        const VMBundle bundle(folder / "VMs" / "alpha");
        std::filesystem::create_directories(bundle.directoryURL);
        DorvaneVMConfig config;
        config.os = VMOSType::linux;
        config.write(bundle.configFile());
        writeFileAtomically(bundle.rawDisk(), "disk");
    }
    ~MachineCommandsTest() override { host.run(app.shutDown()); }

    TaskHandle begin(const std::string& method) {
        auto work = methods.at(method).perform(JSON{{"vm", "alpha"}}, {});
        return spawn(host.runtime().main.executor(), deliver(std::move(work), OneShot<JSON>()), method);
    }
    VMStatus statusAtTheEndOf(const TaskHandle& request) {
        host.driveUntil([&] { return request.isFinished(); });
        host.settle();
        return context.fetchRecords().at(0)->status;
    }

    LogCapture log;
    TemporaryDirectory folder;
    TestRuntime host{TestRuntime::TimeMode::manual};
    FakeDefaultsStore defaults;
    FakeKeychain keychain;
    ApplicationDirectories directories{
        .applicationSupport = folder / "support",
        .configuration = folder / "config",
        .caches = folder / "caches",
        .state = folder / "state",
        .documents = folder / "documents",
        .runtime = folder / "runtime",
        .temporary = folder / "tmp",
    };
    FakeFileManager files{folder / "Trash"};
    FakeProcesses processes;
    FakeHostSystem system;
    IdentityHostAdapter adapter;
    InMemoryModelContext context;
    AppState app{
        {host.runtime(), defaults, keychain, directories, files, processes, system, adapter, {}, {}, "1"},
        context};
    ControlMethods methods;
};

TEST_F(MachineCommandsTest, aStartWhoseClientGoesAwayDuringTheRefreshDoesNotStart) {
    host.run(app.makeSharedVMService().refreshVMList());
    ASSERT_FALSE(methods.at("start").withdraw) << "its task is cancelled";
    auto withdrawn = begin("start");
    withdrawn.cancel();
    EXPECT_EQ(statusAtTheEndOf(withdrawn), VMStatus::stopped);
    EXPECT_EQ(statusAtTheEndOf(begin("start")), VMStatus::error) << "one that somebody waits for is tried";
}

}  // namespace
}  // namespace dorvane::test
