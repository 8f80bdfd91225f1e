// SPDX-License-Identifier: Apache-2.0
#include "snapshots/ArchiveReaderExtract.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "base/Localized.h"
#include "runtime/FileDescriptor.h"
#include "snapshots/ArchiveEntryNames.h"
#include "snapshots/ArchiveZeros.h"

namespace dorvane {
namespace {

namespace fs = std::filesystem;

/// What a file system gives away at a time.
constexpr std::uint64_t blockBytes = 4096;
constexpr std::size_t maximumLinkBytes = 1024;
constexpr unsigned usualPermissions = 0644;

/// A new file whose blocks of zeros are never written.
class SparseFileSink : public ArchiveSink {
  public:
    SparseFileSink(const Path& path, const ArchiveEntry& entry,
                   const std::function<void(std::uint64_t)>& writes)
        : path_(path), writes_(writes) {
        const auto mode = (entry.permissions != 0 ? entry.permissions : usualPermissions) | S_IRUSR | S_IWUSR;
        fd_ =
            FileDescriptor(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
        if (!fd_ || ::ftruncate(fd_.get(), static_cast<off_t>(entry.size)) != 0)
            throw FileError("write", path_, errno);
    }

    void zeros(std::uint64_t count) override { offset_ += count; }

    void bytes(ByteView content) override {
        std::size_t begin = 0;  // of what is to be written and not a hole
        for (std::size_t at = 0; at < content.size();) {
            const auto size =
                std::min<std::size_t>(blockBytes - (offset_ + at) % blockBytes, content.size() - at);
            if (isAllZero(content.subspan(at, size))) {
                write(begin, content.subspan(begin, at - begin));
                begin = at + size;
            }
            at += size;
        }
        write(begin, content.subspan(begin));
        offset_ += content.size();
    }

    /// A file system may find out only now that it has no room or that its disk is broken.
    void sync() const {
        if (::fsync(fd_.get()) != 0) throw FileError("write", path_, errno);
    }

  private:
    void write(std::size_t at, ByteView bytes) {
        if (bytes.empty()) return;
        if (writes_) writes_(bytes.size());
        for (auto offset = offset_ + at; !bytes.empty();) {
            const auto count = ::pwrite(fd_.get(), bytes.data(), bytes.size(), static_cast<off_t>(offset));
            if (count < 0 && errno == EINTR) continue;
            if (count < 0) throw FileError("write", path_, errno);
            offset += static_cast<std::uint64_t>(count);
            bytes = bytes.subspan(static_cast<std::size_t>(count));
        }
    }

    const Path& path_;
    const std::function<void(std::uint64_t)>& writes_;
    FileDescriptor fd_;
    std::uint64_t offset_ = 0;
};

void makeFolder(const Path& path) {
    std::error_code failure;
    fs::create_directories(path, failure);
    if (failure) throw FileError("make", path, failure.value());
}

void makeLink(const ArchiveReader& archive, const ArchiveEntry& entry, const Path& path) {
    const auto target = archive.readText(entry, maximumLinkBytes);
    if (!isSafeArchiveLink(entry.name, target))
        throw ArchiveError(
            localized("The archive's link \"%@\" leads out of the VM.", shownArchiveName(entry.name)));
    if (::symlink(target.c_str(), path.c_str()) != 0) throw FileError("write", path, errno);
}

}  // namespace

void extractArchive(const ArchiveReader& archive, const Path& into, const ArchiveExtraction& how,
                    ArchiveControl& control) {
    std::vector<const ArchiveEntry*> links;
    for (const auto& entry : archive.entries()) {
        if (how.includes && !how.includes(entry)) continue;
        control.check();
        if (how.begins) how.begins(entry);
        const auto path = into / entry.name;
        makeFolder(entry.kind == ArchiveEntryKind::directory ? path : path.parent_path());
        if (entry.kind == ArchiveEntryKind::link) links.push_back(&entry);
        if (entry.kind != ArchiveEntryKind::file) continue;
        SparseFileSink sink(path, entry, how.writes);
        archive.read(entry, sink, control);
        sink.sync();
    }
    for (const auto* entry : links) makeLink(archive, *entry, into / entry->name);
}

}  // namespace dorvane
