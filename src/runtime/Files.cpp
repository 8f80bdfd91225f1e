// SPDX-License-Identifier: Apache-2.0
#include "runtime/Files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/Hex.h"
#include "base/RandomBytes.h"
#include "runtime/FileDescriptor.h"

namespace dorvane {
namespace {

void writeAll(int fd, ByteView bytes, const Path& path) {
    while (!bytes.empty()) {
        const auto count = ::write(fd, bytes.data(), bytes.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) throw FileError("write", path, errno);
        bytes = bytes.subspan(static_cast<std::size_t>(count));
    }
}

/// Removes the file unless told that it has moved to its place.
class TemporaryFile {
  public:
    explicit TemporaryFile(Path path) : path_(std::move(path)) {}
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    ~TemporaryFile() {
        if (!path_.empty()) ::unlink(path_.c_str());
    }
    const Path& path() const { return path_; }
    void keep() { path_.clear(); }

  private:
    Path path_;
};

/// A rename is durable only once its directory is on disk; a file system that can't sync one is left alone.
void syncDirectory(const Path& directory) {
    const FileDescriptor fd(
        ::open(directory.empty() ? "." : directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd) ::fsync(fd.get());
}

}  // namespace

Bytes readFile(const Path& path, std::size_t limit) {
    const FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat info {};
    if (!fd || ::fstat(fd.get(), &info) != 0) throw FileError("read", path, errno);
    if (!S_ISREG(info.st_mode)) throw FileError("read", path, S_ISDIR(info.st_mode) ? EISDIR : EINVAL);
    if (static_cast<std::uint64_t>(info.st_size) > limit) throw FileError("read", path, EFBIG);
    Bytes bytes(static_cast<std::size_t>(info.st_size) + 1);
    std::size_t size = 0;
    for (;;) {
        const auto count = ::read(fd.get(), bytes.data() + size, bytes.size() - size);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) throw FileError("read", path, errno);
        if (count == 0) break;
        size += static_cast<std::size_t>(count);
        if (size > limit) throw FileError("read", path, EFBIG);
        if (size == bytes.size()) bytes.resize(std::min(limit + 1, size * 2));
    }
    bytes.resize(size);
    return bytes;
}

std::string readTextFile(const Path& path, std::size_t limit) {
    return std::string(asText(readFile(path, limit)));
}

void writeFileAtomically(const Path& path, ByteView bytes, unsigned mode) {
    TemporaryFile temporary(path.parent_path() /
                            ("." + path.filename().string() + "." + hexText(randomBytes(4)) + ".tmp"));
    FileDescriptor fd(
        ::open(temporary.path().c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, static_cast<mode_t>(mode)));
    if (!fd) {
        const int number = errno;
        temporary.keep();
        throw FileError("write", path, number);
    }
    writeAll(fd.get(), bytes, path);
    if (::fsync(fd.get()) != 0) throw FileError("write", path, errno);
    fd.reset();
    if (::rename(temporary.path().c_str(), path.c_str()) != 0) throw FileError("write", path, errno);
    temporary.keep();
    syncDirectory(path.parent_path());
}

bool isThere(const Path& path) {
    std::error_code ignored;
    return std::filesystem::exists(std::filesystem::symlink_status(path, ignored));
}

bool fileExists(const Path& path) {
    std::error_code ignored;
    return std::filesystem::exists(path, ignored);
}

void removeQuietly(const Path& file) {
    std::error_code ignored;
    std::filesystem::remove(file, ignored);
}

void truncateFile(const Path& path, std::uint64_t size) {
    const FileDescriptor fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    if (!fd || ::ftruncate(fd.get(), static_cast<off_t>(size)) != 0) throw FileError("resize", path, errno);
}

}  // namespace dorvane
