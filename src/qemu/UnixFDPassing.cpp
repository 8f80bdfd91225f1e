// SPDX-License-Identifier: Apache-2.0
#include "qemu/UnixFDPassing.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/uio.h>

#include <algorithm>
#include <cstring>

#include "runtime/SystemError.h"

namespace dorvane {
namespace {

/// The control block of the descriptors, in the host's own layout; empty when there are none.
Bytes controlBlock(std::span<const int> descriptors) {
    if (descriptors.empty()) return {};
    Bytes block(CMSG_SPACE(descriptors.size_bytes()), 0);
    cmsghdr header{};
    header.cmsg_len = CMSG_LEN(descriptors.size_bytes());
    header.cmsg_level = SOL_SOCKET;
    header.cmsg_type = SCM_RIGHTS;
    std::memcpy(block.data(), &header, sizeof header);
    std::memcpy(block.data() + CMSG_LEN(0), descriptors.data(), descriptors.size_bytes());
    return block;
}

/// One send of what remains; the control block goes with it unless empty.
std::size_t sendSome(int fd, ByteView rest, Bytes& control) {
    iovec piece{const_cast<std::uint8_t*>(rest.data()), rest.size()};
    msghdr message{};
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    if (!control.empty()) {
        message.msg_control = control.data();
        message.msg_controllen = control.size();
    }
    // A peer that has gone shows as EPIPE and not as a signal; one that reads nothing can't hold this thread
    // here.
    const auto count = ::sendmsg(fd, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (count > 0) return static_cast<std::size_t>(count);
    const int number = count < 0 ? errno : EPIPE;
    if (number == EINTR || number == EAGAIN || number == EWOULDBLOCK) return 0;
    throw POSIXError(number != 0 ? number : EPIPE);
}

void waitWritable(int fd, Duration stall) {
    pollfd entry{fd, POLLOUT, 0};
    const auto limit = std::chrono::ceil<std::chrono::milliseconds>(stall).count();
    if (::poll(&entry, 1, static_cast<int>(limit)) == 0) throw POSIXError(EAGAIN);
}

}  // namespace

void UnixFDPassing::sendAll(int fd, ByteView data, std::span<const int> descriptors, Duration stall) {
    auto control = controlBlock(descriptors);
    while (!data.empty()) {
        waitWritable(fd, stall);
        const auto count = sendSome(fd, data, control);
        if (count > 0) control.clear();
        data = data.subspan(count);
    }
}

std::vector<FileDescriptor> UnixFDPassing::receivedFDs(const msghdr& message) {
    std::vector<FileDescriptor> result;
    const auto* const control = static_cast<const std::uint8_t*>(message.msg_control);
    const std::size_t size = control != nullptr ? message.msg_controllen : 0;
    for (std::size_t offset = 0; offset <= size && size - offset >= sizeof(cmsghdr);) {
        cmsghdr header{};
        std::memcpy(&header, control + offset, sizeof header);
        if (header.cmsg_len < CMSG_LEN(0)) break;
        const auto end = std::min(static_cast<std::size_t>(header.cmsg_len), size - offset);
        if (header.cmsg_level == SOL_SOCKET && header.cmsg_type == SCM_RIGHTS) {
            for (std::size_t at = CMSG_LEN(0); at <= end && end - at >= sizeof(int); at += sizeof(int)) {
                int fd = -1;
                std::memcpy(&fd, control + offset + at, sizeof fd);
                ::fcntl(fd, F_SETFD, FD_CLOEXEC);
                result.emplace_back(fd);
            }
        }
        if (end < header.cmsg_len) break;
        offset += CMSG_ALIGN(header.cmsg_len);
    }
    return result;
}

}  // namespace dorvane
