// SPDX-License-Identifier: Apache-2.0
// The agent channel beside a guest's display: clipboard and file drops.
#pragma once

#include "display/session/FileDropPresentation.h"
#include "display/session/GuestAgentChannelMaking.h"
#include "runtime/Logger.h"
#include "runtime/Runtime.h"
#include "runtime/TaskHandle.h"

namespace dorvane {

/// Main thread only; held by a shared pointer. Its failures are logged and never reach the display. Without a
/// maker (a build without the agent protocol) it does nothing at all.
class GuestAgentSession : public std::enable_shared_from_this<GuestAgentSession> {
  public:
    struct Options {
        bool sharesClipboard = false;
        bool acceptsFileDrops = false;
        std::optional<UUID> vmID;
        bool operator==(const Options&) const = default;
    };

    /// The arguments outlive it; both pointers may be null.
    GuestAgentSession(const Runtime& runtime, GuestAgentChannelMaking* making,
                      GuestToolsRegistering* registry)
        : runtime_(runtime), making_(making), registry_(registry) {}

    /// Something of the published fields changed.
    std::function<void()> onChange;
    bool canAcceptFileDrops() const { return canAcceptFileDrops_; }
    const std::optional<FileDropPresentation>& fileDrop() const { return fileDrop_; }

    /// Begins to connect, once an earlier channel is closed; nothing is published before the guest's agent is
    /// ready.
    void open(const std::string& socketPath, Options options);
    /// Cancels transfers, ends the channel and clears what was published. Twice does nothing. `onChange` is
    /// left to the caller, who has more to end.
    void close();
    /// Queues files for the guest; only while it can accept them.
    void enqueue(const std::vector<Path>& files);
    /// The user has seen the message, or wants the transfer to stop.
    void dismissFileDrop();

  private:
    template <typename Action>
    auto whileOpen(Action action);
    template <typename Action>
    auto onMain(Action action);
    static Task<void> connectChannel(std::weak_ptr<GuestAgentSession> session,
                                     std::shared_ptr<VDAgentChannel> channel, std::uint64_t generation);
    void becameReady(std::uint32_t capabilities);
    void startClipboard();
    void startFileTransfers();
    void endClipboardAndTransfers();
    void handleAgent(const VDAgentIncomingMessage::Kind& message);
    void handleClipboardData(const VDAgentIncomingMessage::ClipboardData& data);
    void announce(const std::set<HostClipboardKind>& kinds);
    void channelEnded();
    void show(FileDropPresentation presentation);
    void changed() const;

    const Runtime& runtime_;
    GuestAgentChannelMaking* making_;
    GuestToolsRegistering* registry_;
    Logger logger_{"VNCSession"};
    std::shared_ptr<VDAgentChannel> channel_;
    TaskHandle connectTask_;
    std::shared_ptr<ClipboardBridging> clipboard_;
    std::shared_ptr<FileTransferring> fileTransfer_;
    Options options_;
    std::uint64_t generation_ = 0;  // makes callbacks of an earlier channel harmless
    bool didWarnAboutOutdatedGuestTools_ = false;
    bool canAcceptFileDrops_ = false;
    std::optional<FileDropPresentation> fileDrop_;
};

}  // namespace dorvane
