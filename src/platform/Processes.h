// SPDX-License-Identifier: Apache-2.0
// Questions about other processes of this host.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "runtime/Files.h"

namespace dorvane {

/// Safe on any thread.
class Processes {
  public:
    virtual ~Processes() = default;

    /// The process's own short name; hosts cut it (Linux at 15 bytes). Absent when there is no such process.
    virtual std::optional<std::string> name(int pid) const = 0;
    /// Absent when the question could not be answered.
    virtual std::optional<std::vector<int>> childPIDs(int pid) const = 0;
    virtual std::optional<Path> executablePath(int pid) const = 0;
    /// The process at the other end of a connected Unix socket.
    virtual std::optional<int> peerPID(int socket) const = 0;
    /// The name as `name` would give it for a program called `program`: what a prefix is compared against.
    virtual std::string shortened(const std::string& program) const = 0;
};

}  // namespace dorvane
