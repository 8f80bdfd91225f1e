// SPDX-License-Identifier: Apache-2.0
#include "qemu/AcceleratedDriverProbe.h"

#include <algorithm>

namespace dorvane::AcceleratedDriverProbe {

std::optional<int> contextCount(const Processes& processes, int qemuPID, const Path& renderServer) {
    const auto children = processes.childPIDs(qemuPID);
    if (!children) return std::nullopt;
    std::error_code unresolved;
    const auto canonical = std::filesystem::canonical(renderServer, unresolved);
    const auto& program = unresolved ? renderServer : canonical;
    const auto server = std::ranges::find_if(
        *children, [&](int child) { return processes.executablePath(child) == program; });
    if (server == children->end()) return std::nullopt;
    const auto workers = processes.childPIDs(*server);
    if (!workers) return std::nullopt;
    return static_cast<int>(std::ranges::count_if(*workers, [](int worker) { return worker >= 1; }));
}

}  // namespace dorvane::AcceleratedDriverProbe
