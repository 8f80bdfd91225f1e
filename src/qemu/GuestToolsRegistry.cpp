// SPDX-License-Identifier: Apache-2.0
#include "qemu/GuestToolsRegistry.h"

namespace dorvane {

std::optional<GuestToolsState> GuestToolsRegistry::state(const UUID& id) const {
    const auto found = states_.find(id);
    return found == states_.end() ? std::nullopt : std::optional(found->second);
}

void GuestToolsRegistry::set(const UUID& id, GuestToolsState state) {
    if (this->state(id) == state) return;
    states_[id] = state;
    changed(id);
}

void GuestToolsRegistry::remove(const UUID& id) {
    if (states_.erase(id) > 0) changed(id);
}

}  // namespace dorvane
