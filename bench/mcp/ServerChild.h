// SPDX-License-Identifier: Apache-2.0
// A server under measurement: a child process that says where it listens.
#pragma once

#include <string>
#include <vector>

#include "runtime/FileDescriptor.h"

namespace dorvane::bench {

/// Starts the program and waits for its line "ready <port> <token>". Ends the child on destruction.
class ServerChild {
  public:
    /// Throws std::runtime_error when the child doesn't get ready.
    explicit ServerChild(const std::vector<std::string>& command);
    ServerChild(const ServerChild&) = delete;
    ServerChild& operator=(const ServerChild&) = delete;
    ~ServerChild();

    int port() const { return port_; }
    const std::string& token() const { return token_; }
    /// CPU time of all its threads so far, in user and kernel mode.
    double cpuSeconds() const;

  private:
    int pid_ = 0;
    FileDescriptor input_;
    int port_ = 0;
    std::string token_;
};

}  // namespace dorvane::bench
