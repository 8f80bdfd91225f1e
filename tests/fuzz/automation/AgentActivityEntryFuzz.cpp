// SPDX-License-Identifier: Apache-2.0
// Any bytes as a line of the activity log: skipped, or read and written back to an equal entry on one line.
#include "automation/AgentActivityEntry.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace dorvane;
    const auto entry = AgentActivityEntry::decodedLine(asText({data, size}));
    if (!entry) return 0;
    auto line = entry->encodedLine();
    if (line.find('\n') != line.size() - 1) __builtin_trap();
    line.pop_back();
    if (AgentActivityEntry::decodedLine(line) != entry) __builtin_trap();
    return 0;
}
