// SPDX-License-Identifier: Apache-2.0
#include "qemu/GraphicsSandboxGroup.h"

#include <algorithm>

namespace dorvane::GraphicsSandboxGroup {

Requirement requirement(bool isSandboxed, const std::vector<std::string>& groups) {
    constexpr std::size_t lengthLimit = 29;
    if (!isSandboxed) return {Requirement::Kind::notNeeded};
    const auto usable = std::ranges::find_if(
        groups, [](const std::string& name) { return !name.empty() && name.size() < lengthLimit; });
    if (usable == groups.end()) return {Requirement::Kind::unavailable};
    return {Requirement::Kind::group, *usable};
}

}  // namespace dorvane::GraphicsSandboxGroup
