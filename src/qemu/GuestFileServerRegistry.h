// SPDX-License-Identifier: Apache-2.0
// How each guest's shared folders are doing, for the user interface.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "base/UUID.h"
#include "runtime/Signal.h"

namespace dorvane {

struct GuestFileServerStatus {
    struct Running {
        int port = 0;
        std::string url;  // as the guest sees it
        std::vector<std::string> shareNames;
        int preferredPort = 0;
        std::vector<std::string> skippedShares;
        bool operator==(const Running&) const = default;
    };
    struct Failed {
        std::string message;
        bool operator==(const Failed&) const = default;
    };
    std::variant<Running, Failed> kind;
    bool operator==(const GuestFileServerStatus&) const = default;
};

/// One for the process, passed to those who publish and those who watch. Main thread only.
class GuestFileServerRegistry {
  public:
    std::optional<GuestFileServerStatus> status(const UUID& id) const;
    void set(const UUID& id, GuestFileServerStatus status);
    void remove(const UUID& id);

    /// Tells the VM whose status came, changed or went.
    Signal<const UUID&> changed;

  private:
    std::map<UUID, GuestFileServerStatus> statuses_;
};

}  // namespace dorvane
