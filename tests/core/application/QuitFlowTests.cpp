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

void checkQuit(const QuitCase& given) {
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
    const bool asks = !given.text.empty();
    for (const bool confirms : {true, false}) {
        bool wasAsked = false;
        const auto reply = flow.shouldTerminate([&](const QuitQuestion& question) {
            wasAsked = true;
            EXPECT_EQ(question.title, "Quit Dorvane?");
            EXPECT_EQ(question.text, given.text);
            EXPECT_EQ(question.confirmButton, given.button);
            return confirms;
        });
        EXPECT_EQ(wasAsked, asks);
        EXPECT_EQ(reply, confirms || !asks ? given.confirmed : Reply::cancel);
    }
    EXPECT_EQ(engine.runningVMIDs().size(), given.machines) << "asking stops nothing";
    host.run(flow.stopAllVMs());
    EXPECT_EQ(engine.shutdowns, std::vector{seconds(30)});
    end.set();
    host.settle();
}

TEST(QuitFlow, asksWhatStandsInTheWayAndNothingElse) {
    const std::string gated = "A snapshot, clone, backup or suspend";
    const std::string rest = ". Quitting now interrupts it, and what it has not finished is discarded.";
    const std::string stops = "Quitting will stop 2 running virtual machine(s).";
    const auto progress = [&](const std::string& labels) { return "Still in progress: " + labels + rest; };
    for (const auto& given :
         std::vector<QuitCase>{{0, false, {}, "", "", Reply::now},
                               {0, false, {"Importing"}, progress("Importing"), "Quit Anyway", Reply::now},
                               {0, true, {}, progress(gated), "Quit Anyway", Reply::now},
                               {2, false, {}, stops, "Stop VMs and Quit", Reply::later},
                               {2,
                                true,
                                {"b", "a"},
                                progress("a, b, and " + gated) + "\n\n" + stops,
                                "Stop VMs and Quit",
                                Reply::later}}) {
        SCOPED_TRACE(given.text);
        checkQuit(given);
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
