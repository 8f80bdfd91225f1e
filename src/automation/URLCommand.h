// SPDX-License-Identifier: Apache-2.0
// A `dorvane:` link, by which shortcuts and scripts drive the system.
//
// dorvane://<verb>?vm=<name or id> or dorvane:<verb>?vm=<name or id>, the verb being start, stop, show or
// snapshot; a snapshot may have &name=<snapshot name>. URLs are those of RFC 3986.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "base/Date.h"

namespace dorvane {

struct URLCommand {
    enum class Kind { start, stop, show, snapshot };

    Kind kind = Kind::start;
    /// A machine's name or UUID, never empty.
    std::string vm;
    /// Of the snapshot; empty for the other kinds.
    std::string name = {};

    /// Absent for what is no command. Scheme and verb are taken in any case, the names of the query's items
    /// exactly; of items with one name the first counts. Blanks and letters beyond ASCII may stand unescaped.
    static std::optional<URLCommand> parse(std::string_view url, Date now);
    /// "Shortcut 2026-11-21T08:43:19", in UTC.
    static std::string defaultSnapshotName(Date now);

    bool operator==(const URLCommand&) const = default;
};

}  // namespace dorvane
