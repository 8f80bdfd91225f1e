// SPDX-License-Identifier: Apache-2.0
// A file in the making that appears in its place whole or not at all.
#pragma once

#include "runtime/FileDescriptor.h"
#include "runtime/Files.h"

namespace dorvane {

/// Stands in the destination's own folder, so that taking the place is one step, and has no name there where
/// the file system allows it: the end of the process, however it comes, is the end of the file. Elsewhere it
/// is named "Dorvane-Archive-" and an identifier until it is published. Blocking; one thread; throws
/// FileError.
class ArchiveScratchFile {
  public:
    enum class Kind { nameless, named };

    explicit ArchiveScratchFile(Path destination, Kind kind = Kind::nameless);
    ArchiveScratchFile(const ArchiveScratchFile&) = delete;
    ArchiveScratchFile& operator=(const ArchiveScratchFile&) = delete;
    ~ArchiveScratchFile();

    int fd() const { return fd_.get(); }
    /// Replaces what stands at the destination. Whoever looks sees the old file or the new one.
    void publish();

    /// Removes what processes that are gone left in a folder; best effort.
    static void sweep(const Path& folder);

  private:
    void makeNameless();
    void makeNamed();

    Path destination_;
    /// Empty when there is nothing to remove.
    Path name_;
    FileDescriptor fd_;
};

}  // namespace dorvane
