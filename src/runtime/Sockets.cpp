// SPDX-License-Identifier: Apache-2.0
#include "runtime/Sockets.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

namespace dorvane {
namespace {

sockaddr_un unixAddress(const std::string& path) {
    if (path.size() > maximumSocketPathBytes) throw POSIXError(path, ENAMETOOLONG);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());
    return address;
}

sockaddr_in loopbackAddress(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

FileDescriptor makeSocket(int family, int flags = 0) {
    FileDescriptor fd(::socket(family, SOCK_STREAM | SOCK_CLOEXEC | flags, 0));
    if (!fd) throw POSIXError(errno);
    return fd;
}

template <typename Address>
const sockaddr* generic(const Address& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

FileDescriptor connectUnix(const std::string& path, int flags) {
    const auto address = unixAddress(path);
    auto fd = makeSocket(AF_UNIX, flags);
    while (::connect(fd.get(), generic(address), sizeof address) != 0)
        if (errno != EINTR) throw POSIXError(errno);
    return fd;
}

}  // namespace

FileDescriptor connectUnixSocket(const std::string& path) { return connectUnix(path, 0); }

FileDescriptor connectUnixSocketWithoutWaiting(const std::string& path) {
    return connectUnix(path, SOCK_NONBLOCK);
}

FileDescriptor listenUnixSocket(const std::string& path, int backlog) {
    const auto address = unixAddress(path);
    auto fd = makeSocket(AF_UNIX);
    // The permissions are narrowed before anyone can connect: there is no listener between bind and listen.
    if (::bind(fd.get(), generic(address), sizeof address) != 0) throw POSIXError(errno);
    if (::chmod(path.c_str(), 0600) != 0 || ::listen(fd.get(), backlog) != 0) {
        const int number = errno;
        ::unlink(path.c_str());
        throw POSIXError(number);
    }
    return fd;
}

FileDescriptor listenLoopback(std::uint16_t port, int backlog) {
    auto fd = makeSocket(AF_INET);
    const int on = 1;
    ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const auto address = loopbackAddress(port);
    if (::bind(fd.get(), generic(address), sizeof address) != 0 || ::listen(fd.get(), backlog) != 0)
        throw POSIXError(errno);
    return fd;
}

std::uint16_t boundPort(int fd) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) throw POSIXError(errno);
    return ntohs(address.sin_port);
}

FileDescriptor reserveLoopbackPort(std::uint16_t port) {
    FileDescriptor fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const auto address = loopbackAddress(port);
    if (!fd || ::bind(fd.get(), generic(address), sizeof address) != 0) return {};
    // Only now: two reservations with address reuse would both succeed.
    const int on = 1;
    ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    return fd;
}

bool isLoopbackPortFree(std::uint16_t port) { return bool(reserveLoopbackPort(port)); }

void setNonBlocking(int fd, bool nonBlocking) {
    const int flags = ::fcntl(fd, F_GETFL);
    if (flags < 0 || ::fcntl(fd, F_SETFL, nonBlocking ? flags | O_NONBLOCK : flags & ~O_NONBLOCK) != 0)
        throw POSIXError(errno);
}

}  // namespace dorvane
