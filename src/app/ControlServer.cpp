// SPDX-License-Identifier: Apache-2.0
#include "app/ControlServer.h"

#include <sys/socket.h>
#include <unistd.h>

#include "core/DorvaneError.h"
#include "runtime/Logger.h"
#include "runtime/Sockets.h"

namespace dorvane {
namespace {

constexpr std::size_t readBytes = 65536;
constexpr auto acceptRetryDelay = milliseconds(100);

FileDescriptor listenFresh(const Path& socket) {
    // The instance lock is held: whoever listened here is gone.
    ::unlink(socket.c_str());
    return listenUnixSocket(socket.string());
}

}  // namespace

/// One client. Bytes live on the queue, requests on the main thread.
class ControlServer::Connection : public std::enable_shared_from_this<Connection> {
  public:
    Connection(const Runtime& runtime, const ControlMethods& methods, SerialQueue queue,
               std::shared_ptr<StreamConnection> stream, std::shared_ptr<void> work)
        : runtime_(runtime),
          methods_(methods),
          work_(std::move(work)),
          queue_(std::move(queue)),
          stream_(std::move(stream)),
          outgoing_(source_.subscribe({})) {}

    /// Starts reading and writing; `onEnd` is called once on the main thread when the client has gone.
    void start(std::function<void()> onEnd) {
        onEnd_ = std::move(onEnd);
        writing_ = spawn(queue_.executor(), write(stream_, outgoing_), "control writer");
        reading_ = spawn(queue_.executor(), read(weak_from_this(), stream_), "control reader");
    }
    /// Withdraws what is running and closes. Main thread.
    void end() {
        for (auto& [id, request] : running_) withdraw(request);
        running_.clear();
        reading_.cancel();
        source_.finish();
        writing_.detach();
        reading_.detach();
    }

  private:
    struct Running {
        std::string method;
        JSON params;
        TaskHandle task;
    };

    static Task<void> write(std::shared_ptr<StreamConnection> stream, AsyncStream<std::string> lines) {
        for (;;) {
            const auto line = co_await lines.next();
            if (!line) break;
            co_await stream->write(asBytes(*line));
        }
        stream->close();
    }

    static Task<void> read(std::weak_ptr<Connection> owner, std::shared_ptr<StreamConnection> stream) {
        ControlLineBuffer buffer;
        try {
            for (;;) {
                Bytes bytes;
                const auto count = co_await stream->read(bytes, readBytes);
                if (count == 0) break;
                deliver(owner, buffer.append(asText(bytes)));
            }
        } catch (const std::exception& error) {
            Logger("ControlServer").debug("A control connection ended: %{public}s", error.what());
        }
        if (const auto self = owner.lock())
            self->runtime_.main.async([owner] {
                if (const auto gone = owner.lock()) gone->onEnd_();
            });
    }

    static void deliver(const std::weak_ptr<Connection>& owner, std::vector<std::string> lines) {
        const auto self = owner.lock();
        if (!self) return;
        for (auto& line : lines)
            self->runtime_.main.async([owner, line = std::move(line)] {
                if (const auto receiver = owner.lock()) receiver->receive(line);
            });
    }

    void receive(const std::string& line) {
        try {
            auto request = parseControlRequest(line);
            const auto method = methods_.find(request.method);
            if (method == methods_.end())
                source_.yield(controlErrorLine(request.id, ControlErrorCode::methodNotFound,
                                               "Unknown method: " + request.method));
            else
                begin(std::move(request), method->second);
        } catch (const ControlError& error) {
            source_.yield(controlErrorLine(nullptr, error.code(), error.what()));
        }
    }

    void begin(ControlRequest request, const ControlMethod& method) {
        const auto number = nextRequest_++;
        const auto report = [weak = weak_from_this()](const ControlProgress& progress) {
            if (const auto self = weak.lock()) self->source_.yield(controlProgressLine(progress));
        };
        running_.emplace(number, Running{request.method, request.params, {}});
        auto work = method.perform(request.params, report);
        auto task =
            spawn(runtime_.main.executor(),
                  answer(weak_from_this(), work_, number, request.id, std::move(work)), request.method);
        // A method that needn't wait has been answered by now.
        if (const auto entry = running_.find(number); entry != running_.end())
            entry->second.task = std::move(task);
    }

    static Task<void> answer(std::weak_ptr<Connection> owner, std::shared_ptr<void> server,
                             std::uint64_t number, JSON id, Task<JSON> work) {
        const auto held = std::move(server);
        std::string line;
        std::exception_ptr failure;
        try {
            line = controlResultLine(id, co_await std::move(work));
        } catch (const ControlError& error) {
            line = controlErrorLine(id, error.code(), error.what());
        } catch (...) {
            failure = std::current_exception();
            line = controlErrorLine(id, ControlErrorCode::operationFailed, describedWithSuggestion(failure));
        }
        const auto self = owner.lock();
        if (!self) co_return;
        self->source_.yield(line);
        if (const auto entry = self->running_.find(number); entry != self->running_.end()) {
            entry->second.task.detach();
            self->running_.erase(entry);
        }
    }

    void withdraw(Running& request) {
        const auto method = methods_.find(request.method);
        if (method == methods_.end() || !method->second.withdraw) return;  // dropping the handle cancels it
        method->second.withdraw(request.params);
        request.task.detach();
    }

    const Runtime& runtime_;
    const ControlMethods& methods_;
    const std::shared_ptr<void> work_;
    SerialQueue queue_;
    std::shared_ptr<StreamConnection> stream_;
    StreamSource<std::string> source_;
    AsyncStream<std::string> outgoing_;
    std::function<void()> onEnd_;
    std::map<std::uint64_t, Running> running_;
    std::uint64_t nextRequest_ = 0;
    TaskHandle writing_, reading_;
};

ControlServer::ControlServer(const Runtime& runtime, Path socket, ControlMethods methods)
    : runtime_(runtime),
      socket_(std::move(socket)),
      methods_(std::move(methods)),
      queue_(runtime.makeQueue("com.dorvane.app.control")),
      listener_(std::make_shared<StreamListener>(queue_, listenFresh(socket_), AF_UNIX)) {
    const auto onAccepted = [this, &main = runtime.main, alive = alive_](const auto& stream) {
        main.async([this, alive, stream] {
            if (*alive) adopt(stream);
        });
    };
    accepting_ =
        spawn(queue_.executor(), acceptConnections(runtime.clock, listener_, onAccepted), "control listener");
}

ControlServer::~ControlServer() {
    *alive_ = false;
    ::unlink(socket_.c_str());
    accepting_.cancel();
    queue_.async([listener = listener_] { listener->close(); });
    for (auto& [id, connection] : connections_) connection->end();
}

Task<void> ControlServer::acceptConnections(
    Clock& clock, std::shared_ptr<StreamListener> listener,
    std::function<void(std::shared_ptr<StreamConnection>)> onAccepted) {
    for (;;) {
        std::shared_ptr<StreamConnection> stream;
        try {
            stream = co_await listener->accept();
        } catch (const POSIXError& error) {
            if (error.number() == ECANCELED) co_return;
            Logger("ControlServer").error("Could not accept a control connection: %{public}s", error.what());
        }
        if (stream)
            onAccepted(std::move(stream));
        else
            co_await clock.sleep(acceptRetryDelay);
    }
}

void ControlServer::adopt(std::shared_ptr<StreamConnection> stream) {
    const auto id = nextConnection_++;
    const auto connection =
        std::make_shared<Connection>(runtime_, methods_, queue_, std::move(stream), work_);
    connections_.emplace(id, connection);
    connection->start([this, alive = alive_, id] {
        if (!*alive) return;
        connections_.at(id)->end();
        connections_.erase(id);
    });
}

}  // namespace dorvane
