// SPDX-License-Identifier: Apache-2.0
// The record of what agents did: in memory for the interface, and in a file that outlives the process.
#pragma once

#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "automation/AgentActivityEntry.h"
#include "platform/ApplicationDirectories.h"
#include "runtime/Files.h"
#include "runtime/Runtime.h"
#include "runtime/Signal.h"

namespace dorvane {

/// Main thread only; the file is touched on a queue of its own, in the order of the calls, and no caller
/// waits for it. A file that can't be written is logged, and the entries stay in memory.
class AgentActivityLog {
  public:
    static constexpr std::size_t maximumEntries = 1000;
    /// In Unicode scalars; a longer summary is cut, with "…" behind it.
    static constexpr std::size_t maximumSummaryCharacters = 300;
    /// The same for the other texts of an entry, which come from a client: the file stays readable.
    static constexpr std::size_t maximumTextCharacters = 2000;

    /// Reads the file, if there is one; lines that can't be read are skipped. Without a path the log lives in
    /// memory alone.
    AgentActivityLog(const Runtime& runtime, std::optional<Path> file);
    /// Absent when the host has no folder for such files.
    static std::optional<Path> defaultFile(const ApplicationDirectories& directories);

    /// Oldest first.
    const std::deque<AgentActivityEntry>& entries() const { return entries_; }
    /// Those that name the machine by exactly this name or this identifier.
    std::vector<AgentActivityEntry> entries(const std::string& vmName, const UUID& id) const;
    void record(AgentActivityEntry entry);
    void clear();
    /// After any change of the entries.
    Signal<> changed;

  private:
    std::deque<AgentActivityEntry> entries_;
    const std::optional<Path> file_;
    const SerialQueue ioQueue_;
};

}  // namespace dorvane
