// SPDX-License-Identifier: Apache-2.0
// The command line's side of the control socket.
#pragma once

#include <functional>

#include "app/ControlProtocol.h"
#include "runtime/FileDescriptor.h"
#include "runtime/Files.h"

namespace dorvane {

/// Nothing listens on the control socket.
class ServiceNotRunning : public std::runtime_error {
  public:
    ServiceNotRunning() : std::runtime_error("Dorvane is not running. Start it with: dorvane serve") {}
};

/// One connection; blocks the calling thread. For a program with nothing else to do.
class ControlClient {
  public:
    /// Throws ServiceNotRunning, or POSIXError for another failure.
    explicit ControlClient(const Path& socket);

    /// The result of one request. Throws ControlError with the service's sentence, or POSIXError when the
    /// service went away.
    JSON call(const std::string& method, const JSON& params,
              const std::function<void(const ControlProgress&)>& onProgress = {});

  private:
    std::string readLine();

    FileDescriptor fd_;
    ControlLineBuffer buffer_;
    std::vector<std::string> lines_;
    int nextID_ = 0;
};

}  // namespace dorvane
