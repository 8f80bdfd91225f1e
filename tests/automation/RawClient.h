// SPDX-License-Identifier: Apache-2.0
// The other end of a loopback connection, driven from the test's own thread.
#pragma once

#include <string>

#include "runtime/Sockets.h"

namespace dorvane::test {

/// Never blocks: `pump` takes in what has arrived.
class RawClient {
  public:
    explicit RawClient(int port);

    bool isConnected() const;
    /// How many bytes the kernel took.
    std::size_t send(std::string_view text);
    void endSending();
    void close();
    /// Closes with a reset instead of a polite end.
    void abort();

    void pump();
    /// The server has closed its side.
    bool isEnded();
    bool wasReset() const;
    const std::string& received() const;

  private:
    FileDescriptor fd_;
    std::string received_;
    bool isConnected_ = false, isEnded_ = false, wasReset_ = false;
};

}  // namespace dorvane::test
