// SPDX-License-Identifier: Apache-2.0
// Which guests' tools are running, as the agent channels report it.
#pragma once

#include <cstdint>
#include <map>
#include <optional>

#include "base/UUID.h"
#include "runtime/Signal.h"

namespace dorvane {

struct GuestToolsState {
    /// The agent's capability words, as it announced them.
    std::uint32_t capabilities = 0;
    bool operator==(const GuestToolsState&) const = default;
};

/// One for the process, passed to those who report and those who watch. Main thread only.
class GuestToolsRegistry {
  public:
    std::optional<GuestToolsState> state(const UUID& id) const;
    const std::map<UUID, GuestToolsState>& states() const { return states_; }
    void set(const UUID& id, GuestToolsState state);
    void remove(const UUID& id);

    /// Tells the VM whose state came, changed or went.
    Signal<const UUID&> changed;

  private:
    std::map<UUID, GuestToolsState> states_;
};

}  // namespace dorvane
