// SPDX-License-Identifier: Apache-2.0
// What the render server needs when Dorvane runs in the platform's sandbox.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace dorvane::GraphicsSandboxGroup {

struct Requirement {
    enum class Kind { group, notNeeded, unavailable };
    Kind kind = Kind::notNeeded;
    /// Only of `group`.
    std::string name = {};
    bool operator==(const Requirement&) const = default;
};

/// The first group that is short enough to name shared memory after. A host without a sandbox needs none.
Requirement requirement(bool isSandboxed, const std::vector<std::string>& groups);

}  // namespace dorvane::GraphicsSandboxGroup
