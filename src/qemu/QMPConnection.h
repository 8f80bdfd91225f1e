// SPDX-License-Identifier: Apache-2.0
// The client of one QMP control socket.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "base/UUID.h"
#include "qemu/QMPLineBuffer.h"
#include "qemu/QMPMessage.h"
#include "runtime/Logger.h"
#include "runtime/ReadSource.h"
#include "runtime/Runtime.h"

namespace dorvane {

/// Used once: made as a shared_ptr, connected, closed. All operations may be called from any thread; the
/// state is touched only on the queue "com.dorvane.qmp". Commands are matched to answers by id and several
/// may be in flight. When the last owner drops it, it closes without telling its observers.
class QMPConnection : public std::enable_shared_from_this<QMPConnection> {
  public:
    class ConnectionError;
    using EventHandler = std::function<void(const QMPMessage&)>;

    explicit QMPConnection(const Runtime& runtime);
    ~QMPConnection();
    QMPConnection(const QMPConnection&) = delete;
    QMPConnection& operator=(const QMPConnection&) = delete;

    /// Tries the socket every 200 ms until `timeout` has passed, then negotiates capabilities. Throws
    /// ConnectionError: socketPathTooLong at once; socketUnavailable at the deadline; peerExited when
    /// `isPeerAlive` (called on the caller's executor) says no after a failed try; what "qmp_capabilities"
    /// gives.
    Task<void> connect(std::string socketPath, Duration timeout, std::function<bool()> isPeerAlive = {});

    /// Sends a command and returns its answer's payload (a list stands under "_items"). Arguments that are
    /// null or an empty object are left out. The descriptor in `passing` goes along; it stays open and the
    /// caller's, to be closed after this returned. Throws ConnectionError: commandFailed with QEMU's words,
    /// commandTimedOut (QEMU may still perform the command), connectionClosed. A cancelled caller gets
    /// CancellationError; a command already sent is not taken back.
    Task<QMPObject> execute(std::string command, JSON arguments, Duration timeout, int passing = -1);

    /// The handler runs on the queue, for events only, and must not block. Its last event is named
    /// QMPMessage::disconnectedEventName. Registered in order with other operations.
    UUID observeEvents(EventHandler handler);
    void removeObserver(UUID id);

    /// Ends the connection and returns when it has: commands in flight fail with connectionClosed, observers
    /// see the last event. Twice does nothing.
    Task<void> close();
    /// The same begun by a synchronous caller, who needn't wait: an operation begun later finds the
    /// connection closed, and an observer removed before sees nothing of it. The object lives until it is
    /// done.
    void closeNow();

  private:
    using Answer = OneShot<QMPObject>;
    struct Pending {
        Answer answer;
        Timer deadline;
    };
    struct Command;

    Task<FileDescriptor> openSocket(std::string socketPath, Duration timeout,
                                    std::function<bool()> isPeerAlive);
    void beginReading(FileDescriptor fd);
    void readAvailable();
    void dispatch(const std::string& line);
    void deliver(const QMPMessage& event);
    void send(const Command& command);
    std::optional<Answer> takePending(const std::string& id);
    void disconnect();

    Clock& clock_;
    SerialQueue queue_;
    Logger logger_{"QMPConnection"};
    std::shared_ptr<ReadSource> readSource_;
    QMPLineBuffer buffer_;
    std::map<std::string, Pending> pending_;
    std::map<UUID, EventHandler> eventHandlers_;
    std::int64_t nextCommandID_ = 0;
    bool isClosed_ = false;
};

/// What can go wrong on the way to QEMU; `what()` is the sentence for the user.
class QMPConnection::ConnectionError : public std::runtime_error {
  public:
    enum class Case {
        socketPathTooLong,
        socketUnavailable,
        commandFailed,
        commandTimedOut,
        peerExited,
        connectionClosed,
    };

    static ConnectionError socketPathTooLong(const std::string& path, std::size_t limit);
    static ConnectionError socketUnavailable(const std::string& path);
    static ConnectionError commandFailed(const std::string& message);
    static ConnectionError commandTimedOut(const std::string& command);
    static ConnectionError peerExited();
    static ConnectionError connectionClosed();

    Case which() const { return which_; }

  private:
    ConnectionError(Case which, const std::string& description);

    Case which_;
};

}  // namespace dorvane
