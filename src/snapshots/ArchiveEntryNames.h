// SPDX-License-Identifier: Apache-2.0
// Which names an archive's entries may have, so that they mean one place each, below the archive's root.
#pragma once

#include <map>
#include <string>

#include "snapshots/ArchiveFormat.h"

namespace dorvane {

/// Whether the name stays below the archive's root on every host: relative, no "." or "..", no backslash, no
/// drive letter, no NUL, UTF-8, not too long.
bool isSafeArchiveName(std::string_view name);

/// Whether a link with this name may have this target: only a relative one that stays within the first
/// component of the name, wherever other links lead.
bool isSafeArchiveLink(std::string_view name, std::string_view target);

/// A name for a sentence: invalid bytes and control characters made visible.
std::string shownArchiveName(std::string_view name);

/// The names of one archive, each of which must mean a place of its own also where case doesn't count.
class ArchiveEntryNames {
  public:
    /// Throws ArchiveError for an unsafe name, for one that is there already, and for one below a file.
    void add(const std::string& name, ArchiveEntryKind kind);

  private:
    struct Place {
        std::string name;
        bool isDirectory;
        bool isListed;
    };
    std::map<std::string, Place> places_;
};

}  // namespace dorvane
