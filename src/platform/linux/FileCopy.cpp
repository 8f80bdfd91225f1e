// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/FileCopy.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstring>

#include "runtime/FileDescriptor.h"

namespace dorvane {
namespace {

constexpr std::size_t kernelCopyBytes = 128 << 20;
constexpr std::size_t bufferBytes = 1 << 20;
constexpr mode_t permissionBits = 07777;

/// One file or folder, opened on both sides.
struct OpenPair {
    const Path& from;
    const Path& to;
    FileDescriptor source;
    FileDescriptor target;
    struct stat info {};

    [[noreturn]] void failReading() const { throw FileError("read", from, errno); }
    [[noreturn]] void failWriting() const { throw FileError("write", to, errno); }
};

void copyAttributes(const OpenPair& pair) {
    constexpr std::string_view userAttributes = "user.";
    std::string names(65536, '\0');
    const auto length = ::flistxattr(pair.source.get(), names.data(), names.size());
    names.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
    std::string value(65536, '\0');
    for (std::size_t at = 0; at < names.size(); at += std::strlen(&names[at]) + 1) {
        const char* name = &names[at];
        if (!std::string_view(name).starts_with(userAttributes)) continue;
        const auto size = ::fgetxattr(pair.source.get(), name, value.data(), value.size());
        // Some file systems have none, or smaller ones: the file is worth more than its attributes.
        if (size >= 0) ::fsetxattr(pair.target.get(), name, value.data(), static_cast<std::size_t>(size), 0);
    }
}

/// Last of all: writing into the copy would change its times, and its permissions might forbid it.
void copyMetadata(const OpenPair& pair) {
    copyAttributes(pair);
    if (::fchmod(pair.target.get(), pair.info.st_mode & permissionBits) != 0) pair.failWriting();
    const struct timespec times[2] = {pair.info.st_atim, pair.info.st_mtim};
    if (::futimens(pair.target.get(), times) != 0) pair.failWriting();
}

/// The next stretch of data at or after `offset`; its end is `offset` when there is none.
std::pair<off_t, off_t> nextData(const OpenPair& pair, off_t offset) {
    const auto begin = ::lseek(pair.source.get(), offset, SEEK_DATA);
    if (begin < 0 && errno == ENXIO) return {offset, offset};
    if (begin < 0) return {offset, pair.info.st_size};  // this file system doesn't tell its holes
    const auto end = ::lseek(pair.source.get(), begin, SEEK_HOLE);
    return {begin, end < 0 ? pair.info.st_size : std::min<off_t>(end, pair.info.st_size)};
}

/// Reads and writes one piece, for what the kernel can't copy by itself, and says how much it wrote.
std::size_t copyThroughBuffer(const OpenPair& pair, off_t at, std::size_t count, Bytes& buffer) {
    buffer.resize(bufferBytes);
    const auto size = ::pread(pair.source.get(), buffer.data(), std::min(count, buffer.size()), at);
    if (size < 0) pair.failReading();
    if (size == 0) throw FileError("read", pair.from, EIO);  // it became shorter meanwhile
    const auto written = ::pwrite(pair.target.get(), buffer.data(), static_cast<std::size_t>(size), at);
    if (written < 0) pair.failWriting();
    return static_cast<std::size_t>(written);
}

bool isUnsupported(int number) {
    return number == EXDEV || number == EOPNOTSUPP || number == ENOSYS || number == EINVAL ||
           number == EBADF || number == EPERM || number == ETXTBSY;
}

void copyStretch(const OpenPair& pair, off_t begin, off_t end, bool& kernelCopies, Bytes& buffer) {
    while (begin < end) {
        const auto count = static_cast<std::size_t>(end - begin);
        if (kernelCopies) {
            off_t in = begin, out = begin;
            const auto copied = ::copy_file_range(pair.source.get(), &in, pair.target.get(), &out,
                                                  std::min(count, kernelCopyBytes), 0);
            if (copied < 0 && errno == EINTR) continue;
            if (copied > 0) {
                begin += copied;
                continue;
            }
            if (copied < 0 && !isUnsupported(errno)) pair.failWriting();
            kernelCopies = false;
        }
        begin += static_cast<off_t>(copyThroughBuffer(pair, begin, count, buffer));
    }
}

void copyContents(const OpenPair& pair) {
    if (::ioctl(pair.target.get(), FICLONE, pair.source.get()) == 0) return;
    if (::ftruncate(pair.target.get(), pair.info.st_size) != 0) pair.failWriting();
    bool kernelCopies = true;
    Bytes buffer;
    for (off_t offset = 0; offset < pair.info.st_size;) {
        const auto [begin, end] = nextData(pair, offset);
        if (end <= offset) break;
        copyStretch(pair, begin, end, kernelCopies, buffer);
        offset = end;
    }
}

FileDescriptor openSource(const Path& path, int flags) {
    FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | flags));
    if (!fd) throw FileError("read", path, errno);
    return fd;
}

void copyFile(const Path& from, const Path& to) {
    OpenPair pair{from, to, openSource(from, O_NONBLOCK), {}};
    if (::fstat(pair.source.get(), &pair.info) != 0) pair.failReading();
    pair.target = FileDescriptor(::open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!pair.target) pair.failWriting();
    copyContents(pair);
    copyMetadata(pair);
}

void copyLink(const Path& from, const Path& to) {
    std::error_code failure;
    const auto target = std::filesystem::read_symlink(from, failure);
    if (failure) throw FileError("read", from, failure.value());
    if (::symlink(target.c_str(), to.c_str()) != 0) throw FileError("write", to, errno);
}

void copyAny(const Path& from, const Path& to);

void copyFolder(const Path& from, const Path& to) {
    OpenPair pair{from, to, openSource(from, O_DIRECTORY), {}};
    if (::fstat(pair.source.get(), &pair.info) != 0) pair.failReading();
    if (::mkdir(to.c_str(), 0700) != 0) pair.failWriting();
    std::error_code failure;
    auto entries = std::filesystem::directory_iterator(from, failure);
    for (; !failure && entries != std::filesystem::directory_iterator(); entries.increment(failure))
        copyAny(entries->path(), to / entries->path().filename());
    if (failure) throw FileError("read", from, failure.value());
    pair.target = openSource(to, O_DIRECTORY);
    copyMetadata(pair);
}

void copyAny(const Path& from, const Path& to) {
    struct stat info {};
    if (::lstat(from.c_str(), &info) != 0) throw FileError("read", from, errno);
    switch (info.st_mode & S_IFMT) {
        case S_IFREG:
            return copyFile(from, to);
        case S_IFDIR:
            return copyFolder(from, to);
        case S_IFLNK:
            return copyLink(from, to);
        default:
            throw FileError("copy", from, ENOTSUP);
    }
}

bool liesWithin(const Path& path, const Path& folder) {
    std::error_code ignored;
    const auto inner = std::filesystem::weakly_canonical(path, ignored);
    const auto outer = std::filesystem::weakly_canonical(folder, ignored);
    return std::mismatch(outer.begin(), outer.end(), inner.begin(), inner.end()).first == outer.end();
}

}  // namespace

void copyFileTree(const Path& from, const Path& to) {
    std::error_code ignored;
    if (std::filesystem::symlink_status(to, ignored).type() != std::filesystem::file_type::not_found)
        throw FileError("write", to, EEXIST);
    if (std::filesystem::is_directory(std::filesystem::symlink_status(from, ignored)) && liesWithin(to, from))
        throw FileError("write", to, EINVAL);
    copyAny(from, to);
}

}  // namespace dorvane
