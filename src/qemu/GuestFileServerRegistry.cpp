// SPDX-License-Identifier: Apache-2.0
#include "qemu/GuestFileServerRegistry.h"

namespace dorvane {

std::optional<GuestFileServerStatus> GuestFileServerRegistry::status(const UUID& id) const {
    const auto found = statuses_.find(id);
    return found == statuses_.end() ? std::nullopt : std::optional(found->second);
}

void GuestFileServerRegistry::set(const UUID& id, GuestFileServerStatus status) {
    statuses_.insert_or_assign(id, std::move(status));
    changed(id);
}

void GuestFileServerRegistry::remove(const UUID& id) {
    if (statuses_.erase(id) > 0) changed(id);
}

}  // namespace dorvane
