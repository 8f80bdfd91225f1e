// SPDX-License-Identifier: Apache-2.0
#include "qemu/QMPConnection.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/socket.h>

#include "qemu/QMPLineBuffer.h"
#include "qemu/UnixFDPassing.h"
#include "runtime/ReadSource.h"
#include "runtime/Sockets.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"
#include "support/TestRuntime.h"

namespace dorvane {
namespace {

using Error = QMPConnection::ConnectionError;
using testing::ElementsAre;

/// On a real Unix socket, run by the test's own thread. Greets, keeps what it is told, and answers as
/// `answer` says.
class FakeQMPServer {
  public:
    FakeQMPServer(const Runtime& runtime, const std::string& socket)
        : queue_(runtime.makeQueue("test.qmp-server")),
          listener_(queue_, listenUnixSocket(socket), [this] { acceptClient(); }) {}

    static std::string result(const JSON& command, const std::string& payload) {
        return R"({"return": )" + payload + R"(, "id": )" + command.at("id").dump() + "}\r\n";
    }
    static std::optional<std::string> agree(const JSON& command) { return result(command, "{}"); }
    void send(const std::string& text) { UnixFDPassing::sendAll(client_->descriptor(), asBytes(text)); }
    void hangUp() { client_.reset(); }

    /// The raw text to send for a command; absent: no answer.
    std::function<std::optional<std::string>(const JSON& command)> answer = agree;
    std::vector<JSON> commands;
    std::vector<FileDescriptor> descriptors;
    bool sawEndOfStream = false;

  private:
    void acceptClient() {
        FileDescriptor fd(::accept4(listener_.descriptor(), nullptr, nullptr, SOCK_CLOEXEC));
        client_ = std::make_unique<ReadSource>(queue_, std::move(fd), [this] { readClient(); });
        send(R"({"QMP": {"version": {"qemu": {"major": 11, "minor": 1, "micro": 3}}, "capabilities": []}})"
             "\r\n");
    }
    void readClient() {
        Bytes bytes(4096), control(256);
        iovec piece{bytes.data(), bytes.size()};
        msghdr message{};
        message.msg_iov = &piece;
        message.msg_iovlen = 1;
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        const auto count = ::recvmsg(client_->descriptor(), &message, 0);
        if (count <= 0) {
            sawEndOfStream = true;
            return hangUp();
        }
        for (auto& fd : UnixFDPassing::receivedFDs(message)) descriptors.push_back(std::move(fd));
        for (const auto& line : buffer_.append({bytes.data(), static_cast<std::size_t>(count)})) {
            commands.push_back(parseJSON(line));
            const auto text = answer(commands.back());
            if (text && client_) send(*text);
        }
    }

    SerialQueue queue_;
    ReadSource listener_;
    std::unique_ptr<ReadSource> client_;
    QMPLineBuffer buffer_;
};

/// A connection and a server on one thread; only the test moves time, so that no answer races with it.
struct ConnectionScene {
    test::TestRuntime test{test::TestRuntime::TimeMode::manual};
    test::LogCapture log;
    test::TemporaryDirectory directory;
    std::string socket = (directory / "q.sock").string();
    FakeQMPServer server{test.runtime(), socket};
    std::shared_ptr<QMPConnection> connection = std::make_shared<QMPConnection>(test.runtime());
    std::vector<std::string> events;

    void connect() { test.run(connection->connect(socket, seconds(10))); }
    QMPObject execute(std::string command, JSON arguments = nullptr, int passing = -1) {
        return test.run(connection->execute(std::move(command), std::move(arguments), seconds(10), passing));
    }
    void observe() {
        connection->observeEvents(
            [this](const QMPMessage& message) { events.push_back(message.event()->name); });
    }
    /// A command that the server leaves unanswered.
    OneShot<QMPObject> begin(std::string command, Duration timeout = seconds(10)) {
        server.answer = [](const JSON&) { return std::nullopt; };
        OneShot<QMPObject> outcome;
        const auto expected = server.commands.size() + 1;
        spawn(test.runtime().main.executor(),
              deliver(connection->execute(std::move(command), nullptr, timeout), outcome), "test")
            .detach();
        test.driveUntil([&] { return server.commands.size() == expected; });
        return outcome;
    }
    Error failureOf(OneShot<QMPObject> outcome) {
        test.driveUntil([&] { return outcome.isDecided(); });
        return caught([&] { outcome.take(); });
    }
    static Error caught(const std::function<void()>& action) {
        try {
            action();
        } catch (const Error& error) {
            return error;
        }
        throw std::runtime_error("nothing was thrown");
    }
};

TEST(QMPConnection, NegotiatesAndNumbersItsCommands) {
    ConnectionScene scene;
    scene.connect();
    scene.server.answer = [](const JSON& command) {
        return FakeQMPServer::result(command, R"({"status": "running"})");
    };
    EXPECT_EQ(scene.execute("query-status", {{"a", 1}}), (QMPObject{{"status", "running"}}));
    EXPECT_EQ(scene.server.commands[0], parseJSON(R"({"execute": "qmp_capabilities", "id": "dorvane-1"})"));
    EXPECT_EQ(scene.server.commands[1],
              parseJSON(R"({"execute": "query-status", "arguments": {"a": 1}, "id": "dorvane-2"})"));
}

TEST(QMPConnection, MatchesAnswersByIdHoweverTheyArrive) {
    ConnectionScene scene;
    scene.connect();
    const auto first = scene.begin("first"), second = scene.begin("second");
    for (const char* piece :
         {"{\"return\": [", "3], \"id\": \"dorvane-3\"}\r\nnonsense\n{\"event\": \"STOP\"}\n{\"ret",
          "urn\": {}}\n{\"return\": {\"n\": 2}, \"id\": \"dorvane-2\"}\r\n"}) {
        scene.server.send(piece);
        scene.test.settle();
    }
    scene.test.driveUntil([&] { return first.isDecided() && second.isDecided(); });
    EXPECT_EQ(first.take(), (QMPObject{{"n", 2}}));
    EXPECT_EQ(second.take(), (QMPObject{{"_items", QMPArray{3}}}));
    EXPECT_TRUE(scene.log.contains("忽略无法解析的 QMP 行"));
}

TEST(QMPConnection, ALateAnswerIsDroppedAndTheConnectionLivesOn) {
    ConnectionScene scene;
    scene.connect();
    const auto slow = scene.begin("slow", seconds(2));
    scene.test.clock().advance(seconds(2));
    const auto error = scene.failureOf(slow);
    EXPECT_EQ(error.which(), Error::Case::commandTimedOut);
    EXPECT_STREQ(error.what(), "The VM did not respond to the control command \"slow\" in time.");
    scene.server.send("{\"return\": {}, \"id\": \"dorvane-2\"}\n");
    scene.server.answer = FakeQMPServer::agree;
    EXPECT_EQ(scene.execute("next"), QMPObject{});
    EXPECT_EQ(scene.server.commands.back().at("id"), "dorvane-3");
}

TEST(QMPConnection, PassesADescriptorThatStaysTheCallers) {
    ConnectionScene scene;
    scene.connect();
    const FileDescriptor mine(::open(scene.directory.path().c_str(), O_RDONLY | O_CLOEXEC));
    scene.execute("getfd", {{"fdname", "d"}}, mine.get());
    ASSERT_EQ(scene.server.descriptors.size(), 1U);
    for (const int fd : {mine.get(), scene.server.descriptors[0].get()})
        EXPECT_TRUE(
            std::filesystem::equivalent("/proc/self/fd/" + std::to_string(fd), scene.directory.path()));
    const auto error = ConnectionScene::caught([&] { scene.execute("getfd", nullptr, 100000); });
    EXPECT_EQ(error.which(), Error::Case::connectionClosed);
    EXPECT_EQ(scene.execute("still-usable"), QMPObject{});
}

TEST(QMPConnection, AHangUpEndsEverythingOnce) {
    ConnectionScene scene;
    scene.connect();
    scene.observe();
    const auto removed =
        scene.connection->observeEvents([](const QMPMessage&) { ADD_FAILURE() << "was removed"; });
    scene.connection->removeObserver(removed);
    scene.connection->observeEvents([](const QMPMessage&) { throw std::runtime_error("careless"); });
    const auto first = scene.begin("first"), second = scene.begin("second");
    scene.server.send("{\"event\": \"RESUME\"}\n");
    scene.test.driveUntil([&] { return !scene.events.empty(); });
    scene.server.hangUp();
    EXPECT_EQ(scene.failureOf(first).which(), Error::Case::connectionClosed);
    EXPECT_EQ(scene.failureOf(second).which(), Error::Case::connectionClosed);
    scene.test.run(scene.connection->close());
    EXPECT_THAT(scene.events, ElementsAre("RESUME", "__DISCONNECTED__"));
    const auto error = ConnectionScene::caught([&] { scene.execute("late"); });
    EXPECT_STREQ(error.what(), "The VM control connection was closed.");
}

TEST(QMPConnection, ClosingWithoutWaitingIsSeenByTheNextCommand) {
    ConnectionScene scene;
    scene.connect();
    scene.observe();
    const auto inFlight = scene.begin("slow");
    scene.connection->closeNow();
    scene.connection->closeNow();
    EXPECT_EQ(ConnectionScene::caught([&] { scene.execute("late"); }).which(), Error::Case::connectionClosed);
    EXPECT_EQ(scene.failureOf(inFlight).which(), Error::Case::connectionClosed);
    scene.test.driveUntil([&] { return scene.server.sawEndOfStream; });
    EXPECT_EQ(scene.server.commands.size(), 2U);
    EXPECT_THAT(scene.events, ElementsAre("__DISCONNECTED__"));
}

TEST(QMPConnection, ADroppedConnectionClosesItsSocket) {
    ConnectionScene scene;
    scene.connect();
    scene.connection.reset();
    scene.test.driveUntil([&] { return scene.server.sawEndOfStream; });
}

TEST(QMPConnection, APeerThatFloodsWithoutALineEndIsLeft) {
    ConnectionScene scene;
    scene.connect();
    scene.observe();
    scene.test.settle();
    const std::string flood(1 << 16, 'x');
    std::size_t sent = 0;
    while (scene.events.empty() && sent < 2 * QMPLineBuffer::maximumPendingBytes) {
        try {
            scene.server.send(flood);
        } catch (const POSIXError&) {
            break;
        }
        sent += flood.size();
        scene.test.settle();
    }
    scene.test.driveUntil([&] { return !scene.events.empty(); });
    EXPECT_THAT(scene.events, ElementsAre("__DISCONNECTED__"));
}

TEST(QMPConnection, WaitsForTheSocketWhileThePeerLives) {
    test::TestRuntime test;
    const test::LogCapture log;
    const test::TemporaryDirectory directory;
    const auto path = (directory / "none.sock").string();
    const auto caught = [&](Duration timeout, std::function<bool()> isPeerAlive) {
        const auto connection = std::make_shared<QMPConnection>(test.runtime());
        return ConnectionScene::caught([&] { test.run(connection->connect(path, timeout, isPeerAlive)); });
    };
    int questions = 0;
    const auto began = test.clock().now();
    EXPECT_EQ(caught(seconds(10), [&] { return ++questions < 4; }).which(), Error::Case::peerExited);
    EXPECT_EQ(questions, 4);
    EXPECT_EQ(test.clock().now() - began, milliseconds(600));
    const auto error = caught(seconds(2), {});
    EXPECT_EQ(error.what(), "Could not connect to the VM control socket at " + path + ".");
    EXPECT_EQ(test.clock().now() - began, milliseconds(600 + 2200));
}

TEST(QMPConnection, SocketPathsHaveALimit) {
    test::TestRuntime test{test::TestRuntime::TimeMode::manual};
    const test::LogCapture log;
    const test::TemporaryDirectory directory;
    const auto pathOf = [&](std::size_t length) {
        const auto base = directory.path().string() + "/";
        return base + std::string(length - base.size(), 's');
    };
    FakeQMPServer server(test.runtime(), pathOf(103));
    const auto connection = std::make_shared<QMPConnection>(test.runtime());
    EXPECT_NO_THROW(test.run(connection->connect(pathOf(103), seconds(1))));
    const auto other = std::make_shared<QMPConnection>(test.runtime());
    const auto error = ConnectionScene::caught([&] { test.run(other->connect(pathOf(104), seconds(1))); });
    EXPECT_EQ(error.which(), Error::Case::socketPathTooLong);
    EXPECT_EQ(error.what(), "The VM control socket path is too long (104 bytes, limit 104): " + pathOf(104));
}

}  // namespace
}  // namespace dorvane
