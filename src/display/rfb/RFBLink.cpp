// SPDX-License-Identifier: Apache-2.0
#include "display/rfb/RFBLink.h"

#include <sys/socket.h>

#include "display/PCScanCodeMap.h"
#include "runtime/Sockets.h"
#include "runtime/Timeout.h"

namespace dorvane {
namespace {

constexpr Duration retryInterval = milliseconds(200);
constexpr Duration handshakeReadLimit = seconds(5);
constexpr std::size_t handshakeReadBytes = 4'096;
constexpr int socketBufferBytes = 8'388'608;
constexpr std::size_t socketPathLimit = 104;  // as told to the user, with the terminating zero
constexpr int readsPerTurn = 128;
// A server that reads nothing for so long gets no more pointer events: each tells the whole state, so the
// next one that it does get makes up for them. A lost request or key would stay lost, and these are few.
constexpr std::size_t maximumOutboxBytes = 1'048'576;
// Each update asks for the next one, so a server that sends and never reads would fill the memory.
constexpr std::size_t lostOutboxBytes = 2 * maximumOutboxBytes;

/// None when nobody listens (yet), or the server hangs and its backlog is full.
FileDescriptor tryConnect(const std::string& path) {
    try {
        auto fd = connectUnixSocketWithoutWaiting(path);
        for (const int option : {SO_RCVBUF, SO_SNDBUF})
            ::setsockopt(fd.get(), SOL_SOCKET, option, &socketBufferBytes, sizeof socketBufferBytes);
        return fd;
    } catch (const POSIXError&) {
        return {};
    }
}

int receiveBufferBytes(int fd) {
    int bytes = 0;
    socklen_t length = sizeof bytes;
    ::getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, &length);
    return bytes;
}

RFBConnectionError readFailed(int number) {
    return RFBConnectionError::handshakeFailed(formatted("Read failed (errno %d).", number));
}

/// The log line for an exception that came out of the stream.
const char* failureLine(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const TightDecoder::DecodeError&) {
        return "Tight 解码失败: %{public}s";
    } catch (const ZRLEDecoder::DecodeError&) {
        return "ZRLE 解码失败: %{public}s";
    } catch (...) {
        return "VNC 流解析失败: %{public}s";
    }
}

}  // namespace

RFBLink::RFBLink(const Runtime& runtime, std::string socketPath, std::vector<RFBEncoding> encodings)
    : runtime_(runtime),
      queue_(runtime.makeQueue("com.dorvane.vnc")),
      socketPath_(std::move(socketPath)),
      encodings_(std::move(encodings)) {}

Task<void> RFBLink::open(std::shared_ptr<RFBLink> self, Callbacks callbacks, Duration timeout) {
    if (self->socketPath_.size() > maximumSocketPathBytes)
        throw RFBConnectionError::socketPathTooLong(self->socketPath_, socketPathLimit);
    const auto deadline = self->runtime_.clock.now() + timeout;
    self->reset(std::move(callbacks));
    std::exception_ptr failure;
    try {
        co_await self->establish(deadline);
    } catch (...) {
        failure = std::current_exception();
    }
    if (!failure) co_return;
    const bool wasClosed = self->state_ == State::closed && !isCancellation(failure);
    self->state_ = State::closed;
    if (self->socket_) self->socket_->close();
    if (wasClosed) throw RFBConnectionError::connectionClosed();
    std::rethrow_exception(failure);
}

void RFBLink::reset(Callbacks callbacks) {
    callbacks_ = std::move(callbacks);
    state_ = State::connecting;
    socket_.reset();
    received_.clear();
    outbox_.clear();
    isFlushing_ = false;
    extendedKeyEvents_ = false;
}

Task<void> RFBLink::establish(Instant deadline) {
    auto fd = co_await openSocket(deadline);
    logger_.info("画面 socket 接收缓冲 %{public}d KiB", receiveBufferBytes(fd.get()) / 1024);
    socket_ = std::make_shared<StreamConnection>(queue_, std::move(fd), AF_UNIX);
    const auto server = co_await shakeHands();
    throwIfClosed();
    logger_.info("VNC connected: %{public}s %hux%hu bpp=%hhu", server.name, server.width, server.height,
                 int{server.format.bitsPerPixel});
    startStreaming(server);
}

Task<FileDescriptor> RFBLink::openSocket(Instant deadline) {
    while (runtime_.clock.now() < deadline) {
        auto fd = tryConnect(socketPath_);
        if (fd) co_return fd;
        co_await runtime_.clock.sleep(retryInterval);
        throwIfClosed();
    }
    throw RFBConnectionError::socketUnavailable(socketPath_);
}

Task<RFBHandshake::ServerInit> RFBLink::shakeHands() {
    RFBHandshake handshake(encodings_);
    while (!handshake.isFinished()) {
        co_await readHandshake();
        Bytes answer;
        const auto taken = handshake.consume(received_, answer);
        received_.erase(received_.begin(), received_.begin() + std::ptrdiff_t(taken));
        co_await writeHandshake(answer);
    }
    co_return handshake.serverInit();
}

Task<void> RFBLink::readHandshake() {
    std::optional<std::size_t> count;
    try {
        count = co_await withTimeout(runtime_.clock, handshakeReadLimit,
                                     socket_->read(received_, handshakeReadBytes));
    } catch (const POSIXError& error) {
        throw readFailed(error.number());
    }
    if (!count) throw readFailed(EAGAIN);
    if (*count == 0) throw RFBConnectionError::connectionClosed();
}

Task<void> RFBLink::writeHandshake(const Bytes& answer) {
    try {
        co_await socket_->write(answer);
    } catch (const POSIXError&) {
        throw RFBConnectionError::connectionClosed();
    }
}

void RFBLink::throwIfClosed() const {
    if (state_ == State::closed) throw RFBConnectionError::connectionClosed();
}

void RFBLink::startStreaming(const RFBHandshake::ServerInit& server) {
    state_ = State::streaming;
    stats_ = {.windowStart = runtime_.clock.now()};
    lastFinish_ = updateHeader_ = {};
    framebuffer_.resize(server.width, server.height);
    RFBStreamHandler& handler = *this;
    stream_.emplace(framebuffer_, handler);
    requestUpdate(false);
    spawn(executor(), receive(shared_from_this()), "RFBLink.receive").detach();
}

Task<void> RFBLink::receive(std::shared_ptr<RFBLink> self) {
    const auto socket = self->socket_;
    try {
        const auto early = std::exchange(self->received_, {});
        self->stream_->feed(early);
        while (self->isStreaming(socket)) {
            co_await socket->waitReadable();
            if (self->isStreaming(socket)) self->drainSocket();
        }
    } catch (...) {
        if (self->isStreaming(socket)) self->fail(std::current_exception());
    }
}

bool RFBLink::isStreaming(const std::shared_ptr<StreamConnection>& socket) const {
    return state_ == State::streaming && socket_ == socket;
}

/// Reads what there is, but not for so long that others on the same thread have to wait.
void RFBLink::drainSocket() {
    for (int turn = 0; turn < readsPerTurn; ++turn) {
        const auto spans = stream_->prepare();
        const auto count = ::readv(socket_->descriptor(), spans.data(), static_cast<int>(spans.size()));
        if (count > 0) {
            stats_.socketBytes += std::size_t(count);
            commit(std::size_t(count));
        } else if (count == 0) {
            return finish(nullptr);
        } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            return;
        } else if (errno != EINTR) {
            return finish(std::make_exception_ptr(RFBConnectionError::connectionClosed()));
        }
    }
}

void RFBLink::commit(std::size_t count) {
    const auto start = runtime_.clock.now();
    imageTime_ = {};
    stream_->commit(count);
    stats_.applyTime += runtime_.clock.now() - start - imageTime_;
}

void RFBLink::fail(std::exception_ptr error) {
    logger_.error(failureLine(error), errorText(error));
    finish(std::move(error));
}

void RFBLink::finish(std::exception_ptr error) {
    if (state_ != State::streaming) return;
    state_ = State::closed;
    socket_->close();
    if (error) logger_.error("VNC 连接结束: %{public}s", errorText(error));
    tell(callbacks_.onDisconnect, std::move(error));
}

void RFBLink::close() {
    queue_.async([self = shared_from_this()] {
        if (self->state_ == State::streaming) return self->finish(nullptr);
        self->state_ = State::closed;
        if (self->socket_) self->socket_->close();
    });
}

void RFBLink::abandon() {
    isAbandoned_ = true;
    queue_.async([self = shared_from_this()] { self->callbacks_ = {}; });
    close();
}

void RFBLink::send(RFBClientMessage message) {
    queue_.async([weak = weak_from_this(), message = std::move(message)] {
        if (const auto self = weak.lock()) self->sendNow(message);
    });
}

void RFBLink::sendKey(const GuestKey& key, bool down) {
    const auto scanCode = extendedKeyEvents_ ? PCScanCodeMap::scanCode(key.keyCode) : std::nullopt;
    if (scanCode) {
        send({RFBClientMessage::QEMUExtendedKeyEvent{down, key.keysym, *scanCode}});
    } else if (key.keysym != 0) {
        send({RFBClientMessage::KeyEvent{down, key.keysym}});
    }
}

void RFBLink::sendNow(const RFBClientMessage& message) {
    if (state_ != State::streaming) return;
    const bool isPointer = std::holds_alternative<RFBClientMessage::PointerEvent>(message.content);
    if (isPointer && outbox_.size() > maximumOutboxBytes) return;
    const auto bytes = message.encoded();
    outbox_.insert(outbox_.end(), bytes.begin(), bytes.end());
    if (isFlushing_) return;
    const auto count =
        ::send(socket_->descriptor(), outbox_.data(), outbox_.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (count > 0) outbox_.erase(outbox_.begin(), outbox_.begin() + count);
    if (outbox_.empty()) return;
    isFlushing_ = true;
    spawn(executor(), flush(shared_from_this()), "RFBLink.flush").detach();
}

/// Writes what the socket had no room for, as it gets room.
Task<void> RFBLink::flush(std::shared_ptr<RFBLink> self) {
    const auto socket = self->socket_;
    try {
        while (self->isStreaming(socket) && !self->outbox_.empty()) {
            const auto batch = std::exchange(self->outbox_, {});
            co_await socket->write(batch);
        }
    } catch (const POSIXError&) {
        // The receiving side sees the broken socket too.
    }
    if (self->socket_ == socket) self->isFlushing_ = false;
}

void RFBLink::requestUpdate(bool incremental) {
    if (framebuffer_.width() < 1 || framebuffer_.height() < 1) return;
    if (outbox_.size() > lostOutboxBytes)
        throw RFBConnectionError::handshakeFailed("The VM display does not read what it is sent.");
    sendNow({RFBClientMessage::FramebufferUpdateRequest{incremental, 0, 0, framebuffer_.width(),
                                                        framebuffer_.height()}});
}

void RFBLink::updateBegan(int rectangleCount) {
    updateHeader_ = runtime_.clock.now();
    if (lastFinish_ != Instant{}) stats_.idleWaitTime += updateHeader_ - lastFinish_;
    stats_.rects += std::uint64_t(rectangleCount);
    requestUpdate(true);
}

void RFBLink::updateFinished(bool didTouchPixels) {
    const auto now = runtime_.clock.now();
    stats_.receiveTime += now - updateHeader_;
    if (didTouchPixels) {
        auto image = framebuffer_.makeImage();
        const auto duration = runtime_.clock.now() - now;
        imageTime_ += duration;
        stats_.imageTime += duration;
        ++stats_.frames;
        if (image) tell(callbacks_.onFrame, std::move(image));
    }
    lastFinish_ = runtime_.clock.now();
    stats_.reportIfDue(lastFinish_, logger_);
}

void RFBLink::desktopResized(int width, int height) {
    tell(callbacks_.onResize, width, height);
    requestUpdate(false);
}

}  // namespace dorvane
