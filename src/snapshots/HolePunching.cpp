// SPDX-License-Identifier: Apache-2.0
#include "snapshots/HolePunching.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "runtime/FileDescriptor.h"
#include "snapshots/ArchiveZeros.h"

namespace dorvane {
namespace {

namespace fs = std::filesystem;

void punch(int fd, off_t begin, off_t end) {
    if (begin < end) ::fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, begin, end - begin);
}

bool readBlock(int fd, Bytes& block, off_t offset) {
    for (std::size_t done = 0; done < block.size();) {
        const auto count =
            ::pread(fd, block.data() + done, block.size() - done, offset + static_cast<off_t>(done));
        if (count <= 0) return false;
        done += static_cast<std::size_t>(count);
    }
    return true;
}

/// The first block with data in it, at or after `offset`.
off_t nextDataBlock(int fd, off_t offset, off_t size) {
    const auto data = ::lseek(fd, offset, SEEK_DATA);
    if (data < 0) return errno == ENXIO ? size : offset;
    return data - data % static_cast<off_t>(punchedBlockBytes);
}

void punchFile(const Path& path) {
    const FileDescriptor fd(::open(path.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat info {};
    if (!fd || ::fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode)) return;
    if (static_cast<std::uint64_t>(info.st_size) < smallestPunchedFile) return;
    constexpr auto blockBytes = static_cast<off_t>(punchedBlockBytes);
    Bytes block(punchedBlockBytes);
    off_t begin = 0;  // of the zeros found so far
    off_t at = 0;
    for (; at + blockBytes <= info.st_size; at += blockBytes) {
        at = nextDataBlock(fd.get(), at, info.st_size);
        if (at + blockBytes > info.st_size) break;
        if (!readBlock(fd.get(), block, at)) return;
        if (isAllZero(block)) continue;
        punch(fd.get(), begin, at);
        begin = at + blockBytes;
    }
    punch(fd.get(), begin, info.st_size - info.st_size % blockBytes);
}

}  // namespace

void punchZeroHoles(const Path& inFilesUnder) {
    std::error_code failure;
    auto entry = fs::recursive_directory_iterator(inFilesUnder, failure);
    for (; !failure && entry != fs::recursive_directory_iterator(); entry.increment(failure))
        punchFile(entry->path());
}

}  // namespace dorvane
