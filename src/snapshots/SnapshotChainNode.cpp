// SPDX-License-Identifier: Apache-2.0
#include "snapshots/SnapshotChainNode.h"

namespace dorvane {

std::optional<UUID> SnapshotChainNode::snapshotID(std::string_view backingPath) {
    const auto last = backingPath.rfind('/');
    if (last == std::string_view::npos) return std::nullopt;
    const auto directory = backingPath.substr(0, last);
    const auto before = directory.rfind('/');
    return UUID::parse(before == std::string_view::npos ? directory : directory.substr(before + 1));
}

}  // namespace dorvane
