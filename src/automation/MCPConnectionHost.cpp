// SPDX-License-Identifier: Apache-2.0
#include "automation/MCPConnectionHost.h"

#include <poll.h>
#include <sys/socket.h>

#include "automation/MCPAuthToken.h"
#include "runtime/Sockets.h"
#include "runtime/Timeout.h"

namespace dorvane {
namespace {

constexpr std::size_t receiveSize = 65536;
/// Enough for most requests.
constexpr std::size_t firstReceiveSize = 4096;
/// Between two tries to accept while the process has no descriptors left.
constexpr auto acceptRetryInterval = milliseconds(100);

bool isPassing(int number) {
    return number == EMFILE || number == ENFILE || number == ENOBUFS || number == ENOMEM;
}

/// What has arrived already. A client sends its request at once, so that most connections need no waiting at
/// all.
ByteView receiveNow(StreamConnection& connection, Bytes& into) {
    into.resize(firstReceiveSize);
    const auto count = ::recv(connection.descriptor(), into.data(), into.size(), MSG_DONTWAIT);
    into.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    return into;
}

/// How many bytes the system took without waiting.
std::size_t sendNow(StreamConnection& connection, std::string_view bytes) {
    const auto sent =
        ::send(connection.descriptor(), bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    return sent > 0 ? static_cast<std::size_t>(sent) : 0;
}

void endSending(StreamConnection& connection) { ::shutdown(connection.descriptor(), SHUT_WR); }

/// Closing a socket with unread bytes resets it, and a reset may overtake the response.
void dropArrivedBytes(StreamConnection& connection) {
    constexpr int maximumRounds = 64;
    std::uint8_t dropped[4096];
    for (int round = 0; round < maximumRounds; ++round)
        if (::recv(connection.descriptor(), dropped, sizeof dropped, MSG_DONTWAIT) <= 0) return;
}

/// Reset by the client, as opposed to one that has only ended its sending.
bool isBroken(StreamConnection& connection) {
    pollfd watched{connection.descriptor(), 0, 0};
    return ::poll(&watched, 1, 0) > 0 && (watched.revents & (POLLERR | POLLHUP)) != 0;
}

Task<bool> readToEnd(std::shared_ptr<StreamConnection> connection) {
    Bytes dropped;
    for (;;) {
        dropped.clear();
        const auto count = co_await connection->read(dropped, receiveSize);
        if (count == 0) co_return true;
    }
}

}  // namespace

/// A connection's place among the open ones.
class MCPConnectionHost::Slot {
  public:
    Slot(Self host, Connection connection) : host_(std::move(host)), connection_(std::move(connection)) {
        host_->slots_.insert(this);
    }
    Slot(const Slot&) = delete;
    Slot& operator=(const Slot&) = delete;
    ~Slot() { host_->slots_.erase(this); }

    bool isReset() const { return isBroken(*connection_); }

  private:
    Self host_;
    Connection connection_;
};

MCPConnectionHost::MCPConnectionHost(const Runtime& runtime, std::shared_ptr<LockedString> token,
                                     Responder responder)
    : runtime_(runtime),
      networkQueue_(runtime.makeQueue("com.dorvane.app.mcp-server")),
      deadlines_(std::make_shared<ReceiveDeadlines>(networkQueue_, runtime.clock, receiveDeadline)),
      tokenForNetwork_(std::move(token)),
      responder_(std::move(responder)) {}

void MCPConnectionHost::listen(std::uint16_t port, ListenerEvents events) {
    networkQueue_.async([self = shared_from_this(), port, events = std::move(events)]() mutable {
        self->openListener(port, std::move(events));
    });
}

void MCPConnectionHost::stopListening() {
    networkQueue_.async([self = shared_from_this()] { self->closeListener(); });
}

void MCPConnectionHost::endAll() {
    networkQueue_.async([self = shared_from_this()] {
        self->closeListener();
        self->connectionTasks_.clear();
    });
}

Task<void> MCPConnectionHost::shutdown() {
    return onExecutor(networkQueue_.executor(), endTasks(shared_from_this()));
}

Task<void> MCPConnectionHost::endTasks(Self self) {
    self->closeListener();
    auto tasks = std::exchange(self->connectionTasks_, {});
    for (auto& task : tasks) task.cancel();
    for (auto& task : tasks) co_await task.finished();
}

void MCPConnectionHost::openListener(std::uint16_t port, ListenerEvents events) {
    closeListener();
    try {
        listener_ = std::make_shared<StreamListener>(networkQueue_, listenLoopback(port), AF_INET);
    } catch (const std::exception& error) {
        events.failed(error.what());
        return;
    }
    events.ready();
    acceptTask_ = spawn(networkQueue_.executor(),
                        acceptConnections(shared_from_this(), listener_, std::move(events)), "MCP listener");
}

void MCPConnectionHost::closeListener() {
    if (const auto listener = std::exchange(listener_, nullptr)) listener->close();
    acceptTask_ = TaskHandle();
}

Task<void> MCPConnectionHost::acceptConnections(Self self, std::shared_ptr<StreamListener> listener,
                                                ListenerEvents events) {
    for (;;) {
        int failure = 0;
        try {
            auto connection = co_await listener->accept();
            self->welcome(std::move(connection));
        } catch (const POSIXError& error) {
            failure = error.number();
        }
        if (failure == ECANCELED) co_return;
        if (isPassing(failure)) {
            co_await self->runtime_.clock.sleep(acceptRetryInterval);
        } else if (failure != 0) {
            listener->close();
            events.failed(errnoText(failure));
            co_return;
        }
    }
}

void MCPConnectionHost::welcome(Connection connection) {
    // A call may take minutes: a client that has reset its connection doesn't keep others out for as long.
    if (slots_.size() >= maximumConnections)
        std::erase_if(slots_, [](Slot* slot) { return slot->isReset(); });
    if (slots_.size() >= maximumConnections) return;
    std::erase_if(connectionTasks_, [](const TaskHandle& task) { return task.isFinished(); });
    const auto self = shared_from_this();
    auto slot = std::make_unique<Slot>(self, connection);
    auto task = serve(self, std::move(connection), std::move(slot));
    connectionTasks_.push_back(spawn(networkQueue_.executor(), std::move(task), "MCP connection"));
}

bool MCPConnectionHost::authorizes(const std::string& path, const HTTPRequestParser::Headers& headers) const {
    return MCPAuthToken::isEndpointPath(path) &&
           MCPAuthToken::isAuthorized(path, headers, tokenForNetwork_->get());
}

Task<void> MCPConnectionHost::serve(Self self, Connection connection, std::unique_ptr<Slot> slot) {
    try {
        co_await converse(self, connection);
    } catch (const POSIXError&) {
        // The client went away or ran out of time; there is nobody left to tell.
    }
    connection->close();
    slot.reset();
}

Task<void> MCPConnectionHost::converse(Self self, Connection connection) {
    using Result = HTTPRequestParser::ParseResult;
    ReceiveDeadline deadline(self->deadlines_, connection);
    HTTPRequestParser parser(
        [host = self.get()](const std::string& path, const HTTPRequestParser::Headers& headers) {
            return host->authorizes(path, headers);
        });
    Bytes received;
    auto result = parser.append(receiveNow(*connection, received));
    while (std::holds_alternative<Result::NeedMoreData>(result)) {
        received.clear();
        const auto count = co_await connection->read(received, receiveSize);
        if (count == 0) co_return;
        result = parser.append(received);
    }
    deadline.setDone();
    if (auto* complete = std::get_if<Result::Complete>(&result))
        co_await answer(self, connection, std::move(complete->request));
    else
        co_await refuse(self, connection, std::holds_alternative<Result::Unauthorized>(result));
}

Task<std::optional<MCPHTTPResponse>> MCPConnectionHost::call(Self self, HTTPRequestParser::Request request) {
    OneShot<std::optional<MCPHTTPResponse>> outcome;
    auto task = deliver(self->responder_(std::move(request)), outcome);
    auto running = spawn(self->runtime_.main.executor(), std::move(task), "MCP request");
    std::exception_ptr failure;
    std::optional<MCPHTTPResponse> response;
    try {
        response = co_await outcome.wait();
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure) {
        running.cancel();
        co_await ignoreCancellation();
        co_await running.finished();
        std::rethrow_exception(failure);
    }
    running.detach();
    co_return response;
}

Task<void> MCPConnectionHost::answer(Self self, Connection connection, HTTPRequestParser::Request request) {
    const auto response = co_await call(self, std::move(request));
    if (!response) co_return;
    const auto bytes = response->serialized();
    const auto sent = sendNow(*connection, bytes);
    if (sent < bytes.size()) co_await connection->write(asBytes(bytes).subspan(sent));
    dropArrivedBytes(*connection);
}

Task<void> MCPConnectionHost::refuse(Self self, Connection connection, bool isUnauthorized) {
    const auto response =
        isUnauthorized ? MCPHTTPResponse::unauthorized() : MCPHTTPResponse::empty(400, "Bad Request");
    const auto bytes = response.serialized();
    co_await connection->write(asBytes(bytes));
    // The client may still be sending the body that nobody wants; it is to see the answer nevertheless.
    endSending(*connection);
    co_await withTimeout(self->runtime_.clock, lingerLimit, readToEnd(connection));
}

}  // namespace dorvane
