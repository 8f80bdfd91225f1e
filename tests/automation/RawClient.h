// SPDX-License-Identifier: Apache-2.0
// The other end of a loopback connection, driven from the test's own thread.
#pragma once

#include <arpa/inet.h>
#include <sys/socket.h>

#include <string>

#include "runtime/Sockets.h"

namespace dorvane::test {

/// Never blocks: `isEnded` takes in what has arrived.
class RawClient {
  public:
    explicit RawClient(int port) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        isConnected = ::connect(fd_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
        setNonBlocking(fd_.get(), true);
    }

    /// How many bytes the kernel took.
    std::size_t send(std::string_view text) {
        const auto sent = ::send(fd_.get(), text.data(), text.size(), MSG_NOSIGNAL);
        return sent < 0 ? 0 : static_cast<std::size_t>(sent);
    }
    void endSending() { ::shutdown(fd_.get(), SHUT_WR); }
    void close() { fd_.reset(); }
    /// Closes with a reset instead of a polite end.
    void abort() {
        const linger now{1, 0};
        ::setsockopt(fd_.get(), SOL_SOCKET, SO_LINGER, &now, sizeof now);
        fd_.reset();
    }
    /// The server has closed its side.
    bool isEnded() {
        char buffer[65536];
        ssize_t count = 0;
        while ((count = ::recv(fd_.get(), buffer, sizeof buffer, 0)) > 0)
            received.append(buffer, static_cast<std::size_t>(count));
        wasReset = wasReset || (count < 0 && errno != EAGAIN);
        isEnded_ = isEnded_ || wasReset || count == 0;
        return isEnded_;
    }

    std::string received;
    bool isConnected = false, wasReset = false;

  private:
    FileDescriptor fd_{::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    bool isEnded_ = false;
};

}  // namespace dorvane::test
