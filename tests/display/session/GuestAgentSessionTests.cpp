// SPDX-License-Identifier: Apache-2.0
#include "display/session/GuestAgentSession.h"

#include <gtest/gtest.h>

#include "display/session/VNCSession.h"
#include "support/FakeDisplayTransport.h"
#include "support/LogCapture.h"
#include "support/TestRuntime.h"

namespace dorvane::test {
namespace {

using Message = VDAgentIncomingMessage;
using Format = VDAgentClipboardFormat;
using Lines = std::vector<std::string>;

constexpr std::uint32_t newTools = 1U << vdAgentClipboardFileListBit;
constexpr GuestKey commandKey{0xFFEB, 55};

/// All fakes of one test write into one list, so that orders show.
struct Notes {
    explicit Notes(Lines& all) : lines(all) {}
    void note(const std::string& line) { lines.push_back(line); }
    template <typename Numbers>
    void noteAll(std::string line, const Numbers& numbers) {
        for (const auto number : numbers) line += " " + std::to_string(static_cast<int>(number));
        note(line);
    }
    Lines& lines;
};

struct FakeChannel : VDAgentChannel, Notes {
    using Notes::Notes;
    Task<void> connect(Duration timeout) override {
        connectTimeout = timeout;
        return connected.wait();
    }
    void sendClipboardGrab(const std::vector<Format>& formats) override { noteAll("send grab", formats); }
    void sendClipboardRequest(Format format) override { noteAll("send request", std::array{format}); }
    void sendClipboard(Format format, ByteView content) override {
        noteAll("send " + std::string(asText(content)) + " as", std::array{format});
    }
    bool guestSupports(std::uint32_t bit) const override { return (capabilities >> bit & 1) != 0; }
    void close() override { note("close channel"); }

    std::uint32_t capabilities = 0;
    std::optional<Duration> connectTimeout;
    OneShot<void> connected;
};

struct FakeClipboard : ClipboardBridging, Notes {
    using Notes::Notes;
    void start() override { note(sharesFiles ? "start with files" : "start"); }
    void stop() override { note("stop"); }
    void guestDidGrab(const std::set<HostClipboardKind>& kinds) override { noteAll("guest grabs", kinds); }
    void guestRequests(HostClipboardKind kind) override { noteAll("guest requests", std::array{kind}); }
    void guestDidProvideText(ByteView text) override { note("guest text " + std::string(asText(text))); }
    void guestDidProvideImage(ByteView png) override { note("guest image " + std::string(asText(png))); }
    void guestDidRelease() override { note("guest releases"); }
};

struct FakeTransfer : FileTransferring, Notes {
    using Notes::Notes;
    void enqueue(const std::vector<Path>& files) override {
        for (const auto& file : files) note("enqueue " + file.string());
    }
    void handleStatus(std::uint32_t id, VDAgentFileTransferStatus status) override {
        noteAll("status", std::array{int(id), int(status)});
    }
    void cancel() override {
        note("cancel");
        if (onItemFinished)
            onItemFinished({}, std::make_exception_ptr(std::runtime_error("Transfer cancelled.")));
    }
    void agentDisconnected() override { note("agent disconnected"); }
};

struct FakeAgents : GuestAgentChannelMaking, GuestToolsRegistering {
    std::shared_ptr<VDAgentChannel> makeChannel(const std::string& socketPath) override {
        lines.push_back("channel " + socketPath);
        return channel = std::make_shared<FakeChannel>(lines);
    }
    std::shared_ptr<ClipboardBridging> makeClipboardBridge() override {
        return clipboard = std::make_shared<FakeClipboard>(lines);
    }
    std::shared_ptr<FileTransferring> makeFileTransfer(std::shared_ptr<VDAgentChannel>) override {
        return transfer = std::make_shared<FakeTransfer>(lines);
    }
    void noteGuestTools(const UUID&, std::uint32_t capabilities) override {
        lines.push_back("tools " + std::to_string(capabilities));
    }
    void removeGuestTools(const UUID&) override { lines.emplace_back("no tools"); }

    Lines lines;
    std::shared_ptr<FakeChannel> channel;
    std::shared_ptr<FakeClipboard> clipboard;
    std::shared_ptr<FakeTransfer> transfer;
};

class GuestAgentSessionTest : public testing::Test {
  protected:
    void connect(bool sharesClipboard = true, bool acceptsFileDrops = true) {
        session_->connect({VNCChannel{"/v"}, "/a", {sharesClipboard, acceptsFileDrops, UUID::random()}});
        host_.settle();
    }
    void becomeReady(std::uint32_t capabilities = newTools) {
        agents_.channel->connected.succeed();
        agents_.channel->capabilities = capabilities;
        agents_.channel->onReady(capabilities);
        host_.settle();
    }
    /// Connects to an agent that is ready; what was written by then is forgotten.
    void share(std::uint32_t capabilities = newTools) {
        connect();
        becomeReady(capabilities);
        lines();
    }
    void receive(Message::Kind message) {
        agents_.channel->onMessage(std::move(message));
        host_.settle();
    }
    /// What was written since the last call.
    Lines lines() { return std::exchange(agents_.lines, {}); }

    TestRuntime host_{TestRuntime::TimeMode::manual};
    LogCapture log_;
    FakeDisplayTransportMaker transports_;
    FakeAgents agents_;
    std::shared_ptr<VNCSession> session_ =
        std::make_shared<VNCSession>(host_.runtime(), transports_, &agents_, &agents_);
};

TEST_F(GuestAgentSessionTest, startsWhatTheMachineSharesOnceTheAgentIsReady) {
    const struct {
        bool clipboard, drops;
        Lines expected;
    } cases[] = {
        {true, true, {"tools 5", "start with files"}},
        {true, false, {"tools 5", "start"}},
        {false, true, {"tools 5"}},
    };
    for (const auto& each : cases) {
        connect(each.clipboard, each.drops);
        EXPECT_EQ(agents_.channel->connectTimeout, seconds(10));
        EXPECT_FALSE(session_->canAcceptFileDrops());
        lines();
        becomeReady(5);
        EXPECT_EQ(lines(), each.expected);
        EXPECT_EQ(session_->canAcceptFileDrops(), each.drops);
        session_->disconnect();
    }
}

TEST_F(GuestAgentSessionTest, handsMessagesToThoseWhoTakeThem) {
    connect(false);
    becomeReady();
    receive(Message::ClipboardData{Format::fileList, toBytes("f")});
    EXPECT_EQ(log_.lines().size(), 1U) << "told without a shared clipboard too";
    session_->disconnect();
    share();
    const struct {
        Message::Kind message;
        Lines expected;
    } cases[] = {
        {Message::ClipboardGrab{{Format::png, Format::bmp, Format::utf8Text}}, {"guest grabs 0 1"}},
        {Message::ClipboardRequest{Format::fileList}, {"guest requests 2"}},
        {Message::ClipboardRequest{Format::tiff}, {}},
        {Message::ClipboardData{Format::utf8Text, toBytes("t")}, {"guest text t"}},
        {Message::ClipboardData{Format::png, toBytes("p")}, {"guest image p"}},
        {Message::ClipboardData{Format::fileList, toBytes("f")}, {}},
        {Message::ClipboardRelease{}, {"guest releases"}},
        {Message::FileTransferStatus{7, VDAgentFileTransferStatus::success}, {"status 7 3"}},
        {Message::Capabilities{true, 1}, {}},
        {Message::Ignored{1}, {}},
    };
    for (const auto& each : cases) {
        receive(each.message);
        EXPECT_EQ(lines(), each.expected) << each.message.index();
    }
    EXPECT_EQ(log_.lines().size(), 2U);
    EXPECT_TRUE(log_.contains("客体发来了文件剪贴板内容,反方向没有实现,已丢弃"));
}

TEST_F(GuestAgentSessionTest, sendsTheHostsClipboard) {
    share();
    auto& clipboard = *agents_.clipboard;
    clipboard.onAnnounce({HostClipboardKind::text, HostClipboardKind::files});
    clipboard.onRequest(HostClipboardKind::image);
    clipboard.onProvideText("text");
    clipboard.onProvideImage(asBytes("png"));
    clipboard.onProvideFiles(asBytes("list"));
    EXPECT_EQ(lines(), (Lines{"send grab 1 6", "send request 2", "send text as 1", "send png as 2",
                              "send list as 6"}));
    EXPECT_FALSE(session_->fileDrop());
    clipboard.onFilesDeclined("too many");
    EXPECT_EQ(session_->fileDrop(), (FileDropPresentation{std::nullopt, "too many", true, true}));
}

TEST_F(GuestAgentSessionTest, outdatedToolsAreToldOnceAndGetNoFiles) {
    share(0);
    agents_.clipboard->onAnnounce({HostClipboardKind::files});
    agents_.clipboard->onAnnounce({HostClipboardKind::text, HostClipboardKind::files});
    EXPECT_EQ(lines(), (Lines{"send grab 1"}));
    ASSERT_TRUE(session_->fileDrop());
    EXPECT_EQ(session_->fileDrop()->message,
              "The guest tools inside Windows are out of date, so pasting files there does nothing. Close "
              "this window and run Install-Dorvane-Drivers in Windows");
    session_->dismissFileDrop();
    session_->disconnect();
    share(0);
    agents_.clipboard->onAnnounce({HostClipboardKind::files});
    EXPECT_FALSE(session_->fileDrop());
    // An agent may come back with newer tools.
    agents_.channel->capabilities = newTools;
    lines();
    agents_.clipboard->onAnnounce({HostClipboardKind::files});
    EXPECT_EQ(lines(), (Lines{"send grab 6"}));
}

TEST_F(GuestAgentSessionTest, pasteKeepsTheStartMenuClosedOnlyWhenCommandIsHeld) {
    connect();
    session_->pasteFiles({"/a"});
    becomeReady();
    lines();
    auto& keys = transports_.latest().events;
    session_->pasteFiles({});
    session_->pasteFiles({"/a"});
    EXPECT_TRUE(keys.empty());
    session_->sendKey(commandKey, true);
    session_->pasteFiles({});
    EXPECT_EQ(keys, (Lines{"key ffeb down"}));
    session_->pasteFiles({"/b", "/c"});
    EXPECT_EQ(keys, (Lines{"key ffeb down", "key ffe3 down", "key ffe3 up"}));
    EXPECT_EQ(lines(), (Lines{"enqueue /a", "enqueue /b", "enqueue /c"}));
}

TEST_F(GuestAgentSessionTest, showsHowATransferGoes) {
    share();
    auto& transfer = *agents_.transfer;
    const FileTransferProgress progress{"a.txt", 1, 2, 10, 100};
    session_->pasteFiles({"/a.txt", "/b.txt"});
    transfer.onProgress(progress);
    EXPECT_EQ(session_->fileDrop(), (FileDropPresentation{progress, std::nullopt, false, false}));
    transfer.onItemFinished({}, std::make_exception_ptr(std::runtime_error("no room")));
    transfer.onProgress(progress);
    transfer.onItemFinished({}, nullptr);
    EXPECT_EQ(session_->fileDrop(), (FileDropPresentation{progress, "no room", true, false}));
    transfer.onQueueDrained();
    EXPECT_EQ(session_->fileDrop(), (FileDropPresentation{std::nullopt, "no room", true, true}));
    session_->pasteFiles({"/c.txt"});
    transfer.onQueueDrained();
    EXPECT_EQ(session_->fileDrop(), (FileDropPresentation{std::nullopt, std::nullopt, false, true}));
}

TEST_F(GuestAgentSessionTest, failedOrEndedChannelLeavesTheDisplayAlone) {
    connect();
    transports_.latest().onFrame(FakeDisplayTransport::makeFrame(1, 1));
    agents_.channel->connected.fail(std::runtime_error("nobody there"));
    host_.settle();
    EXPECT_TRUE(log_.contains("客体 agent 通道不可用: nobody there"));
    EXPECT_TRUE(session_->isConnected());
    EXPECT_FALSE(session_->failureReason());
    becomeReady();
    lines();
    agents_.channel->onDisconnect(nullptr);
    host_.settle();
    EXPECT_EQ(lines(), (Lines{"no tools", "stop", "agent disconnected"}));
    EXPECT_FALSE(session_->canAcceptFileDrops());
    EXPECT_TRUE(session_->isConnected());
}

TEST_F(GuestAgentSessionTest, disconnectEndsEverythingAndLateCallbacksAreNotHeard) {
    share();
    session_->pasteFiles({"/a"});
    agents_.transfer->onProgress({"a", 1, 1, 0, 1});
    lines();
    const auto channel = agents_.channel;
    const auto clipboard = agents_.clipboard;
    session_->disconnect();
    EXPECT_EQ(lines(), (Lines{"cancel", "stop", "close channel", "no tools"}));
    EXPECT_FALSE(session_->fileDrop());
    EXPECT_FALSE(session_->canAcceptFileDrops());
    channel->onReady(newTools);
    channel->onMessage(Message::ClipboardRelease{});
    channel->onDisconnect(nullptr);
    clipboard->onProvideText("late");
    host_.settle();
    EXPECT_TRUE(lines().empty());
}

TEST_F(GuestAgentSessionTest, connectEndsWhatAnEarlierGuestShared) {
    share();
    transports_.latest().connected.succeed();
    host_.settle();
    connect(false, false);
    EXPECT_EQ(lines(), (Lines{"cancel", "stop", "close channel", "no tools", "channel /a"}));
    becomeReady();
    EXPECT_FALSE(session_->canAcceptFileDrops());
    receive(Message::ClipboardRelease{});
    EXPECT_EQ(lines(), (Lines{"tools " + std::to_string(newTools)}));
}

TEST_F(GuestAgentSessionTest, viewMayDropOrRestartItWhileItDisconnects) {
    share();
    for (int observer = 0; observer < 3; ++observer) session_->changed.connect([this] { session_.reset(); });
    session_->disconnect();
    EXPECT_EQ(session_, nullptr);

    session_ = std::make_shared<VNCSession>(host_.runtime(), transports_, &agents_, &agents_);
    share();
    bool restarted = false;
    session_->changed.connect([&] {
        if (!std::exchange(restarted, true)) session_->connect({VNCChannel{"/other.sock"}, std::nullopt, {}});
    });
    session_->disconnect();
    EXPECT_EQ(transports_.channels.back(), GuestDisplayChannel(VNCChannel{"/other.sock"}));
    transports_.latest().onFrame(FakeDisplayTransport::makeFrame(1, 1));
    host_.settle();
    EXPECT_TRUE(session_->isConnected());
    EXPECT_FALSE(transports_.latest().isClosed);
}

TEST_F(GuestAgentSessionTest, viewMayDropItOnceItsTransferIsCancelled) {
    share();
    agents_.transfer->onProgress({"a", 1, 1, 0, 1});
    session_->changed.connect([this] { session_.reset(); });
    session_->dismissFileDrop();
    EXPECT_EQ(session_, nullptr);
}

TEST_F(GuestAgentSessionTest, viewMayDisconnectFromInsideATransfersReport) {
    share();
    session_->changed.connect([this] {
        if (session_->fileDrop()) session_->disconnect();
    });
    const std::weak_ptr<FakeTransfer> transfer = agents_.transfer;
    transfer.lock()->onProgress({"a", 1, 1, 0, 1});
    EXPECT_FALSE(session_->fileDrop());
    agents_.transfer.reset();
    host_.settle();
    EXPECT_TRUE(transfer.expired());
}

}  // namespace
}  // namespace dorvane::test
