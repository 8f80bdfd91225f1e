// SPDX-License-Identifier: Apache-2.0
// What a display view talks to while it shows a QEMU guest, over whichever transport.
#pragma once

#include <set>

#include "display/GuestDisplayTransport.h"
#include "display/session/GuestAgentSession.h"
#include "runtime/Signal.h"

namespace dorvane {

/// Idle, connecting, connected, retrying or failed:
///
///   connect()                 → connecting; a second one meanwhile is ignored
///   first frame               → connected; the count of retries starts anew
///   connect fails, no retry → failed, with its reason
///   connection lost, or a retry fails → retrying after 1, 2 and 4 seconds, then failed
///   disconnect()              → idle; nothing of the old connection is heard any more
///
/// Main thread only. Made with std::make_shared; a view may drop it, or call it, from inside a signal.
/// Dropping it disconnects.
class VNCSession : public std::enable_shared_from_this<VNCSession> {
  public:
    struct Size {
        int width = 0;
        int height = 0;
        bool operator==(const Size&) const = default;
    };
    /// The arguments of `connect`, kept for the retries.
    struct Target {
        GuestDisplayChannel channel;
        std::optional<std::string> agentSocketPath;
        GuestAgentSession::Options agent;
    };

    /// `agents` and `guestTools` may be null: then there is no clipboard and no file drop. All outlive the
    /// session.
    VNCSession(const Runtime& runtime, GuestDisplayTransportMaking& transports,
               GuestAgentChannelMaking* agents, GuestToolsRegistering* guestTools);
    ~VNCSession();
    VNCSession(const VNCSession&) = delete;
    VNCSession& operator=(const VNCSession&) = delete;

    void connect(Target target);
    void disconnect();

    /// Guest pixels.
    void sendPointer(std::uint8_t buttonMask, int x, int y);
    void sendKey(const GuestKey& key, bool down);
    /// Presses in order, releases in reverse order.
    void sendKeyCombination(const std::vector<GuestKey>& keys);
    /// For a view that loses the keyboard: no key stays down in the guest.
    void releaseHeldKeys();
    /// Sends files to the guest's agent; nothing without files or without an agent that takes them.
    void pasteFiles(const std::vector<Path>& files);
    void dismissFileDrop() { agent_->dismissFileDrop(); }

    /// The latest picture; kept when the connection is lost, dropped at the next `connect`.
    const FramePointer& frame() const { return frame_; }
    Size guestSize() const { return guestSize_; }
    bool isConnected() const { return isConnected_; }
    const std::optional<std::string>& failureReason() const { return failureReason_; }
    bool canAcceptFileDrops() const { return agent_->canAcceptFileDrops(); }
    const std::optional<FileDropPresentation>& fileDrop() const { return agent_->fileDrop(); }
    const std::optional<GuestCursor>& guestCursor() const { return guestCursor_; }

    /// `frame` changed. A guest that draws faster than the main thread shows only brings the newest one.
    Signal<> frameChanged;
    /// Any other of the fields above changed.
    Signal<> changed;

  private:
    struct FrameSlot;

    void listenTo(GuestDisplayTransport& transport);
    template <typename Action>
    auto onMain(Action action);
    static Task<void> connectTransport(std::weak_ptr<VNCSession> session,
                                       std::shared_ptr<GuestDisplayTransport> transport,
                                       std::uint64_t generation);
    void show(FramePointer frame);
    void connectFailed(const std::exception_ptr& error);
    void connectionWasLost(const std::exception_ptr& error);
    void scheduleReconnect();
    void reconnect();
    void endConnection();
    void suppressStartMenu();

    const Runtime& runtime_;
    GuestDisplayTransportMaking& transports_;
    Logger logger_{"VNCSession"};
    std::shared_ptr<GuestAgentSession> agent_;

    FramePointer frame_;
    Size guestSize_;
    bool isConnected_ = false;
    std::optional<std::string> failureReason_;
    std::optional<GuestCursor> guestCursor_;

    std::shared_ptr<GuestDisplayTransport> connection_;
    TaskHandle connectTask_;
    bool isConnecting_ = false;
    Timer reconnectTimer_;
    std::set<GuestKey> pressedKeys_;
    std::optional<Target> lastConnect_;
    std::uint64_t generation_ = 0;  // rises at every connect and disconnect
    int reconnectAttempts_ = 0;
};

}  // namespace dorvane
