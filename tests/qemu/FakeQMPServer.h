// SPDX-License-Identifier: Apache-2.0
// A QMP server on a real Unix socket, run by the test's own thread.
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <optional>

#include "base/JSON.h"
#include "qemu/QMPLineBuffer.h"
#include "qemu/UnixFDPassing.h"
#include "runtime/Files.h"
#include "runtime/ReadSource.h"
#include "runtime/Runtime.h"
#include "runtime/Sockets.h"

namespace dorvane::test {

/// Greets, keeps what it is told, and answers as `answer` says. Takes one client after the other.
class FakeQMPServer {
  public:
    /// The raw text to send for a command; absent: no answer.
    using Answer = std::function<std::optional<std::string>(const JSON& command)>;

    FakeQMPServer(const Runtime& runtime, const Path& socket)
        : queue_(runtime.makeQueue("test.qmp-server")),
          listener_(queue_, listenUnixSocket(socket.string()), [this] { acceptClient(); }) {}

    static std::string result(const JSON& command, const std::string& payload) {
        return R"({"return": )" + payload + R"(, "id": )" + command.at("id").dump() + "}\r\n";
    }
    static std::optional<std::string> agree(const JSON& command) { return result(command, "{}"); }

    void send(const std::string& text) { UnixFDPassing::sendAll(client_->descriptor(), asBytes(text)); }
    void hangUp() { client_.reset(); }
    bool sawEndOfStream() const { return sawEndOfStream_; }

    Answer answer = agree;
    std::vector<JSON> commands;
    std::vector<FileDescriptor> descriptors;

  private:
    void acceptClient() {
        FileDescriptor fd(::accept4(listener_.descriptor(), nullptr, nullptr, SOCK_CLOEXEC));
        client_ = std::make_unique<ReadSource>(queue_, std::move(fd), [this] { readClient(); });
        send(R"({"QMP": {"version": {"qemu": {"major": 11, "minor": 1, "micro": 3}}, "capabilities": []}})"
             "\r\n");
    }

    void readClient() {
        Bytes bytes(4096), control(256);
        iovec piece{bytes.data(), bytes.size()};
        msghdr message{};
        message.msg_iov = &piece;
        message.msg_iovlen = 1;
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        const auto count = ::recvmsg(client_->descriptor(), &message, 0);
        if (count <= 0) {
            sawEndOfStream_ = true;
            client_.reset();
            return;
        }
        for (auto& fd : UnixFDPassing::receivedFDs(message)) descriptors.push_back(std::move(fd));
        for (const auto& line : buffer_.append({bytes.data(), static_cast<std::size_t>(count)})) {
            commands.push_back(parseJSON(line));
            const auto text = answer(commands.back());
            if (text && client_) send(*text);
        }
    }

    SerialQueue queue_;
    ReadSource listener_;
    std::unique_ptr<ReadSource> client_;
    QMPLineBuffer buffer_;
    bool sawEndOfStream_ = false;
};

}  // namespace dorvane::test
