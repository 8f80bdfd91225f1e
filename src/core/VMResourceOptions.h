// SPDX-License-Identifier: Apache-2.0
// The sizes that a person or an agent may choose from.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "core/VMOSType.h"

namespace dorvane {

/// Pure. All lists ascend, and always hold the `current` value when one is given.
struct VMResourceOptions {
    using Values = std::vector<std::int64_t>;

    static Values cpuCounts(int hostCores, std::optional<std::int64_t> current = {});
    static Values memoryMB(std::uint64_t hostMemoryBytes, VMOSType os,
                           std::optional<std::int64_t> current = {});
    /// `growingFrom` is the present size in GB: a disk can only grow.
    static Values diskSizesGB(VMOSType os, std::optional<std::int64_t> current = {},
                              std::optional<std::int64_t> growingFrom = {});
    /// "2 GB" for a whole number of GB, else "1536 MB".
    static std::string describeMemory(std::int64_t mb);
};

}  // namespace dorvane
