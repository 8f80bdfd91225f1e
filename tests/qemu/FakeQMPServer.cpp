// SPDX-License-Identifier: Apache-2.0
#include "qemu/FakeQMPServer.h"

#include <sys/socket.h>

#include "qemu/UnixFDPassing.h"
#include "runtime/Sockets.h"

namespace dorvane::test {

FakeQMPServer::FakeQMPServer(const Runtime& runtime, const Path& socket)
    : queue_(runtime.makeQueue("test.qmp-server")),
      listener_(queue_, listenUnixSocket(socket.string()), [this] { acceptClient(); }) {}

std::string FakeQMPServer::result(const JSON& command, const std::string& payload) {
    return R"({"return": )" + payload + R"(, "id": )" + command.at("id").dump() + "}\r\n";
}

std::optional<std::string> FakeQMPServer::agree(const JSON& command) { return result(command, "{}"); }

void FakeQMPServer::send(const std::string& text) {
    UnixFDPassing::sendAll(client_->descriptor(), asBytes(text));
}

void FakeQMPServer::hangUp() { client_.reset(); }

bool FakeQMPServer::sawEndOfStream() const { return sawEndOfStream_; }

void FakeQMPServer::acceptClient() {
    FileDescriptor fd(::accept4(listener_.descriptor(), nullptr, nullptr, SOCK_CLOEXEC));
    client_ = std::make_unique<ReadSource>(queue_, std::move(fd), [this] { readClient(); });
    send(R"({"QMP": {"version": {"qemu": {"major": 11, "minor": 1, "micro": 3}}, "capabilities": []}})"
         "\r\n");
}

void FakeQMPServer::readClient() {
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

}  // namespace dorvane::test
