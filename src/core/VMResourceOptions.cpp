// SPDX-License-Identifier: Apache-2.0
#include "core/VMResourceOptions.h"

#include <algorithm>
#include <array>
#include <limits>
#include <span>

namespace dorvane {
namespace {

using Values = VMResourceOptions::Values;

constexpr std::array<std::int64_t, 11> processors{1, 2, 4, 6, 8, 10, 12, 16, 20, 24, 32};
constexpr std::array<std::int64_t, 11> memorySizesMB{2048,  4096,  8192,  12288, 16384, 24576,
                                                     32768, 49152, 65536, 98304, 131072};
constexpr std::array<std::int64_t, 7> diskSizes{32, 64, 128, 256, 512, 1024, 2048};

constexpr std::int64_t leastProcessors = 2;
constexpr std::int64_t memoryKeptForHostMB = 2048;

Values within(std::span<const std::int64_t> table, std::int64_t low, std::int64_t high,
              std::optional<std::int64_t> current) {
    Values values;
    for (const auto value : table)
        if (value >= low && value <= high) values.push_back(value);
    if (current && std::find(values.begin(), values.end(), *current) == values.end())
        values.push_back(*current);
    std::sort(values.begin(), values.end());
    return values;
}

}  // namespace

Values VMResourceOptions::cpuCounts(int hostCores, std::optional<std::int64_t> current) {
    return within(processors, leastProcessors, std::max<std::int64_t>(hostCores, leastProcessors), current);
}

Values VMResourceOptions::memoryMB(std::uint64_t hostMemoryBytes, VMOSType os,
                                   std::optional<std::int64_t> current) {
    const std::int64_t floor = os == VMOSType::windows ? 4096 : 2048;
    const auto ceiling =
        std::max(floor, static_cast<std::int64_t>(hostMemoryBytes >> 20) - memoryKeptForHostMB);
    return within(memorySizesMB, floor, ceiling, current);
}

Values VMResourceOptions::diskSizesGB(VMOSType os, std::optional<std::int64_t> current,
                                      std::optional<std::int64_t> growingFrom) {
    const std::int64_t floor = os == VMOSType::windows ? 64 : 32;
    const auto least = std::max(floor, growingFrom.value_or(floor));
    return within(diskSizes, least, std::numeric_limits<std::int64_t>::max(), current);
}

std::string VMResourceOptions::describeMemory(std::int64_t mb) {
    return mb % 1024 == 0 ? std::to_string(mb / 1024) + " GB" : std::to_string(mb) + " MB";
}

}  // namespace dorvane
