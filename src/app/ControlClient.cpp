// SPDX-License-Identifier: Apache-2.0
#include "app/ControlClient.h"

#include <sys/socket.h>
#include <unistd.h>

#include <array>

#include "runtime/Sockets.h"

namespace dorvane {
namespace {

FileDescriptor connectService(const Path& socket) {
    try {
        return connectUnixSocket(socket.string());
    } catch (const POSIXError& error) {
        if (error.number() == ENOENT || error.number() == ECONNREFUSED) throw ServiceNotRunning();
        throw POSIXError("Could not reach Dorvane at " + socket.string(), error.number());
    }
}

void sendAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const auto count = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) throw POSIXError("The connection to Dorvane was lost", errno);
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
}

ControlProgress progressFrom(const JSON& params) {
    const JSONReader reader(params);
    return {reader.optional<std::string>("message").value_or(""), reader.optional<double>("fraction")};
}

}  // namespace

ControlClient::ControlClient(const Path& socket) : fd_(connectService(socket)) {}

std::string ControlClient::readLine() {
    while (lines_.empty()) {
        std::array<char, 65536> chunk{};
        const auto count = ::read(fd_.get(), chunk.data(), chunk.size());
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0)
            throw POSIXError("The connection to Dorvane was lost", count == 0 ? ECONNRESET : errno);
        lines_ = buffer_.append({chunk.data(), static_cast<std::size_t>(count)});
    }
    auto line = std::move(lines_.front());
    lines_.erase(lines_.begin());
    return line;
}

JSON ControlClient::call(const std::string& method, const JSON& params,
                         const std::function<void(const ControlProgress&)>& onProgress) {
    const JSON id = ++nextID_;
    sendAll(fd_.get(), controlRequestLine({id, method, params}));
    for (;;) {
        auto message = parseJSON(readLine());
        if (message.value("method", "") == "progress") {
            if (onProgress) onProgress(progressFrom(message["params"]));
            continue;
        }
        if (message.value("id", JSON()) != id && !message.value("id", JSON()).is_null()) continue;
        if (const auto error = message.find("error"); error != message.end())
            throw ControlError(static_cast<ControlErrorCode>(error->value("code", -32000)),
                               error->value("message", "The service gave no reason."));
        return message.value("result", JSON());
    }
}

}  // namespace dorvane
