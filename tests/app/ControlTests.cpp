// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <thread>

#include "app/ControlClient.h"
#include "app/ControlServer.h"
#include "app/InstanceLock.h"
#include "core/DorvaneError.h"
#include "runtime/ProcessRuntime.h"
#include "runtime/Sockets.h"
#include "support/TemporaryDirectory.h"

namespace dorvane::test {
namespace {

TEST(ControlProtocol, refusesWhatIsNoRequest) {
    struct Case {
        const char* line;
        ControlErrorCode code;
    };
    for (const auto& one :
         {Case{"", ControlErrorCode::parseError}, Case{"{", ControlErrorCode::parseError},
          Case{"[]", ControlErrorCode::invalidRequest}, Case{R"({"id":1})", ControlErrorCode::invalidRequest},
          Case{R"({"method":"x"})", ControlErrorCode::invalidRequest},
          Case{R"({"id":1,"method":5})", ControlErrorCode::invalidRequest},
          Case{R"({"id":1,"method":"x","params":[]})", ControlErrorCode::invalidRequest}}) {
        const auto hasCode = testing::Property(&ControlError::code, one.code);
        EXPECT_THAT([&] { parseControlRequest(one.line); }, testing::Throws<ControlError>(hasCode))
            << one.line;
    }
    EXPECT_EQ(parseControlRequest(R"({"id":"a","method":"x"})").params, JSON::object());
}

TEST(ControlLineBuffer, cutsLinesWhereverTheBytesBreak) {
    ControlLineBuffer buffer;
    EXPECT_TRUE(buffer.append("ab").empty());
    EXPECT_EQ(buffer.append("c\n\nd\ne"), (std::vector<std::string>{"abc", "d"}));
    EXPECT_EQ(buffer.append("\n"), (std::vector<std::string>{"e"}));
}

/// A control server on its own runtime, driven by the test's thread; the client blocks on another.
class ControlServerTest : public testing::Test {
  protected:
    /// Runs `talk` against the methods on a thread of its own until it returns.
    void serve(ControlMethods methods, const std::function<void(const Path& socket)>& talk) {
        const auto socket = folder_ / "control.sock";
        auto server = std::make_unique<ControlServer>(process_.runtime(), socket, std::move(methods));
        work_ = server->work();
        std::thread client([&] {
            talk(socket);
            process_.runtime().main.async([&] {
                server.reset();
                process_.runtime().main.async([&] { process_.stop(); });
            });
        });
        process_.run();
        client.join();
    }

    TemporaryDirectory folder_;
    ProcessRuntime process_;
    std::weak_ptr<void> work_;
};

TEST_F(ControlServerTest, answersReportsProgressAndPassesSentencesOn) {
    ControlMethods methods;
    methods["echo"].perform = [](JSON params, ProgressReporter report) -> Task<JSON> {
        report({"half way", 0.5});
        co_return params;
    };
    methods["fail"].perform = [](JSON, ProgressReporter) -> Task<JSON> {
        throw DorvaneError(DorvaneError::Case::vmBusy, "Win");
        co_return JSON();
    };
    serve(methods, [](const Path& socket) {
        struct stat info {};
        EXPECT_EQ(::stat(socket.c_str(), &info), 0);
        EXPECT_EQ(info.st_mode & 0777, 0600U);
        ControlClient client(socket);
        std::vector<std::string> messages;
        EXPECT_EQ(client.call("echo", {{"a", 1}},
                              [&](const auto& progress) { messages.push_back(progress.message); }),
                  (JSON{{"a", 1}}));
        EXPECT_EQ(messages, (std::vector<std::string>{"half way"}));
        for (const auto& refused :
             {std::pair{"fail", "\"Win\" is busy saving or restoring its state. Try again when it finishes."},
              std::pair{"nothing", "Unknown method: nothing"}})
            EXPECT_THAT([&] { client.call(refused.first, JSON::object()); },
                        testing::ThrowsMessage<ControlError>(refused.second));
    });
    EXPECT_FALSE(std::filesystem::exists(folder_ / "control.sock"));
}

TEST_F(ControlServerTest, goneClientCancelsOrWithdrawsItsRequest) {
    std::atomic<bool> cancelled = false, withdrawn = false, finished = false;
    Clock& clock = process_.runtime().clock;
    ControlMethods methods;
    methods["cancel"].perform = [&clock, &cancelled](JSON, ProgressReporter report) -> Task<JSON> {
        report({"begun", {}});
        try {
            co_await clock.sleep(seconds(30));
        } catch (...) {
            cancelled = isCancellation(std::current_exception());
        }
        co_return JSON();
    };
    methods["keep"].perform = [&clock, &finished, &withdrawn](JSON, ProgressReporter report) -> Task<JSON> {
        report({"begun", {}});
        co_await pollUntil(clock, seconds(10), milliseconds(5), [&] { return withdrawn.load(); });
        finished = true;
        co_return JSON();
    };
    methods["keep"].withdraw = [&withdrawn](const JSON&) { withdrawn = true; };
    serve(methods, [&](const Path& socket) {
        struct Leave {};
        for (const auto* method : {"cancel", "keep"}) {
            ControlClient client(socket);
            EXPECT_THROW(client.call(method, JSON::object(), [](const auto&) { throw Leave(); }), Leave);
        }
        for (int i = 0; i < 400 && !(cancelled && finished); ++i) ::usleep(5000);
    });
    EXPECT_TRUE(cancelled);
    EXPECT_TRUE(withdrawn);
    EXPECT_TRUE(finished);
}

TEST_F(ControlServerTest, tellsWhetherARequestHasOutlivedIt) {
    const Event end;
    ControlMethods methods;
    methods["keep"].perform = [end](JSON, ProgressReporter report) {
        return [](Event awaited, ProgressReporter reporter) -> Task<JSON> {
            reporter({"begun", {}});
            co_await awaited.wait();
            co_return JSON();
        }(end, std::move(report));
    };
    methods["keep"].withdraw = [](const JSON&) {};
    serve(methods, [](const Path& socket) {
        struct Leave {};
        ControlClient client(socket);
        EXPECT_THROW(client.call("keep", JSON::object(), [](const auto&) { throw Leave(); }), Leave);
    });
    EXPECT_FALSE(work_.expired());
    end.set();
    const auto ended = [this] { return work_.expired(); };
    auto& clock = process_.runtime().clock;
    auto waiting = spawn(
        process_.runtime().main.executor(),
        [](ProcessRuntime& process, Task<bool> wait) -> Task<void> {
            const bool hasEnded = co_await std::move(wait);
            EXPECT_TRUE(hasEnded);
            process.stop();
        }(process_, pollUntil(clock, seconds(10), milliseconds(1), ended)),
        "waiting");
    process_.run();
}

TEST(ControlClient, tellsThatNoServiceRunsEvenWhereOneLeftItsSocket) {
    const TemporaryDirectory folder;
    const auto socket = folder / "control.sock";
    EXPECT_THROW(ControlClient{socket}, ServiceNotRunning);
    listenUnixSocket(socket.string()).reset();
    ASSERT_TRUE(std::filesystem::exists(socket));
    EXPECT_THROW(ControlClient{socket}, ServiceNotRunning);
}

TEST(InstanceLock, secondProcessIsRefusedByNameOfTheFirst) {
    const TemporaryDirectory folder;
    const auto file = folder / "library" / "instance.lock";
    const InstanceLock first(file);
    EXPECT_THAT([&] { const InstanceLock second(file); },
                testing::ThrowsMessage<std::runtime_error>(
                    "Dorvane is already running on this library (process " + std::to_string(::getpid()) +
                    "). Use its commands, or stop it first."));
}

}  // namespace
}  // namespace dorvane::test
