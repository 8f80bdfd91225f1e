// SPDX-License-Identifier: Apache-2.0
#include "automation/RawClient.h"

#include <arpa/inet.h>
#include <sys/socket.h>

namespace dorvane::test {

RawClient::RawClient(int port) : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    isConnected_ = ::connect(fd_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    setNonBlocking(fd_.get(), true);
}

bool RawClient::isConnected() const { return isConnected_; }

std::size_t RawClient::send(std::string_view text) {
    const auto sent = ::send(fd_.get(), text.data(), text.size(), MSG_NOSIGNAL);
    return sent < 0 ? 0 : static_cast<std::size_t>(sent);
}

void RawClient::endSending() { ::shutdown(fd_.get(), SHUT_WR); }

void RawClient::close() { fd_.reset(); }

void RawClient::abort() {
    const linger now{1, 0};
    ::setsockopt(fd_.get(), SOL_SOCKET, SO_LINGER, &now, sizeof now);
    fd_.reset();
}

void RawClient::pump() {
    char buffer[65536];
    ssize_t count = 0;
    while ((count = ::recv(fd_.get(), buffer, sizeof buffer, 0)) > 0)
        received_.append(buffer, static_cast<std::size_t>(count));
    if (count == 0) isEnded_ = true;
    if (count < 0 && errno != EAGAIN) isEnded_ = wasReset_ = true;
}

bool RawClient::isEnded() {
    pump();
    return isEnded_;
}

bool RawClient::wasReset() const { return wasReset_; }

const std::string& RawClient::received() const { return received_; }

}  // namespace dorvane::test
