// SPDX-License-Identifier: Apache-2.0
// One tool call as the activity log keeps it.
#pragma once

#include <optional>
#include <string>

#include "base/Date.h"
#include "base/JSON.h"
#include "base/UUID.h"

namespace dorvane {

struct AgentActivityEntry {
    UUID id = UUID::random();
    Date date;
    std::string tool;
    /// The machine as the caller named it.
    std::optional<std::string> vm;
    std::string summary;
    bool succeeded = false;
    std::optional<std::string> error;
    std::int64_t durationMilliseconds = 0;

    /// The field names as keys, the date in ISO 8601.
    JSON encoded() const;
    /// One line of the log's file, with its line feed.
    std::string encodedLine() const { return compactJSON(encoded()) + "\n"; }
    /// Reads a line without its line feed; absent for anything else. Never throws.
    static std::optional<AgentActivityEntry> decodedLine(std::string_view line);

    bool operator==(const AgentActivityEntry&) const = default;
};

}  // namespace dorvane
