// SPDX-License-Identifier: Apache-2.0
// The user's Trash, as the freedesktop.org Trash Specification 1.0 lays it out.
#pragma once

#include "runtime/Files.h"

namespace dorvane {

/// Items of the home file system go to the home trash, items of another one to a trash at the top of theirs
/// (".Trash/<uid>" where an administrator made it, else ".Trash-<uid>"): nothing is ever copied. Blocking.
class Trash {
  public:
    explicit Trash(Path homeTrash) : homeTrash_(std::move(homeTrash)) {}

    /// Moves an item there with the note that lets a file manager put it back, and returns its new place. A
    /// symbolic link goes itself. Throws FileError.
    Path accept(const Path& item) const;

  private:
    Path homeTrash_;
};

}  // namespace dorvane
