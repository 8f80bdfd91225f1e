// SPDX-License-Identifier: Apache-2.0
#include "core/application/QuitFlow.h"

#include <gtest/gtest.h>

#include "support/FakeEngine.h"
#include "support/TestRuntime.h"

namespace dorvane::test {
namespace {

using Reply = QuitFlow::Reply;

struct QuitCase {
    std::size_t machines;
    bool isBusy;
    std::vector<std::string> operations;
    std::string text;
    std::string button;
    Reply confirmed;
};

Task<void> waitFor(Event event) { co_await event.wait(); }

TEST(QuitFlow, asksWhatStandsInTheWayAndNothingElse) {
    const std::string gated = "A snapshot, clone, backup or suspend";
    const std::string rest = ". Quitting now interrupts it, and what it has not finished is discarded.";
    const std::string stops = "Quitting will stop 2 running virtual machine(s).";
    const std::string begun = "Still in progress: ", anyway = "Quit Anyway", stopAll = "Stop VMs and Quit";
    const std::vector<QuitCase> table{
        {0, false, {}, "", "", Reply::now},
        {0, false, {"Importing"}, begun + "Importing" + rest, anyway, Reply::now},
        {0, true, {}, begun + gated + rest, anyway, Reply::now},
        {2, false, {}, stops, stopAll, Reply::later},
        {2, true, {"b", "a"}, begun + "a, b, and " + gated + rest + "\n\n" + stops, stopAll, Reply::later}};
    for (const auto& given : table) {
        SCOPED_TRACE(given.text);
        TestRuntime host;
        VMOperationGate gate;
        LongOperationRegistry operations;
        FakeEngine engine;
        const Event end;
        for (const auto& label : given.operations)
            spawn(host.runtime().main.executor(), operations.track(label, waitFor(end)), label).detach();
        host.settle();
        if (given.isBusy) gate.begin(UUID::random(), "Busy");
        for (std::size_t i = 0; i < given.machines; ++i) engine.adopt(UUID::random());
        const QuitFlow flow(gate, operations, engine);
        for (const bool confirms : {true, false}) {
            bool wasAsked = false;
            const auto reply = flow.shouldTerminate([&](const QuitQuestion& question) {
                wasAsked = true;
                EXPECT_EQ(question.title, "Quit Dorvane?");
                EXPECT_EQ(question.text, given.text);
                EXPECT_EQ(question.confirmButton, given.button);
                return confirms;
            });
            EXPECT_EQ(wasAsked, !given.text.empty());
            EXPECT_EQ(reply, confirms || !wasAsked ? given.confirmed : Reply::cancel);
        }
        EXPECT_EQ(engine.runningVMIDs().size(), given.machines) << "asking stops nothing";
        host.run(flow.stopAllVMs());
        EXPECT_EQ(engine.shutdowns, std::vector{seconds(30)});
        end.set();
        host.settle();
    }
}

TEST(QuitFlow, aMachineThatEndsDuringTheQuestionWasAskedAboutAllTheSame) {
    VMOperationGate gate;
    LongOperationRegistry operations;
    FakeEngine engine;
    const auto id = UUID::random();
    engine.adopt(id);
    const auto reply = QuitFlow(gate, operations, engine).shouldTerminate([&](const QuitQuestion&) {
        engine.vanish(id, VMStopReason::guestInitiated());
        return true;
    });
    EXPECT_EQ(reply, Reply::later);
}

}  // namespace
}  // namespace dorvane::test
