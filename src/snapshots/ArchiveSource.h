// SPDX-License-Identifier: Apache-2.0
// Where an archive's bytes come from.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "runtime/FileDescriptor.h"
#include "runtime/Files.h"

namespace dorvane {

class ArchiveSource {
  public:
    virtual ~ArchiveSource() = default;
    virtual std::uint64_t size() const = 0;
    /// Reads at most `into.size()` bytes and says how many; none only at the end. Throws FileError.
    virtual std::size_t readAt(std::uint64_t offset, std::span<std::uint8_t> into) const = 0;
};

/// A regular file. Throws FileError when it can't be opened or is something else.
class ArchiveFileSource : public ArchiveSource {
  public:
    explicit ArchiveFileSource(Path path)
        : path_(std::move(path)), fd_(::open(path_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)) {
        struct stat info {};
        if (!fd_ || ::fstat(fd_.get(), &info) != 0) throw FileError("read", path_, errno);
        if (!S_ISREG(info.st_mode)) throw FileError("read", path_, S_ISDIR(info.st_mode) ? EISDIR : EINVAL);
        size_ = static_cast<std::uint64_t>(info.st_size);
    }

    std::uint64_t size() const override { return size_; }
    std::size_t readAt(std::uint64_t offset, std::span<std::uint8_t> into) const override {
        for (;;) {
            const auto count = ::pread(fd_.get(), into.data(), into.size(), static_cast<off_t>(offset));
            if (count >= 0) return static_cast<std::size_t>(count);
            if (errno != EINTR) throw FileError("read", path_, errno);
        }
    }

  private:
    Path path_;
    FileDescriptor fd_;
    std::uint64_t size_ = 0;
};

}  // namespace dorvane
