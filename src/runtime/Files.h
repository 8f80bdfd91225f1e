// SPDX-License-Identifier: Apache-2.0
// Whole files, read with a limit and written so that a reader sees the old or the new one.
#pragma once

#include <filesystem>
#include <string>

#include "base/Bytes.h"
#include "runtime/SystemError.h"

namespace dorvane {

using Path = std::filesystem::path;

/// A failure about one file: "Could not read /a/b: Permission denied".
class FileError : public POSIXError {
  public:
    FileError(const std::string& verb, const Path& path, int number)
        : POSIXError("Could not " + verb + " " + path.string(), number) {}
};

constexpr std::size_t defaultFileLimit = 64 << 20;

/// The bytes of a regular file. Throws FileError: a directory, a FIFO or a device is refused without blocking
/// (EISDIR, EINVAL), and so is a file larger than `limit` bytes (EFBIG).
Bytes readFile(const Path& path, std::size_t limit = defaultFileLimit);
std::string readTextFile(const Path& path, std::size_t limit = defaultFileLimit);

/// Writes a temporary file in the same folder, syncs it and renames it over `path`; on failure the old file
/// stays and the temporary one is removed. Throws FileError. `mode` holds the permission bits of a new file.
void writeFileAtomically(const Path& path, ByteView bytes, unsigned mode = 0644);
inline void writeFileAtomically(const Path& path, std::string_view text, unsigned mode = 0644) {
    writeFileAtomically(path, asBytes(text), mode);
}

/// Whether anything stands at the path, a link that leads nowhere included.
bool isThere(const Path& path);
/// Whether there is something to open; false also when that can't be told.
bool fileExists(const Path& path);
/// Removes a file or a link if there is one. A failure is passed over.
void removeQuietly(const Path& file);

/// Extends or cuts a file to `size` bytes without allocating blocks; makes it when absent. Throws FileError.
void truncateFile(const Path& path, std::uint64_t size);

}  // namespace dorvane
