// SPDX-License-Identifier: Apache-2.0
#include "core/VMOperationGate.h"

#include <gtest/gtest.h>

#include "core/DorvaneError.h"
#include "core/LongOperationRegistry.h"
#include "support/ErrorOf.h"
#include "support/TestRuntime.h"

namespace dorvane::test {
namespace {

Task<int> observe(const std::function<void()>& look, bool fails) {
    look();
    if (fails) throw std::runtime_error("no");
    co_return 7;
}

TEST(VMOperationGate, holdsTheMachineAndNamesTheWorkOnEveryWayOut) {
    TestRuntime host;
    VMOperationGate gate;
    LongOperationRegistry registry;
    int changes = 0;
    const Subscription subscription = registry.changed.connect([&] { ++changes; });
    const auto id = UUID::random();
    for (const bool fails : {false, true}) {
        bool wasBusy = false;
        std::string label;
        const std::function<void()> look = [&] {
            wasBusy = gate.isBusy(id);
            label = registry.active().begin()->second;
            EXPECT_THROW(gate.begin(id, "vm"), DorvaneError);
            EXPECT_NO_THROW(gate.requireFree(UUID::random(), "other"));
        };
        auto operation = gate.perform(id, "vm", registry.track("Installing macOS", observe(look, fails)));
        if (fails)
            EXPECT_THROW(host.run(std::move(operation)), std::runtime_error);
        else
            EXPECT_EQ(host.run(std::move(operation)), 7);
        EXPECT_TRUE(wasBusy);
        EXPECT_FALSE(gate.isBusy(id));
        EXPECT_EQ(label, "Installing macOS");
        EXPECT_TRUE(registry.active().empty());
    }
    EXPECT_EQ(changes, 4);
}

TEST(VMOperationGate, aRefusedOperationNeitherRunsNorFreesTheMachine) {
    TestRuntime host;
    VMOperationGate gate;
    const auto id = UUID::random();
    gate.begin(id, "vm");
    bool ran = false;
    const std::function<void()> look = [&] { ran = true; };
    EXPECT_EQ(errorOf([&] { host.run(gate.perform(id, "vm", observe(look, false))); }),
              DorvaneError(DorvaneError::Case::vmBusy, "vm"));
    EXPECT_FALSE(ran);
    EXPECT_TRUE(gate.isBusy(id));
}

}  // namespace
}  // namespace dorvane::test
