// SPDX-License-Identifier: Apache-2.0
#include "core/application/LinkHandling.h"

#include <gtest/gtest.h>

#include "core/SettingsService.h"
#include "support/FakeDefaultsStore.h"
#include "support/FakeSnapshotService.h"
#include "support/FakeVMService.h"
#include "support/TestRuntime.h"

namespace dorvane::test {
namespace {

using Kind = LinkOutcome::Kind;

class LinkHandlingTest : public testing::Test {
  protected:
    LinkHandlingTest() { defaults.set(defaultsKey::urlCommandsEnabled, true); }

    LinkOutcome perform(const std::string& url) {
        return host.run(performLink({vmService, snapshots, defaults, host.clock()}, url));
    }

    TestRuntime host;
    FakeDefaultsStore defaults;
    FakeVMService vmService;
    VMOperationGate gate;
    FakeSnapshotService snapshots{gate};
};

TEST_F(LinkHandlingTest, actsOnlyInTheStatesThatMeanSomething) {
    struct Case {
        const char* verb;
        VMStatus from, to;
        bool acts, opens;
    };
    using enum VMStatus;
    for (const auto& [verb, from, to, acts, opens] :
         {Case{"start", stopped, running, true, true}, Case{"start", error, running, true, true},
          Case{"start", running, running, false, true}, Case{"start", paused, paused, false, true},
          Case{"stop", running, stopped, true, false}, Case{"stop", starting, starting, false, false},
          Case{"stop", stopped, stopped, false, false}, Case{"show", stopped, stopped, true, true}}) {
        const auto vm = vmService.add(std::string(verb) + " " + rawValue(from), VMOSType::linux, from);
        const auto outcome = perform("dorvane://" + std::string(verb) + "?vm=" + vm->name);
        EXPECT_EQ(outcome.kind, Kind::done) << vm->name << outcome.alert;
        EXPECT_EQ(outcome.vm, vm);
        EXPECT_EQ(vm->status, to) << vm->name;
        EXPECT_EQ(outcome.hasActed, acts) << vm->name;
        EXPECT_EQ(outcome.wantsDisplay, opens) << vm->name;
        EXPECT_FALSE(vmService.lastStopWasForced(*vm));
    }
    defaults.set(defaultsKey::opensDisplayOnStart, false);
    vmService.add("a");
    EXPECT_FALSE(perform("dorvane:start?vm=a").wantsDisplay);
    EXPECT_TRUE(perform("dorvane:show?vm=a").wantsDisplay) << "the setting is about starts";
}

TEST_F(LinkHandlingTest, takesADiskSnapshotOfTheGivenName) {
    vmService.add("a", VMOSType::windows, VMStatus::running);
    EXPECT_TRUE(perform("dorvane:snapshot?vm=a&name=x").hasActed);
    perform("dorvane:snapshot?vm=a");
    EXPECT_EQ(snapshots.names(), (std::vector<std::string>{"x", "Shortcut 2026-01-01T00:00:00"}));
    EXPECT_FALSE(snapshots.all.front()->includesRAMState);
    EXPECT_EQ(snapshots.all.front()->kind(), VMSnapshotKind::manual);
}

TEST_F(LinkHandlingTest, isOffUntilTheUserTurnsItOnAndSilentAboutWhatIsNoCommand) {
    const auto vm = vmService.add("a");
    EXPECT_TRUE(perform("dorvane:reboot?vm=a").alert.empty());
    defaults.set(defaultsKey::urlCommandsEnabled, false);
    const auto refused = perform("dorvane:start?vm=nobody");
    EXPECT_EQ(refused.kind, Kind::turnedOff);
    EXPECT_EQ(refused.alert,
              "Dorvane links are turned off. To let shortcuts and scripts start, stop and snapshot VMs with "
              "dorvane:// links, turn them on in Settings > Automation.");
    EXPECT_EQ(perform("dorvane:reboot?vm=a").kind, Kind::ignored);
    defaults.remove(defaultsKey::urlCommandsEnabled);
    EXPECT_EQ(perform("dorvane:start?vm=a").kind, Kind::turnedOff);
    EXPECT_EQ(vm->status, VMStatus::stopped);
}

TEST_F(LinkHandlingTest, failuresBecomeAlerts) {
    const auto vm = vmService.add("a");
    EXPECT_EQ(perform("dorvane:start?vm=b").alert, "There is no VM named “b”.");
    vmService.nextFailure = std::make_exception_ptr(DorvaneError(DorvaneError::Case::vmBusy, "a"));
    const auto failed = perform("dorvane:start?vm=a");
    EXPECT_EQ(failed.kind, Kind::failed);
    EXPECT_EQ(failed.alert, DorvaneError(DorvaneError::Case::vmBusy, "a").errorDescription());
    EXPECT_FALSE(failed.wantsDisplay);
    const VMOperationGate::Hold hold(gate, vm->id, vm->name);
    EXPECT_EQ(perform("dorvane:snapshot?vm=a").alert, failed.alert);
}

TEST(LinkedVM, isFoundInThreePasses) {
    FakeVMService library;
    const auto first = library.add("ubuntu"), second = library.add("Ubuntu"), third = library.add("BÜRO");
    const auto imposter = library.add(second->id.text());
    const std::vector vms{first, second, third, imposter};
    EXPECT_EQ(findLinkedVM(vms, second->id.text()), second) << "an identifier beats a name";
    EXPECT_EQ(findLinkedVM(vms, "Ubuntu"), second) << "an exact spelling beats a near one";
    EXPECT_EQ(findLinkedVM(vms, "UBUNTU"), first);
    EXPECT_EQ(findLinkedVM(vms, "büro"), third);
    std::string lowerID = first->id.text();
    for (auto& c : lowerID) c = static_cast<char>(std::tolower(c));
    EXPECT_EQ(findLinkedVM(vms, lowerID), nullptr) << "identifiers are written in upper case";
}

}  // namespace
}  // namespace dorvane::test
