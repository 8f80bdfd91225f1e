// SPDX-License-Identifier: Apache-2.0
#include "display/session/VNCSession.h"

#include "core/DorvaneError.h"

namespace dorvane {
namespace {

constexpr auto connectTimeout = seconds(15);
constexpr int maximumReconnectAttempts = 3;
constexpr auto firstReconnectDelay = seconds(1);  // doubles each time

constexpr std::uint32_t leftSuper = 0xFFEB, rightSuper = 0xFFEC;
constexpr GuestKey leftControl{0xFFE3, 59};

}  // namespace

/// The newest frame on its way to the main thread.
struct VNCSession::FrameSlot {
    std::mutex mutex;
    FramePointer frame;

    /// False when an earlier one still waited: whoever brought it will find this one.
    bool put(FramePointer newest) {
        const std::lock_guard lock(mutex);
        const bool wasEmpty = frame == nullptr;
        frame = std::move(newest);
        return wasEmpty;
    }
    FramePointer take() {
        const std::lock_guard lock(mutex);
        return std::exchange(frame, nullptr);
    }
};

VNCSession::VNCSession(const Runtime& runtime, GuestDisplayTransportMaking& transports,
                       GuestAgentChannelMaking* agents, GuestToolsRegistering* guestTools)
    : runtime_(runtime),
      transports_(transports),
      agent_(std::make_shared<GuestAgentSession>(runtime, agents, guestTools)) {
    agent_->onChange = [this] {
        const auto self = shared_from_this();  // as in connect
        changed();
    };
}

VNCSession::~VNCSession() {
    agent_->onChange = nullptr;
    changed.disconnect_all_slots();
    endConnection();
}

/// A callback that may come on any thread and acts on the main one, while the present connection is still in
/// use.
template <typename Action>
auto VNCSession::onMain(Action action) {
    return [weak = weak_from_this(), &main = runtime_.main, generation = generation_,
            action](auto... arguments) {
        main.async([=] {
            const auto self = weak.lock();
            if (self && self->generation_ == generation) action(*self, arguments...);
        });
    };
}

void VNCSession::connect(Target target) {
    runtime_.main.assertIsolated();
    if (isConnecting_) return;
    const auto self = shared_from_this();  // an observer may drop it, and the signal has work behind the last
    endConnection();
    lastConnect_ = std::move(target);
    failureReason_.reset();
    frame_ = nullptr;
    guestCursor_.reset();
    try {
        connection_ = transports_.makeTransport(lastConnect_->channel);
    } catch (...) {
        connectFailed(std::current_exception());  // this build has none for the channel
        return;
    }
    listenTo(*connection_);
    isConnecting_ = true;
    connectTask_ = spawn(runtime_.main.executor(),
                         connectTransport(weak_from_this(), connection_, generation_), "connectDisplay");
    if (lastConnect_->agentSocketPath) agent_->open(*lastConnect_->agentSocketPath, lastConnect_->agent);
    changed();
}

void VNCSession::listenTo(GuestDisplayTransport& transport) {
    const auto slot = std::make_shared<FrameSlot>();
    const auto bringFrame = onMain([slot](VNCSession& self) { self.show(slot->take()); });
    transport.onFrame = [slot, bringFrame](FramePointer frame) {
        if (slot->put(std::move(frame))) bringFrame();
    };
    transport.onResize = onMain([](VNCSession& self, int width, int height) {
        self.guestSize_ = {width, height};
        self.changed();
    });
    transport.onCursor = onMain([](VNCSession& self, const std::optional<GuestCursor>& cursor) {
        self.guestCursor_ = cursor;
        self.changed();
    });
    transport.onDisconnect =
        onMain([](VNCSession& self, const std::exception_ptr& error) { self.connectionWasLost(error); });
}

Task<void> VNCSession::connectTransport(std::weak_ptr<VNCSession> session,
                                        std::shared_ptr<GuestDisplayTransport> transport,
                                        std::uint64_t generation) {
    std::exception_ptr failure;
    try {
        co_await transport->connect(connectTimeout);
    } catch (...) {
        failure = std::current_exception();
    }
    const auto self = session.lock();
    if (!self || self->generation_ != generation) co_return;
    self->isConnecting_ = false;
    if (failure) self->connectFailed(failure);
}

void VNCSession::show(FramePointer frame) {
    frame_ = std::move(frame);
    reconnectAttempts_ = 0;
    const bool isFirst = !std::exchange(isConnected_, true);
    const Size size{frame_->width, frame_->height};
    const bool isResized = std::exchange(guestSize_, size) != size;
    if (isFirst || isResized) changed();
    frameChanged();
}

void VNCSession::connectFailed(const std::exception_ptr& error) {
    if (reconnectAttempts_ > 0) {
        connectionWasLost(error);
        return;
    }
    failureReason_ = localizedDescription(error);
    logger_.error("画面连接失败: %{public}s", *failureReason_);
    changed();
}

void VNCSession::connectionWasLost(const std::exception_ptr& error) {
    isConnected_ = false;
    failureReason_ =
        error ? localizedDescription(error) : localized("The connection to the VM display was closed.");
    logger_.error("画面连接中断: %{public}s", *failureReason_);
    if (reconnectAttempts_ < maximumReconnectAttempts) scheduleReconnect();
    changed();
}

void VNCSession::scheduleReconnect() {
    const auto delay = firstReconnectDelay * (1 << reconnectAttempts_++);
    reconnectTimer_ = runtime_.clock.schedule(
        runtime_.main.executor(), delay, [weak = weak_from_this(), generation = generation_] {
            const auto self = weak.lock();
            if (self && self->generation_ == generation && !self->isConnected_ && self->lastConnect_)
                self->reconnect();
        });
}

void VNCSession::reconnect() {
    const auto expected = generation_ + 1;
    disconnect();
    // An observer may have had another idea.
    if (generation_ == expected) connect(*lastConnect_);
}

void VNCSession::disconnect() {
    const auto self = shared_from_this();  // as in connect
    endConnection();
    changed();
}

/// Tells nobody: an observer that acts on a half-ended connection would have its doing undone by the rest.
void VNCSession::endConnection() {
    ++generation_;
    agent_->close();
    releaseHeldKeys();
    connectTask_ = TaskHandle();
    isConnecting_ = false;
    if (const auto connection = std::exchange(connection_, nullptr)) connection->close();
    isConnected_ = false;
}

void VNCSession::sendPointer(std::uint8_t buttonMask, int x, int y) {
    if (connection_) connection_->sendPointer(buttonMask, x, y);
}

void VNCSession::sendKey(const GuestKey& key, bool down) {
    if (down)
        pressedKeys_.insert(key);
    else
        pressedKeys_.erase(key);
    if (connection_) connection_->sendKey(key, down);
}

void VNCSession::sendKeyCombination(const std::vector<GuestKey>& keys) {
    for (const auto& key : keys) sendKey(key, true);
    for (auto index = keys.size(); index > 0; --index) sendKey(keys[index - 1], false);
}

void VNCSession::releaseHeldKeys() {
    for (const auto& key : std::exchange(pressedKeys_, {}))
        if (connection_) connection_->sendKey(key, false);
}

void VNCSession::pasteFiles(const std::vector<Path>& files) {
    if (!canAcceptFileDrops() || files.empty()) return;
    suppressStartMenu();
    agent_->enqueue(files);
}

/// The user pasted with Command held, which the guest sees as its Windows key: going up by itself, it would
/// open the Start menu. A tap of Control in between prevents that.
void VNCSession::suppressStartMenu() {
    const bool isCommandHeld = std::ranges::any_of(pressedKeys_, [](const GuestKey& key) {
        return key.keysym == leftSuper || key.keysym == rightSuper;
    });
    if (isCommandHeld) sendKeyCombination({leftControl});
}

}  // namespace dorvane
