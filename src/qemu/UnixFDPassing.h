// SPDX-License-Identifier: Apache-2.0
// Bytes with descriptors attached, over a Unix stream socket.
#pragma once

#include <sys/socket.h>

#include <span>
#include <vector>

#include "base/Bytes.h"
#include "runtime/Clock.h"
#include "runtime/FileDescriptor.h"

namespace dorvane {

/// Stateless; safe on any thread.
struct UnixFDPassing {
    /// How long one send may wait for a peer that reads nothing: it holds a thread of the pool for that long.
    static constexpr Duration maximumStall = seconds(2);

    /// Writes all of `data`; `descriptors` go with its first byte, exactly once, and stay open and the
    /// caller's. Empty data sends nothing, descriptors neither. Throws POSIXError; EAGAIN when the peer took
    /// nothing for `stall`, and then part of the data may be on its way.
    static void sendAll(int fd, ByteView data, std::span<const int> descriptors = {},
                        Duration stall = maximumStall);

    /// The descriptors in a received message's control data, in order, marked close-on-exec.
    static std::vector<FileDescriptor> receivedFDs(const msghdr& message);
};

}  // namespace dorvane
