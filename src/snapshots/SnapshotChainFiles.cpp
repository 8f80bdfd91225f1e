// SPDX-License-Identifier: Apache-2.0
#include "snapshots/SnapshotChainFiles.h"

#include <fcntl.h>
#include <unistd.h>

#include "runtime/FileDescriptor.h"

namespace dorvane::chainfiles {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view removedSuffix = ".deleted";

fs::file_type typeOf(const Path& path) {
    std::error_code ignored;
    return fs::symlink_status(path, ignored).type();
}

void renameDurably(const Path& from, const Path& to) {
    std::error_code failure;
    fs::rename(from, to, failure);
    if (failure) throw FileError("move", from, failure.value());
    syncDirectory(to.parent_path());
    if (from.parent_path() != to.parent_path()) syncDirectory(from.parent_path());
}

void removeTree(const Path& path) {
    std::error_code failure;
    fs::remove_all(path, failure);
    if (failure) throw FileError("remove", path, failure.value());
}

Path markFile(const VMBundle& bundle, const UUID& id, Mark mark) {
    return SnapshotChainNode::directory(bundle, id) / (mark == Mark::capturing ? ".capturing" : ".merging");
}

}  // namespace

bool isRegularFile(const Path& path) { return typeOf(path) == fs::file_type::regular; }

bool isDirectory(const Path& path) { return typeOf(path) == fs::file_type::directory; }

void syncDirectory(const Path& directory) {
    const FileDescriptor fd(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd) ::fsync(fd.get());
}

void moveFile(const Path& from, const Path& to) {
    if (isThere(to)) throw FileError("move", from, EEXIST);
    renameDurably(from, to);
}

void replaceFile(const Path& from, const Path& to) { renameDurably(from, to); }

void removeFile(const Path& path) {
    std::error_code failure;
    fs::remove(path, failure);
    if (failure) throw FileError("remove", path, failure.value());
    syncDirectory(path.parent_path());
}

void removeFileIfPossible(const Path& path) {
    std::error_code ignored;
    fs::remove(path, ignored);
}

void makeDirectory(const VMBundle& bundle, const UUID& id) {
    const auto directory = SnapshotChainNode::directory(bundle, id);
    for (const auto& path : {bundle.snapshotsDirectory(), directory}) {
        if (isDirectory(path)) continue;
        std::error_code failure;
        if (!fs::create_directory(path, failure))
            throw FileError("create", path, failure ? failure.value() : ENOTDIR);
        syncDirectory(path.parent_path());
    }
}

void removeDirectory(const VMBundle& bundle, const UUID& id) {
    const auto directory = SnapshotChainNode::directory(bundle, id);
    if (!isThere(directory)) return;
    if (!isDirectory(bundle.snapshotsDirectory()) || !isDirectory(directory))
        throw FileError("remove", directory, ENOTDIR);
    Path removed = directory;
    removed += removedSuffix;
    removeTree(removed);
    renameDurably(directory, removed);
    removeTree(removed);
}

void removeDirectoryIfPossible(const VMBundle& bundle, const UUID& id) {
    try {
        removeDirectory(bundle, id);
    } catch (const FileError&) {
        // What is left has no disk in it; SnapshotChainRepair takes it away.
    }
}

bool isRemovedDirectory(std::string_view name) {
    return name.ends_with(removedSuffix) && UUID::parse(name.substr(0, name.size() - removedSuffix.size()));
}

bool hasMark(const VMBundle& bundle, const UUID& id, Mark mark) {
    return isThere(markFile(bundle, id, mark));
}

void setMark(const VMBundle& bundle, const UUID& id, Mark mark) {
    writeFileAtomically(markFile(bundle, id, mark), std::string_view());
}

void clearMark(const VMBundle& bundle, const UUID& id, Mark mark) { removeFile(markFile(bundle, id, mark)); }

}  // namespace dorvane::chainfiles
