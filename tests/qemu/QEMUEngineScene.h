// SPDX-License-Identifier: Apache-2.0
// The engine with the scripted stand-in for every program, on virtual time.
#pragma once

#include <gmock/gmock.h>

#include "core/DorvaneError.h"
#include "qemu/QEMUEngine.h"
#include "support/EngineMachine.h"
#include "support/ErrorOf.h"
#include "support/FakeDefaultsStore.h"
#include "support/FakeProcesses.h"
#include "support/FakeQEMUInstallation.h"
#include "support/LogCapture.h"
#include "support/TestRuntime.h"
#include "support/TimePump.h"

namespace dorvane::test {

struct QEMUEngineScene {
    explicit QEMUEngineScene(std::function<void(QEMUEngineContext&)> change = {});
    ~QEMUEngineScene();

    std::optional<QEMURuntimeResources> locate() const;
    EngineMachine machine(const std::string& name,
                          const std::function<void(DorvaneVMConfig&)>& change = {}) const;
    void launch(const EngineMachine& vm);
    DorvaneError failedLaunch(const EngineMachine& vm);
    void stop(const EngineMachine& vm, bool force = true);
    void waitUntilGone(const EngineMachine& vm);
    Path directory(const EngineMachine& vm) const;
    /// A suspended state as the suspending service leaves it, over what the engine itself wrote.
    void suspend(const EngineMachine& vm);
    int launches() const;

    TestRuntime host{TestRuntime::TimeMode::manual};
    TimePump pump{host.clock()};
    LogCapture log;
    FakeQEMUInstallation qemu;
    TemporaryDirectory work;
    FakeProcesses processes;
    FakeDefaultsStore defaults;
    IdentityHostAdapter adapter;
    QEMUCapabilitiesCache capabilities{host.runtime()};
    GuestKeyStore keyStore{host.runtime(), work / "support"};
    GuestToolsRegistry guestTools;
    GuestFileServerRegistry fileServers;
    std::optional<QEMUEngine> engine;
};

}  // namespace dorvane::test
