// SPDX-License-Identifier: Apache-2.0
// Stream sockets: Unix-domain ones by path and TCP on the loopback address.
#pragma once

#include <cstdint>
#include <string>

#include "runtime/FileDescriptor.h"
#include "runtime/SystemError.h"

namespace dorvane {

/// The longest Unix socket path in bytes; a longer one is refused and never cut short.
constexpr std::size_t maximumSocketPathBytes = 103;

/// One blocking connect. Throws POSIXError; ENAMETOOLONG for a path beyond the limit. The descriptor is
/// close-on-exec and blocking; a peer's disappearance shows as an error, since SIGPIPE is ignored.
FileDescriptor connectUnixSocket(const std::string& path);
/// The same with a non-blocking descriptor, and it never waits: a listener whose backlog is full counts as a
/// failure (EAGAIN), where a blocking connect would wait for as long as the listener hangs.
FileDescriptor connectUnixSocketWithoutWaiting(const std::string& path);
/// Listens at `path` with permissions 0600. Throws POSIXError; an existing file there is an error
/// (EADDRINUSE).
FileDescriptor listenUnixSocket(const std::string& path, int backlog = 64);

/// Listens on 127.0.0.1 with address reuse. Throws POSIXError. Port 0 takes any free port.
FileDescriptor listenLoopback(std::uint16_t port, int backlog = 64);
/// The port that a loopback listener got.
std::uint16_t boundPort(int fd);
/// Keeps a port of 127.0.0.1 for a program that is going to listen on it: as long as the descriptor lives,
/// nobody else finds the port free, but a listener with address reuse gets it. Nothing when it is taken.
FileDescriptor reserveLoopbackPort(std::uint16_t port);
/// Whether a TCP socket can be bound to 127.0.0.1 on this port right now.
bool isLoopbackPortFree(std::uint16_t port);

void setNonBlocking(int fd, bool nonBlocking);

}  // namespace dorvane
