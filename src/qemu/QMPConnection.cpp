// SPDX-License-Identifier: Apache-2.0
#include "qemu/QMPConnection.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <utility>

#include "qemu/QMPCodec.h"
#include "qemu/UnixFDPassing.h"
#include "runtime/Sockets.h"

namespace dorvane {
namespace {

constexpr auto connectInterval = milliseconds(200);
constexpr auto capabilitiesTimeout = seconds(10);
constexpr std::size_t readBytes = 8192;

using Error = QMPConnection::ConnectionError;

}  // namespace

/// What `execute` hands over to the queue.
struct QMPConnection::Command {
    std::string name;
    JSON arguments;
    Duration timeout;
    std::shared_ptr<const FileDescriptor> passing;  // null: none
    Answer answer;
};

QMPConnection::QMPConnection(const Runtime& runtime)
    : clock_(runtime.clock), queue_(runtime.makeQueue("com.dorvane.qmp")) {}

QMPConnection::~QMPConnection() {
    // The source may only be cancelled on its queue, and the last owner may be anywhere.
    if (readSource_) queue_.async([source = std::move(readSource_)] { source->cancel(); });
    for (auto& [id, waiting] : pending_) waiting.answer.fail(Error::connectionClosed());
}

Task<void> QMPConnection::connect(std::string socketPath, Duration timeout,
                                  std::function<bool()> isPeerAlive) {
    const auto self = shared_from_this();
    if (socketPath.size() > maximumSocketPathBytes)
        throw Error::socketPathTooLong(socketPath, maximumSocketPathBytes + 1);
    auto opened = co_await openSocket(socketPath, timeout, std::move(isPeerAlive));
    const auto socket = std::make_shared<FileDescriptor>(std::move(opened));
    queue_.async([self, socket] { self->beginReading(std::move(*socket)); });
    // The greeting that comes first carries no id, so the dispatcher passes over it.
    co_await execute("qmp_capabilities", nullptr, capabilitiesTimeout);
    logger_.info("QMP connected: %{public}s", socketPath);
}

Task<FileDescriptor> QMPConnection::openSocket(std::string socketPath, Duration timeout,
                                               std::function<bool()> isPeerAlive) {
    const auto deadline = clock_.now() + timeout;
    while (clock_.now() <= deadline) {
        try {
            co_return connectUnixSocketWithoutWaiting(socketPath);
        } catch (const POSIXError&) {
            // Nobody listens yet.
        }
        if (isPeerAlive && !isPeerAlive()) throw Error::peerExited();
        co_await clock_.sleep(connectInterval);
    }
    throw Error::socketUnavailable(socketPath);
}

void QMPConnection::beginReading(FileDescriptor fd) {
    if (isClosed_) return;
    readSource_ = std::make_shared<ReadSource>(queue_, std::move(fd), [weak = weak_from_this()] {
        if (const auto self = weak.lock()) self->readAvailable();
    });
}

void QMPConnection::readAvailable() {
    std::array<std::uint8_t, readBytes> bytes;
    const auto count = ::read(readSource_->descriptor(), bytes.data(), bytes.size());
    if (count < 0 && (errno == EINTR || errno == EAGAIN)) return;
    if (count < 1) return disconnect();
    for (const auto& line : buffer_.append({bytes.data(), static_cast<std::size_t>(count)})) dispatch(line);
    if (!buffer_.isOverflowing()) return;
    logger_.error("A QMP line is longer than %lld bytes; closing the connection",
                  QMPLineBuffer::maximumPendingBytes);
    disconnect();
}

void QMPConnection::dispatch(const std::string& line) {
    QMPMessage message;
    try {
        message = QMPCodec::decode(line);
    } catch (const QMPCodec::DecodeError&) {
        logger_.error("忽略无法解析的 QMP 行");
        return;
    }
    if (message.event() != nullptr) return deliver(message);
    if (const auto* result = std::get_if<QMPMessage::Result>(&message.kind);
        result != nullptr && result->id) {
        if (const auto answer = takePending(*result->id)) answer->succeed(result->payload);
    } else if (const auto* error = std::get_if<QMPMessage::Error>(&message.kind);
               error != nullptr && error->id) {
        if (const auto answer = takePending(*error->id)) answer->fail(Error::commandFailed(error->message));
    }
}

void QMPConnection::deliver(const QMPMessage& event) {
    for (const auto& [id, handler] : eventHandlers_) {
        try {
            handler(event);
        } catch (...) {
            // An observer's failure is not the connection's.
            logger_.error("An observer of QMP events failed: %{public}s",
                          errorText(std::current_exception()));
        }
    }
}

std::optional<QMPConnection::Answer> QMPConnection::takePending(const std::string& id) {
    const auto found = pending_.find(id);
    if (found == pending_.end()) return std::nullopt;
    auto answer = found->second.answer;
    pending_.erase(found);
    return answer;
}

Task<QMPObject> QMPConnection::execute(std::string command, JSON arguments, Duration timeout, int passing) {
    const auto self = shared_from_this();
    Command request{std::move(command), std::move(arguments), timeout, nullptr, {}};
    if (passing >= 0) {
        // A copy: a cancelled caller may close its own before the queue comes to the send.
        request.passing = std::make_shared<const FileDescriptor>(::fcntl(passing, F_DUPFD_CLOEXEC, 0));
        if (!*request.passing) throw Error::connectionClosed();
    }
    const auto answer = request.answer;
    queue_.async([self, request = std::move(request)] { self->send(request); });
    co_return co_await answer.wait();
}

void QMPConnection::send(const Command& command) {
    if (isClosed_ || !readSource_) {
        command.answer.fail(Error::connectionClosed());
        return;
    }
    const auto id = "dorvane-" + std::to_string(++nextCommandID_);
    const auto expire = [weak = weak_from_this(), id, name = command.name] {
        const auto self = weak.lock();
        const auto answer = self ? self->takePending(id) : std::nullopt;
        if (answer) answer->fail(Error::commandTimedOut(name));
    };
    pending_.emplace(id, Pending{command.answer, queue_.after(clock_, command.timeout, expire)});
    std::vector<int> descriptors;
    if (command.passing) descriptors.push_back(command.passing->get());
    try {
        UnixFDPassing::sendAll(readSource_->descriptor(),
                               asBytes(QMPCodec::encode(command.name, command.arguments, id)), descriptors);
    } catch (const POSIXError& error) {
        if (const auto answer = takePending(id)) answer->fail(Error::connectionClosed());
        // Part of a command may be on its way, and what followed it could not be told from it.
        if (error.number() == EAGAIN) disconnect();
    }
}

UUID QMPConnection::observeEvents(EventHandler handler) {
    const auto id = UUID::random();
    queue_.async([self = shared_from_this(), id, handler = std::move(handler)] {
        self->eventHandlers_.emplace(id, handler);
    });
    return id;
}

void QMPConnection::removeObserver(UUID id) {
    queue_.async([self = shared_from_this(), id] { self->eventHandlers_.erase(id); });
}

Task<void> QMPConnection::close() {
    const OneShot<void> done;
    queue_.async([self = shared_from_this(), done] {
        self->disconnect();
        done.succeed();
    });
    co_await done.wait();
}

void QMPConnection::closeNow() {
    queue_.async([self = shared_from_this()] { self->disconnect(); });
}

void QMPConnection::disconnect() {
    if (isClosed_) return;
    isClosed_ = true;
    if (readSource_) readSource_->cancel();
    readSource_.reset();
    for (auto& [id, waiting] : std::exchange(pending_, {})) waiting.answer.fail(Error::connectionClosed());
    deliver({QMPMessage::Event{QMPMessage::disconnectedEventName, {}}});
}

QMPConnection::ConnectionError::ConnectionError(Case which, const std::string& description)
    : std::runtime_error(description), which_(which) {}

Error Error::socketPathTooLong(const std::string& path, std::size_t limit) {
    return {Case::socketPathTooLong,
            localized("The VM control socket path is too long (%lld bytes, limit %lld): %@", path.size(),
                      limit, path)};
}

Error Error::socketUnavailable(const std::string& path) {
    return {Case::socketUnavailable, localized("Could not connect to the VM control socket at %@.", path)};
}

Error Error::commandFailed(const std::string& message) { return {Case::commandFailed, message}; }

Error Error::commandTimedOut(const std::string& command) {
    return {Case::commandTimedOut,
            localized("The VM did not respond to the control command \"%@\" in time.", command)};
}

Error Error::peerExited() {
    return {Case::peerExited, localized("The VM process exited before its control socket became available.")};
}

Error Error::connectionClosed() {
    return {Case::connectionClosed, localized("The VM control connection was closed.")};
}

}  // namespace dorvane
