// SPDX-License-Identifier: Apache-2.0
// What the engine needs of a file server for one guest's shared folders.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/UUID.h"
#include "runtime/Files.h"
#include "runtime/Task.h"

namespace dorvane {

struct GuestFileShare {
    std::string name;
    Path root;
    bool readOnly = false;
    bool operator==(const GuestFileShare&) const = default;
};

struct GuestFileServerConfiguration {
    UUID vmID;
    std::string token;  // the first element of every path
    std::vector<GuestFileShare> shares;
    std::vector<int> portCandidates;  // tried in order, on 127.0.0.1
    /// Called at the guest's first connection, on any thread; may be empty.
    std::function<void()> onGuestContact;
};

/// Main thread only.
class GuestFileServing {
  public:
    virtual ~GuestFileServing() = default;

    /// Returns once the server listens; throws with a sentence for the user when it can't.
    virtual Task<void> start() = 0;
    /// Ends the listener and every connection; twice does nothing.
    virtual void stop() = 0;
    /// Present after a successful start.
    virtual std::optional<int> boundPort() const = 0;
};

/// Empty in a build without a file server.
using GuestFileServerFactory = std::function<std::shared_ptr<GuestFileServing>(GuestFileServerConfiguration)>;

}  // namespace dorvane
