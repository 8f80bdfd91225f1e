// SPDX-License-Identifier: Apache-2.0
#include "snapshots/ArchiveWriterFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/UUID.h"

namespace dorvane {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view namePrefix = "Dorvane-Archive-";
/// A machine's disk is nobody else's business.
constexpr mode_t permissions = 0600;

/// Only files that this program made are ever removed; one that is still being written is locked, or empty.
void sweepFile(const Path& path) {
    const auto name = path.filename().string();
    if (!name.starts_with(namePrefix) || !UUID::parse(std::string_view(name).substr(namePrefix.size())))
        return;
    const FileDescriptor fd(::open(path.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat info {};
    if (!fd || ::fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode)) return;
    if (info.st_uid != ::geteuid() || info.st_size == 0 || ::flock(fd.get(), LOCK_EX | LOCK_NB) != 0) return;
    ::unlink(path.c_str());
}

}  // namespace

ArchiveScratchFile::ArchiveScratchFile(Path destination, Kind kind) : destination_(std::move(destination)) {
    if (kind == Kind::nameless) makeNameless();
    if (!fd_) makeNamed();
    ::flock(fd_.get(), LOCK_EX | LOCK_NB);
}

ArchiveScratchFile::~ArchiveScratchFile() {
    if (!name_.empty()) ::unlink(name_.c_str());
}

void ArchiveScratchFile::makeNameless() {
    const auto folder = destination_.parent_path();
    fd_ = FileDescriptor(::open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, permissions));
}

void ArchiveScratchFile::makeNamed() {
    auto name = destination_.parent_path() / (std::string(namePrefix) + UUID::random().text());
    fd_ =
        FileDescriptor(::open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, permissions));
    if (!fd_) throw FileError("write", destination_, errno);
    name_ = std::move(name);
}

void ArchiveScratchFile::publish() {
    if (name_.empty()) {
        // A file without a name can take a free one only.
        auto name = destination_.parent_path() / (std::string(namePrefix) + UUID::random().text());
        const auto self = "/proc/self/fd/" + std::to_string(fd_.get());
        if (::linkat(AT_FDCWD, self.c_str(), AT_FDCWD, name.c_str(), AT_SYMLINK_FOLLOW) != 0)
            throw FileError("write", destination_, errno);
        name_ = std::move(name);
    }
    if (::rename(name_.c_str(), destination_.c_str()) != 0) throw FileError("write", destination_, errno);
    name_.clear();
    const FileDescriptor folder(
        ::open(destination_.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder) ::fsync(folder.get());
}

void ArchiveScratchFile::sweep(const Path& folder) {
    std::error_code failure;
    auto entry = fs::directory_iterator(folder, failure);
    for (; !failure && entry != fs::directory_iterator(); entry.increment(failure)) sweepFile(entry->path());
}

}  // namespace dorvane
