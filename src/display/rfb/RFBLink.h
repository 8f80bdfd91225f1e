// SPDX-License-Identifier: Apache-2.0
// The socket half of an RFB connection: opens it, feeds the stream from it, writes to it, and ends it once.
#pragma once

#include <atomic>
#include <vector>

#include "display/rfb/DisplayStats.h"
#include "display/rfb/RFBConnectionError.h"
#include "display/rfb/RFBHandshake.h"
#include "display/rfb/RFBStream.h"
#include "runtime/Runtime.h"
#include "runtime/StreamConnection.h"

namespace dorvane {

/// | state      | event                        | next       | and                                   |
/// | idle       | open                         | connecting |                                       |
/// | connecting | handshake done               | streaming  | asks for the whole screen             |
/// | connecting | failure                      | closed     | `open` throws                         |
/// | connecting | close                        | closed     | `open` throws connectionClosed        |
/// | streaming  | end of stream, error, close  | closed     | `finish` tells onDisconnect, once     |
/// | closed     | open                         | connecting |                                       |
///
/// All state belongs to the queue, but for the two atomic flags. The tasks hold the link; it ends them by
/// closing the socket, at the latest in `abandon`.
class RFBLink : public std::enable_shared_from_this<RFBLink>, private RFBStreamHandler {
  public:
    struct Callbacks {
        std::function<void(FramePointer)> onFrame;
        std::function<void(int width, int height)> onResize;
        std::function<void(std::exception_ptr)> onDisconnect;
    };

    RFBLink(const Runtime& runtime, std::string socketPath, std::vector<RFBEncoding> encodings);

    Executor executor() const { return queue_.executor(); }
    /// On the queue. Returns once the stream has begun. Throws RFBConnectionError.
    static Task<void> open(std::shared_ptr<RFBLink> self, Callbacks callbacks, Duration timeout);

    // From any thread.
    void send(RFBClientMessage message);
    void sendKey(const GuestKey& key, bool down);
    void close();
    /// Closes without telling anybody: at most the callback that is running now still finishes.
    void abandon();

  private:
    enum class State { idle, connecting, streaming, closed };

    // The steps of `open`, whose frame holds the link.
    void reset(Callbacks callbacks);
    Task<void> establish(Instant deadline);
    Task<FileDescriptor> openSocket(Instant deadline);
    Task<RFBHandshake::ServerInit> shakeHands();
    Task<void> readHandshake();
    Task<void> writeHandshake(const Bytes& answer);
    void throwIfClosed() const;
    void startStreaming(const RFBHandshake::ServerInit& server);

    static Task<void> receive(std::shared_ptr<RFBLink> self);
    bool isStreaming(const std::shared_ptr<StreamConnection>& socket) const;
    void drainSocket();
    void commit(std::size_t count);
    void fail(std::exception_ptr error);
    void finish(std::exception_ptr error);
    /// One read may hold several updates, so being abandoned counts between them too.
    template <typename Callback, typename... Arguments>
    void tell(const Callback& callback, Arguments... arguments) const {
        if (callback && !isAbandoned_) callback(std::move(arguments)...);
    }

    void sendNow(const RFBClientMessage& message);
    static Task<void> flush(std::shared_ptr<RFBLink> self);
    void requestUpdate(bool incremental);

    void updateBegan(int rectangleCount) override;
    void updateFinished(bool didTouchPixels) override;
    void desktopResized(int width, int height) override;
    void extendedKeyEventsSupported() override { extendedKeyEvents_ = true; }
    void cursorReceived() override { ++stats_.cursorRects; }

    const Runtime& runtime_;
    SerialQueue queue_;
    Logger logger_{"RFBConnection"};
    const std::string socketPath_;
    const std::vector<RFBEncoding> encodings_;
    Callbacks callbacks_;
    State state_ = State::idle;
    std::shared_ptr<StreamConnection> socket_;
    Bytes received_;  // during the handshake, and what came behind it
    RFBFramebuffer framebuffer_;
    std::optional<RFBStream> stream_;
    Bytes outbox_;
    bool isFlushing_ = false;
    DisplayStats stats_;
    Duration imageTime_{};  // of this commit; a report in its midst begins the statistics anew
    Instant lastFinish_{}, updateHeader_{};
    std::atomic<bool> extendedKeyEvents_ = false, isAbandoned_ = false;
};

}  // namespace dorvane
