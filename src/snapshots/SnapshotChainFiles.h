// SPDX-License-Identifier: Apache-2.0
// Moves of disk layers that are on disk once they have returned, and the marks that tell what was going on.
#pragma once

#include "snapshots/SnapshotChainNode.h"

namespace dorvane::chainfiles {

/// All functions block and throw FileError; symbolic links count as themselves and are never followed.

bool isRegularFile(const Path& path);
bool isDirectory(const Path& path);

inline Path discardedDisk(const VMBundle& bundle) { return bundle.directoryURL / "disk.qcow2.discarded"; }
inline Path restoringDisk(const VMBundle& bundle) { return bundle.directoryURL / "disk.qcow2.restoring"; }

/// Stands beside a disk that is being put onto another backing file, and holds the name of the former one: as
/// long as that one is there, going back to it is right, however far the tool came.
inline Path rebasingMark(const Path& disk) { return disk.string() + ".rebasing"; }

/// Makes the new names in a directory durable. A file system that can't is left alone.
void syncDirectory(const Path& directory);
/// Refuses to replace anything.
void moveFile(const Path& from, const Path& to);
/// Puts `from` in the place of `to` in one step.
void replaceFile(const Path& from, const Path& to);
void removeFile(const Path& path);
void removeFileIfPossible(const Path& path);

/// Makes the directory where a snapshot will stand; one that is there already will do.
void makeDirectory(const VMBundle& bundle, const UUID& id);
/// Takes a snapshot's directory away whole, or not at all: under its name no half removed one is ever seen.
void removeDirectory(const VMBundle& bundle, const UUID& id);
void removeDirectoryIfPossible(const VMBundle& bundle, const UUID& id);
/// The names that `removeDirectory` gives to what it is removing.
bool isRemovedDirectory(std::string_view name);

/// Empty files in a snapshot's directory. `capturing`: its disk is on the way in. `merging`: its disk takes
/// up the data of the only child, so that it isn't the snapshot any more.
enum class Mark { capturing, merging };
bool hasMark(const VMBundle& bundle, const UUID& id, Mark mark);
/// Durable on return.
void setMark(const VMBundle& bundle, const UUID& id, Mark mark);
void clearMark(const VMBundle& bundle, const UUID& id, Mark mark);

}  // namespace dorvane::chainfiles
