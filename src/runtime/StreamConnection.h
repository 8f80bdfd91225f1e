// SPDX-License-Identifier: Apache-2.0
// An accepted or connected stream socket as coroutines, and the listener that accepts.
#pragma once

#include <boost/asio/generic/stream_protocol.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <optional>

#include "base/Bytes.h"
#include "runtime/FileDescriptor.h"
#include "runtime/SerialQueue.h"

namespace dorvane {

/// One byte stream over a Unix or TCP socket. All operations run on the queue it was made with.
class StreamConnection {
  public:
    /// `family` is AF_UNIX or AF_INET, as the descriptor was made.
    StreamConnection(SerialQueue queue, FileDescriptor fd, int family);

    /// Appends at least one byte and at most `maximum` to `into`, and returns how many; 0 is the peer's end
    /// of stream. Throws POSIXError.
    Task<std::size_t> read(Bytes& into, std::size_t maximum);
    /// Writes everything. Throws POSIXError.
    Task<void> write(ByteView bytes);
    /// Returns once the peer has gone or sent something: a way to notice an abandoned request.
    Task<void> waitReadable();
    /// Ends pending operations with an error; twice does nothing.
    void close();
    int descriptor() { return socket_ ? socket_->native_handle() : fd_.get(); }

  private:
    using Socket = asio::generic::stream_protocol::socket;

    /// Made when something has to be waited for: an exchange that never waits is spared the event loop.
    Socket& socket();

    SerialQueue queue_;
    FileDescriptor fd_;
    int family_;
    std::optional<Socket> socket_;
};

/// Accepts connections until closed. Lives on the queue it was made with.
class StreamListener {
  public:
    StreamListener(const SerialQueue& queue, FileDescriptor listeningSocket, int family);

    /// The next connection. Throws POSIXError, ECANCELED once closed. A passing failure (no descriptors left,
    /// a peer that went away) is reported too, and the listener lives on.
    Task<std::shared_ptr<StreamConnection>> accept();
    void close();

  private:
    SerialQueue queue_;
    asio::posix::stream_descriptor listener_;
    int family_;
};

}  // namespace dorvane
